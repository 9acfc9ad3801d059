// Owners that undo on every way out: of descriptors, locks and errno.
#ifndef QN_PLATFORM_GUARDS_H
#define QN_PLATFORM_GUARDS_H

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

namespace qn {

// Gives errno back at the end of its scope: what tidies up must not change what a caller will read.
class ErrnoKept {
 public:
  ErrnoKept() = default;
  ~ErrnoKept() { errno = kept_; }
  ErrnoKept(const ErrnoKept&) = delete;
  ErrnoKept& operator=(const ErrnoKept&) = delete;

 private:
  const int kept_ = errno;
};

// Owns a descriptor. Closing keeps errno, so a failing path may report it afterwards, and is never
// repeated after EINTR: Linux has released the number by then.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  void reset(int fd = -1) {
    if (fd_ >= 0) {
      const ErrnoKept kept;
      close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_;
};

// Holds a lock from its construction to the end of its scope.
template <typename Lock, int (*acquire)(Lock*), int (*release)(Lock*)>
class ScopedLock {
 public:
  explicit ScopedLock(Lock& lock) : lock_(lock) { acquire(&lock_); }
  ~ScopedLock() { release(&lock_); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Lock& lock_;
};

using MutexGuard = ScopedLock<pthread_mutex_t, pthread_mutex_lock, pthread_mutex_unlock>;
using SpinGuard = ScopedLock<pthread_spinlock_t, pthread_spin_lock, pthread_spin_unlock>;
using WriteGuard = ScopedLock<pthread_rwlock_t, pthread_rwlock_wrlock, pthread_rwlock_unlock>;

} // namespace qn

#endif // QN_PLATFORM_GUARDS_H
