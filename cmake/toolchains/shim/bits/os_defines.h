// Takes the place of the compiler's header of this name where Debian's g++, which is made for glibc,
// compiles against musl: found first, it lets the standard headers parse. Only header-only parts of the
// standard library are used then; what is declared below does not exist in musl, and -z defs refuses any
// use of it. A compiler that is made for musl has a header of its own.
#ifndef QN_SHIM_OS_DEFINES_H
#define QN_SHIM_OS_DEFINES_H

#define __NO_CTYPE 1
#include <features.h>
#define _GLIBCXX_NO_OBSOLETE_ISINF_ISNAN_DYNAMIC 1
#define _GLIBCXX_NATIVE_THREAD_ID pthread_self()
// Threads are part of musl's libc: no weak references, no asking whether there are any.
#define _GLIBCXX_GTHREAD_USE_WEAK 0

#include <pthread.h>

typedef struct __locale_struct* __locale_t; // for <bits/c++locale.h>

enum { // for <bits/ctype_base.h>
  _ISupper = 1,
  _ISlower = 2,
  _ISalpha = 4,
  _ISdigit = 8,
  _ISxdigit = 16,
  _ISspace = 32,
  _ISprint = 64,
  _ISpunct = 128,
  _IScntrl = 256,
  _ISblank = 512
};

extern "C" { // for <mutex> and <shared_mutex>
int pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);
int pthread_mutex_clocklock(pthread_mutex_t*, clockid_t, const struct timespec*);
int pthread_rwlock_clockrdlock(pthread_rwlock_t*, clockid_t, const struct timespec*);
int pthread_rwlock_clockwrlock(pthread_rwlock_t*, clockid_t, const struct timespec*);
}

#endif // QN_SHIM_OS_DEFINES_H
