// Locks of the log around fork().
#include "log/fork_guard.h"

#include <cstddef>

#include "log/permission.h"
#include "platform/guards.h"

namespace qn {
namespace {

using LockCall = int (*)(pthread_mutex_t*);

// Covers the list of writers.
constinit pthread_mutex_t g_writers_lock = PTHREAD_MUTEX_INITIALIZER;
constinit ListLink g_writers = {&g_writers, &g_writers};

void for_each_writer(LockCall call) {
  for (ListLink* link = g_writers.next; link != &g_writers; link = link->next) {
    auto& writer = list_entry<qn_log_local_writer_t>(*link, offsetof(qn_log_local_writer_t, all_writers));
    call(&writer.file_lock);
    call(&writer.error_file_lock);
    call(&writer.file->lock);
    call(&writer.error_file->lock);
  }
}

void before_fork() {
  pthread_mutex_lock(&permission_change_lock());
  pthread_mutex_lock(&g_writers_lock);
  for_each_writer(pthread_mutex_lock);
  permission_maps_each_lock(pthread_mutex_lock);
}

void after_fork() {
  permission_maps_each_lock(pthread_mutex_unlock);
  for_each_writer(pthread_mutex_unlock);
  pthread_mutex_unlock(&g_writers_lock);
  pthread_mutex_unlock(&permission_change_lock());
}

// Where the library is loaded: a process may log and fork before it has an instance. Without memory for
// it only a child that logs could notice.
__attribute__((constructor)) void arrange() { pthread_atfork(before_fork, after_fork, after_fork); }

} // namespace

void fork_guard_add(qn_log_local_writer_t& writer) {
  const MutexGuard guard(g_writers_lock);
  list_append(g_writers, writer.all_writers);
}

void fork_guard_remove(qn_log_local_writer_t& writer) {
  const MutexGuard guard(g_writers_lock);
  list_remove(writer.all_writers);
}

} // namespace qn
