// Event loop: descriptors and one-shot timers. All state is static, one loop a process; every call comes
// from one thread.
//
// Stands in for the header of the same name where that is not installed.
#ifndef STANDIN_LIBUBOX_ULOOP_H
#define STANDIN_LIBUBOX_ULOOP_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

struct uloop_fd;
struct uloop_timeout;

typedef void (*uloop_fd_handler)(struct uloop_fd* u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout* t);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3) // leave the descriptor's mode alone

// A caller sets `cb` and `fd`.
struct uloop_fd {
  uloop_fd_handler cb;
  int fd;
  bool eof;
  bool error;
  bool registered;
  uint8_t flags;
};

// A caller sets `cb`.
struct uloop_timeout {
  struct uloop_timeout* next; // private
  bool pending;
  uloop_timeout_handler cb;
  struct timeval time; // when it is due, on the monotonic clock
};

extern bool uloop_cancelled;      // set by uloop_end()
extern bool uloop_handle_sigchld; // of no effect here: this loop starts no children and reaps none

// Makes the loop and takes SIGINT and SIGTERM where they have their default action, so that either ends
// the loop instead of the process; SIGPIPE is ignored from then on. May be called again. 0 or -1.
int uloop_init(void);

// Watches a descriptor, or changes what is watched; without READ and WRITE it is given up. 0 or -1.
int uloop_fd_add(struct uloop_fd* sock, unsigned int flags);
// Gives a descriptor up without closing it. 0, also for one that is not watched.
int uloop_fd_delete(struct uloop_fd* sock);

// Calls `cb` once, `msecs` milliseconds from now; a pending timer is moved. 0.
int uloop_timeout_set(struct uloop_timeout* timeout, int msecs);
// 0; -1 if the timer was not pending.
int uloop_timeout_cancel(struct uloop_timeout* timeout);

// Runs rounds until the loop is ended (-1) or one round of at most `timeout` milliseconds. A round runs
// the timers that are due and one descriptor's callback. Returns the number of the signal that ended it,
// or 0.
int uloop_run_timeout(int timeout);

static inline int uloop_run(void) { return uloop_run_timeout(-1); }

// Ends the loop after the callback that runs. From another thread it wakes nothing.
void uloop_end(void);

// Puts the signals back where its own handlers are still in place, cancels all timers, releases the loop.
// Watched descriptors stay open.
void uloop_done(void);

#ifdef __cplusplus
}
#endif

#endif // STANDIN_LIBUBOX_ULOOP_H
