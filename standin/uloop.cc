// The event loop: epoll, a sorted list of timers, and the two signals that end it.
#include <libubox/uloop.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include "platform/monotonic.h"

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;

namespace {

constexpr int kEndSignals[] = {SIGINT, SIGTERM};
constexpr int kSignalCount = sizeof(kEndSignals) / sizeof(kEndSignals[0]);
constexpr int64_t kMicrosPerMilli = 1000;

int g_epoll = -1;
// What a handler touches, on whichever thread took the signal: an eventfd, which wakes the wait, and the
// signal. The eventfd is made once and stays, since nothing tells when the last handler has written to
// it.
std::atomic<int> g_wake{-1};
std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);
uloop_timeout* g_timers = nullptr; // by the time they are due
struct sigaction g_before[kSignalCount];
bool g_taken[kSignalCount];

// The marker of the wake-up descriptor among the watched ones, which are known by their address.
uloop_fd g_wake_entry = {};

int64_t due_us(const uloop_timeout& timer) {
  return int64_t{timer.time.tv_sec} * qn::kMicrosPerSecond + timer.time.tv_usec;
}

void on_end_signal(int signal_number) {
  const int kept = errno;
  g_signal.store(signal_number, std::memory_order_release);
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored =
      write(g_wake.load(std::memory_order_acquire), &one, sizeof(one));
  errno = kept;
}

bool is_taken(int signal_number) {
  struct sigaction current = {};
  sigaction(signal_number, nullptr, &current);
  return current.sa_handler == on_end_signal;
}

// A disposition that the program has set itself is left alone.
void take_signals() {
  for (int i = 0; i < kSignalCount; i++) {
    struct sigaction current = {};
    sigaction(kEndSignals[i], nullptr, &current);
    if (current.sa_handler != SIG_DFL) continue;
    struct sigaction action = {};
    action.sa_handler = on_end_signal;
    sigemptyset(&action.sa_mask);
    g_before[i] = current;
    g_taken[i] = sigaction(kEndSignals[i], &action, nullptr) == 0;
  }
  struct sigaction pipe_action = {};
  sigaction(SIGPIPE, nullptr, &pipe_action);
  if (pipe_action.sa_handler != SIG_DFL) return;
  pipe_action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &pipe_action, nullptr);
}

void give_signals_back() {
  for (int i = 0; i < kSignalCount; i++) {
    struct sigaction current = {};
    sigaction(kEndSignals[i], nullptr, &current);
    if (g_taken[i] && current.sa_handler == on_end_signal)
      sigaction(kEndSignals[i], &g_before[i], nullptr);
    g_taken[i] = false;
  }
}

void close_loop() {
  if (g_epoll >= 0) close(g_epoll);
  g_epoll = -1;
}

bool make_wake() {
  if (g_wake.load(std::memory_order_relaxed) < 0) {
    g_wake.store(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), std::memory_order_release);
  }
  return g_wake.load(std::memory_order_relaxed) >= 0;
}

bool is_ended() { return uloop_cancelled || g_signal.load(std::memory_order_acquire) != 0; }

uint32_t interest_of(unsigned int flags) {
  uint32_t interest = EPOLLRDHUP;
  if ((flags & ULOOP_READ) != 0) interest |= EPOLLIN;
  if ((flags & ULOOP_WRITE) != 0) interest |= EPOLLOUT;
  if ((flags & ULOOP_EDGE_TRIGGER) != 0) interest |= EPOLLET;
  return interest;
}

void run_due_timers() {
  const int64_t now = qn::monotonic_us();
  while (g_timers != nullptr && due_us(*g_timers) <= now && !uloop_cancelled) {
    uloop_timeout* const timer = g_timers;
    uloop_timeout_cancel(timer);
    if (timer->cb != nullptr) timer->cb(timer);
  }
}

// Milliseconds to wait, rounded up so that a timer is due when the wait ends; -1 for no limit.
int wait_ms(int limit_ms) {
  if (g_timers == nullptr) return limit_ms;
  const int64_t left = due_us(*g_timers) - qn::monotonic_us();
  const int64_t left_ms = left <= 0 ? 0 : (left + kMicrosPerMilli - 1) / kMicrosPerMilli;
  const int bounded = left_ms < INT32_MAX ? static_cast<int>(left_ms) : INT32_MAX;
  return limit_ms >= 0 && limit_ms < bounded ? limit_ms : bounded;
}

