// Keeps descriptors of ours away from the numbers of the standard streams.
//
// In a process that has closed one of those, open() gives its number away, and whoever writes to standard
// output or standard error then writes into that file, our own records among them. Moving the descriptor
// up afterwards is too late: another thread's record may come in between. So the free numbers are held on
// /dev/null while a descriptor is made:
//
//   StandardStreamsHeld held;
//   UniqueFd fd(held.above(open(...)));
#ifndef QN_PLATFORM_STANDARD_STREAMS_H
#define QN_PLATFORM_STANDARD_STREAMS_H

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "platform/guards.h"

namespace qn {

// Covers the numbers: two threads at once would take each other's holding for a stream that is open, and
// then lose it. The innermost of all locks; nothing but descriptors are made under it, and by popen() a
// child. fork() waits for it, so it also covers a descriptor that is not close-on-exec from birth, and a
// pipe until it is known who is to have its ends.
extern pthread_mutex_t g_standard_streams_lock;

class StandardStreamsHeld {
 public:
  // Numbers below `first` are left as they are.
  explicit StandardStreamsHeld(int first = STDIN_FILENO) : lock_(g_standard_streams_lock) {
    for (int number = first; number < kStreams; number++) {
      if (fcntl(number, F_GETFD) < 0) hold(number);
    }
    if (null_.get() < first) null_.reset();
  }

  // Whether all numbers from `first` on are open, and none of them is what another thread holds, which is
  // close-on-exec.
  static bool are_streams(int first) {
    for (int number = first; number < kStreams; number++) {
      if (fcntl(number, F_GETFD) != 0) return false;
    }
    return true;
  }

  // What a call gave, above the streams even where /dev/null could not be had; -1 where that fails.
  // Takes `made` over. Keeps the errno of a call that failed.
  static int above(int made) {
    UniqueFd fd(made);
    if (fd.get() >= kStreams || !fd.valid()) return fd.release();
    return fcntl(fd.get(), F_DUPFD_CLOEXEC, kStreams);
  }

 private:
  static constexpr int kStreams = STDERR_FILENO + 1;

  // Gets a higher number where a thread outside the library has just taken this one, or /dev/null itself
  // has.
  void hold(int number) {
    if (!null_.valid()) null_.reset(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null_.valid()) held_[number].reset(fcntl(null_.get(), F_DUPFD_CLOEXEC, number));
  }

  const MutexGuard lock_; // given back last
  UniqueFd null_;
  UniqueFd held_[kStreams];
};

// open() of a file that stays above the standard streams from its first moment on, with O_CLOEXEC.
inline int open_above(const char* path, int flags, mode_t mode = 0) {
  const StandardStreamsHeld held;
  return StandardStreamsHeld::above(open(path, flags | O_CLOEXEC, mode));
}

} // namespace qn

#endif // QN_PLATFORM_STANDARD_STREAMS_H
