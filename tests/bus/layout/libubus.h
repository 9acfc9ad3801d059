/* A context whose other fields are unknown and large, and an object likewise: the client may rely on the
   fields that it names and on nothing else. Nor does a header from before 2020 say that it is C: the last
   line does not compile where the client has not said so around it. */
#include <libubox/uloop.h>

struct blob_attr;
struct ubus_context {
  char unknown_before[96];
  struct uloop_fd sock;
  struct uloop_timeout unknown_timer;
  uint32_t local_id;
  uint16_t unknown_word;
  void (*connection_lost)(struct ubus_context* ctx);
  char unknown_behind[512];
};
struct ubus_object {
  char unknown_before[40];
  uint32_t id;
  char unknown_behind[80];
};
struct ubus_event_handler;
typedef void (*ubus_event_handler_t)(struct ubus_context*, struct ubus_event_handler*, const char*,
                                     struct blob_attr*);
struct ubus_event_handler {
  struct ubus_object obj;
  ubus_event_handler_t cb;
};
struct ubus_context* ubus_connect(const char* path);
int ubus_reconnect(struct ubus_context* ctx, const char* path);
void ubus_free(struct ubus_context* ctx);
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                const char* pattern);
extern "C" struct ubus_context* ubus_connect(const char* path);
