// Threads and mutexes in the one form that the library uses itself.
//
// Threads: every function may be called from any thread.
#ifndef QUILLCORE_THREAD_H
#define QUILLCORE_THREAD_H

#include <pthread.h>
#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_PTHREAD_STACK_SIZE 204800 // bytes

// Starts a joinable thread with a stack of QN_PTHREAD_STACK_SIZE bytes that runs start_routine(arg).
// `thread` is written before the call returns; the new thread may be running by then.
// Returns 0; -1 when the thread was not created (logged, 605). A failure to set the stack size or
// to release the attributes is logged (603, 604, 606) and does not stop the thread.
QN_API int32_t qn_pthread_new(pthread_t* thread, void* (*start_routine)(void*), void* arg);

// Gives up the right to join `thread`. Returns the result of pthread_detach().
QN_API int32_t qn_pthread_detach(pthread_t thread);

// Initialises a mutex of the default type: not recursive, not shared between processes. It stays the
// caller's, who ends it with pthread_mutex_destroy(). Returns 0.
QN_API int32_t qn_pthread_mutex_init(pthread_mutex_t* mutex);

QN_END_DECLS

#endif // QUILLCORE_THREAD_H