void run_callback(uloop_fd& sock, uint32_t ready) {
  unsigned int events = 0;
  if ((ready & EPOLLIN) != 0) events |= ULOOP_READ;
  if ((ready & EPOLLOUT) != 0) events |= ULOOP_WRITE;
  if ((ready & EPOLLRDHUP) != 0) sock.eof = true;
  if ((ready & (EPOLLERR | EPOLLHUP)) != 0) {
    sock.error = true;
    uloop_fd_delete(&sock);
  }
  if (sock.cb != nullptr) sock.cb(&sock, events);
}

// One descriptor a round: a callback may release what another event of the same wait would name. False
// where there is nothing to wait with.
bool wait_once(int limit_ms) {
  epoll_event event = {};
  const int ready = epoll_wait(g_epoll, &event, 1, wait_ms(limit_ms));
  if (ready != 1) return ready == 0 || errno == EINTR;
  uloop_fd* const sock = static_cast<uloop_fd*>(event.data.ptr);
  if (sock != &g_wake_entry) {
    run_callback(*sock, event.events);
    return true;
  }
  uint64_t count = 0;
  [[maybe_unused]] const ssize_t ignored = read(g_wake, &count, sizeof(count));
  return true;
}

} // namespace

// A loop that is still open from an earlier life may have had its signals taken away since.
int uloop_init() {
  if (g_epoll >= 0) {
    if (!is_taken(SIGINT) && !is_taken(SIGTERM)) g_signal.store(0, std::memory_order_relaxed);
    take_signals();
    return 0;
  }
  g_epoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.ptr = &g_wake_entry;
  if (g_epoll < 0 || !make_wake() || epoll_ctl(g_epoll, EPOLL_CTL_ADD, g_wake, &event) != 0) {
    close_loop();
    return -1;
  }
  g_signal.store(0, std::memory_order_relaxed);
  take_signals();
  return 0;
}

int uloop_fd_add(uloop_fd* sock, unsigned int flags) {
  if ((flags & (ULOOP_READ | ULOOP_WRITE)) == 0) return uloop_fd_delete(sock);
  if (!sock->registered && (flags & ULOOP_BLOCKING) == 0) {
    const int mode = fcntl(sock->fd, F_GETFL);
    if (mode < 0 || fcntl(sock->fd, F_SETFL, mode | O_NONBLOCK) < 0) return -1;
  }
  epoll_event event = {};
  event.events = interest_of(flags);
  event.data.ptr = sock;
  if (epoll_ctl(g_epoll, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event) != 0)
    return -1;
  sock->registered = true;
  sock->eof = sock->error = false;
  sock->flags = static_cast<uint8_t>(flags);
  return 0;
}

int uloop_fd_delete(uloop_fd* sock) {
  if (!sock->registered) return 0;
  sock->registered = false;
  sock->flags = 0;
  return epoll_ctl(g_epoll, EPOLL_CTL_DEL, sock->fd, nullptr);
}

int uloop_timeout_set(uloop_timeout* timeout, int msecs) {
  if (timeout->pending) uloop_timeout_cancel(timeout);
  const int64_t due = qn::monotonic_us() + msecs * kMicrosPerMilli;
  timeout->time.tv_sec = static_cast<decltype(timeout->time.tv_sec)>(due / qn::kMicrosPerSecond);
  timeout->time.tv_usec = static_cast<decltype(timeout->time.tv_usec)>(due % qn::kMicrosPerSecond);
  timeout->pending = true;

  uloop_timeout** place = &g_timers;
  while (*place != nullptr && due_us(**place) <= due) place = &(*place)->next;
  timeout->next = *place;
  *place = timeout;
  return 0;
}

int uloop_timeout_cancel(uloop_timeout* timeout) {
  if (!timeout->pending) return -1;
  uloop_timeout** place = &g_timers;
  while (*place != nullptr && *place != timeout) place = &(*place)->next;
  if (*place != nullptr) *place = timeout->next;
  timeout->next = nullptr;
  timeout->pending = false;
  return 0;
}

// A signal that came since uloop_init() ends it at once.
int uloop_run_timeout(int timeout) {
  uloop_cancelled = false;
  do {
    run_due_timers();
    if (is_ended() || !wait_once(timeout)) break;
  } while (timeout < 0 && !is_ended());
  return g_signal.exchange(0, std::memory_order_acquire);
}

void uloop_end() { uloop_cancelled = true; }

void uloop_done() {
  give_signals_back();
  while (g_timers != nullptr) uloop_timeout_cancel(g_timers);
  close_loop();
}
