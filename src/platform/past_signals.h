// Calls that go on when a signal handler has interrupted them.
#ifndef QN_PLATFORM_PAST_SIGNALS_H
#define QN_PLATFORM_PAST_SIGNALS_H

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace qn {

// read(). Waits anew where a signal came before the first byte; what a signal cuts short behind it is
// given as it is.
inline ssize_t read_past_signals(int fd, void* buffer, size_t size) {
  ssize_t got = -1;
  do {
    got = read(fd, buffer, size);
  } while (got < 0 && errno == EINTR);
  return got;
}

// waitpid() for the end of a child. False when it cannot be waited for.
inline bool wait_past_signals(pid_t child, int* status) {
  while (waitpid(child, status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

} // namespace qn

#endif // QN_PLATFORM_PAST_SIGNALS_H
