/* The fields of the event loop in another layout than that of the layer that stands in for it. */
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

struct uloop_fd {
  void (*cb)(struct uloop_fd*, unsigned int);
  int fd;
  bool eof, error, registered;
  uint8_t flags;
};
struct list_head {
  struct list_head *next, *prev;
};
struct uloop_timeout {
  struct list_head list;
  bool pending;
  void (*cb)(struct uloop_timeout*);
  struct timeval time;
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
