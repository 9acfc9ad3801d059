// The lock of the standard streams around fork(), since a child has none of the threads that could give
// it back; and streams where there are none.
#include "platform/standard_streams.h"

namespace qn {

constinit pthread_mutex_t g_standard_streams_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

void before_fork() { pthread_mutex_lock(&g_standard_streams_lock); }
void after_fork() { pthread_mutex_unlock(&g_standard_streams_lock); }

// Ahead of whatever else guards a lock: what is arranged first is taken last, as the innermost lock must
// be.
constexpr int kFirst = 101;
__attribute__((constructor(kFirst))) void arrange() {
  pthread_atfork(before_fork, after_fork, after_fork);
}

} // namespace

void fill_standard_streams() {
  if (StandardStreamsHeld::are_streams(STDIN_FILENO)) return;
  const MutexGuard guard(g_standard_streams_lock);
  for (int number = STDIN_FILENO; number <= STDERR_FILENO;) {
    // The lowest free one; a stream is inherited.
    number = open("/dev/null", O_RDWR); // NOLINT(android-cloexec-open)
    if (number < 0) return;
    if (number > STDERR_FILENO) close(number);
  }
}

} // namespace qn
