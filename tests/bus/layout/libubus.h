/* What the client may rely on, and nothing else: these fields and functions, wherever the fields lie. Nor
   does a header from before 2020 say that it is C: the last line does not compile where the client has
   not said so around it. */
#include <stdbool.h>
#include <stdint.h>

struct uloop_fd {
  void (*cb)(struct uloop_fd*, unsigned int);
  int fd;
  bool registered;
};
struct uloop_timeout {
  void (*cb)(struct uloop_timeout*);
};
enum { ULOOP_READ = 1, ULOOP_BLOCKING = 8 };
extern bool uloop_cancelled, uloop_handle_sigchld;
int uloop_init(void);
int uloop_fd_add(struct uloop_fd* sock, unsigned int flags);
int uloop_fd_delete(struct uloop_fd* sock);
int uloop_timeout_set(struct uloop_timeout* timeout, int msecs);
int uloop_timeout_cancel(struct uloop_timeout* timeout);
int uloop_run_timeout(int timeout);
void uloop_done(void);

struct blob_attr;
struct ubus_context {
  struct uloop_fd sock;
  uint32_t local_id;
  void (*connection_lost)(struct ubus_context* ctx);
};
struct ubus_event_handler;
typedef void (*ubus_event_handler_t)(struct ubus_context*, struct ubus_event_handler*, const char*,
                                     struct blob_attr*);
struct ubus_event_handler {
  ubus_event_handler_t cb;
};
struct ubus_context* ubus_connect(const char* path);
int ubus_reconnect(struct ubus_context* ctx, const char* path);
void ubus_free(struct ubus_context* ctx);
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                const char* pattern);
extern "C" struct ubus_context* ubus_connect(const char* path);
