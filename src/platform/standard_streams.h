// Keeps descriptors of ours away from the numbers of the standard streams.
//
// In a process that has closed one of those, open() gives its number away, and whoever writes to standard
// output or standard error then writes into that file, our own records among them. Moving the descriptor
// up afterwards is too late: another thread's record may come in between. So the free numbers are held
// while a descriptor is made:
//
//   StandardStreamsHeld held;
//   UniqueFd fd(held.above(open(...)));
//
// What holds them are O_PATH descriptors of the root folder. It is there in a chroot without devices too,
// and whoever reads or writes there meanwhile gets EBADF, as from a closed number.
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
    if (are_streams(first)) return;
    hold();
    for (int number = STDIN_FILENO; number < first; number++) give_back(number);
  }
  ~StandardStreamsHeld() {
    const ErrnoKept kept;
    for (int number = STDIN_FILENO; number < kStreams; number++) give_back(number);
  }

  // Whether all numbers from `first` on are open, and none of them is what another thread holds, which is
  // close-on-exec.
  static bool are_streams(int first) {
    for (int number = first; number < kStreams; number++) {
      if (fcntl(number, F_GETFD) != 0) return false;
    }
    return true;
  }

  // What a call gave, above the streams also where a number got free behind our back; -1 where that
  // fails. Takes `made` over. Keeps the errno of a call that failed.
  static int above(int made) {
    UniqueFd fd(made);
    if (fd.get() >= kStreams || !fd.valid()) return fd.release();
    return fcntl(fd.get(), F_DUPFD_CLOEXEC, kStreams);
  }

 private:
  static constexpr int kStreams = STDERR_FILENO + 1;

  // A new descriptor gets the lowest free number: one above the streams tells that none of theirs is
  // left.
  void hold() {
    for (int i = 0; i <= kStreams; i++) {
      const int number = open("/", O_PATH | O_CLOEXEC);
      if (number < 0) return;
      if (number >= kStreams) {
        close(number);
        return;
      }
      is_held_[number] = true;
    }
  }

  // Unless a thread outside the library has put a stream of its own in the place.
  void give_back(int number) {
    if (!is_held_[number]) return;
    is_held_[number] = false;
    const int flags = fcntl(number, F_GETFL);
    if (flags >= 0 && (flags & O_PATH) != 0) close(number);
  }

  const MutexGuard lock_; // given back last
  bool is_held_[kStreams] = {};
};

// open() of a file that stays above the standard streams from its first moment on, with O_CLOEXEC. Where
// there is nothing to hold it takes no lock: an open() can take its time, and every fork() would wait.
inline int open_above(const char* path, int flags, mode_t mode = 0) {
  if (StandardStreamsHeld::are_streams(STDIN_FILENO)) {
    return StandardStreamsHeld::above(open(path, flags | O_CLOEXEC, mode));
  }
  const StandardStreamsHeld held;
  return StandardStreamsHeld::above(open(path, flags | O_CLOEXEC, mode));
}

// Puts /dev/null on those of the numbers that are closed, for good: ahead of code that is not ours and
// keeps no descriptor away from them.
void fill_standard_streams();

} // namespace qn

#endif // QN_PLATFORM_STANDARD_STREAMS_H
