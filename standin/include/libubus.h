// A client of the bus: connect, subscribe to events, reconnect.
//
// Stands in for the header of the same name where that is not installed. It speaks the same protocol, and
// unlike the real one it waits for no answer longer than two seconds and takes a message that breaks the
// protocol for a lost connection.
#ifndef STANDIN_LIBUBUS_H
#define STANDIN_LIBUBUS_H

#include <libubox/blobmsg.h>
#include <libubox/uloop.h>

#ifdef __cplusplus
extern "C" {
#endif

struct ubus_context;
struct ubus_event_handler;

typedef void (*ubus_event_handler_t)(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                     const char* type, struct blob_attr* msg);

enum ubus_msg_status {
  UBUS_STATUS_OK,
  UBUS_STATUS_INVALID_COMMAND,
  UBUS_STATUS_INVALID_ARGUMENT,
  UBUS_STATUS_METHOD_NOT_FOUND,
  UBUS_STATUS_NOT_FOUND,
  UBUS_STATUS_NO_DATA,
  UBUS_STATUS_PERMISSION_DENIED,
  UBUS_STATUS_TIMEOUT,
  UBUS_STATUS_NOT_SUPPORTED,
  UBUS_STATUS_UNKNOWN_ERROR,
  UBUS_STATUS_CONNECTION_FAILED,
  UBUS_STATUS_NO_MEMORY,
  UBUS_STATUS_PARSE_ERROR,
  UBUS_STATUS_SYSTEM_ERROR,
};

struct ubus_object {
  uint32_t id;              // 0 when not on the bus
  struct ubus_object* next; // private
};

// Zero all, then set `cb`. It stays in place as long as the context lives.
struct ubus_event_handler {
  struct ubus_object obj;
  ubus_event_handler_t cb;
};

struct ubus_context {
  struct uloop_fd sock;
  uint32_t local_id; // as it lies on the wire, not converted
  void (*connection_lost)(struct ubus_context* ctx);
  struct ubus_connection* connection; // private
};

// Connects; a null path means the system's own. The socket is not watched yet. Null on any failure.
struct ubus_context* ubus_connect(const char* path);

// Closes the connection and makes a new one; objects are put on the bus again under new ids, patterns are
// not. 0; UBUS_STATUS_CONNECTION_FAILED or UBUS_STATUS_UNKNOWN_ERROR, and then there is no socket.
int ubus_reconnect(struct ubus_context* ctx, const char* path);

// Closes the connection and releases the context. Null is allowed.
void ubus_free(struct ubus_context* ctx);

// Subscribes to the events whose type the pattern matches. 0 or a status code.
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                const char* pattern);

#ifdef __cplusplus
}
#endif

#endif // STANDIN_LIBUBUS_H
