// Keeps the log usable in a child of fork().
//
// A child has only the thread that forked. A lock that another thread held at that moment would stay
// locked in it for ever, so every lock of the log is taken before a fork and given back on both sides.
//
// Lock order of the log, outermost first:
//   the change lock           permission changes (permission.cc)
//   the list of writers       this file
//   a writer's rotation locks
//   its files' locks
//   the lock of the maps      pointers to the permission maps (permission.cc)
//   a map's lock
//   the stamp's lock          conversion to local time (log_line.cc, which guards it itself)
//   the streams' lock         numbers 0 to 2 while a descriptor is made, and whose the ends of a new
//                             pipe are (standard_streams.cc, the same)
#ifndef QN_LOG_FORK_GUARD_H
#define QN_LOG_FORK_GUARD_H

#include "log/local_writer.h"

namespace qn {

// Writers whose locks are guarded.
void fork_guard_add(qn_log_local_writer_t& writer);
void fork_guard_remove(qn_log_local_writer_t& writer);

} // namespace qn

#endif // QN_LOG_FORK_GUARD_H
