// Processes: going to the background, pid files, supervised children.
//
// Threads: any thread may call the functions of this file, qn_daemon() before there is a second one. One
// thread at a time works on a child's record.
#ifndef QUILLCORE_PROCESS_H
#define QUILLCORE_PROCESS_H

#include <quillcore/api.h>
#include <stddef.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_PROC_ALIVE (-23) // a live process holds the pid file

#define QN_PROC_STOP_WORD 0x69696969u      // parent to child: please stop
#define QN_PROC_HEARTBEAT_WORD 0x5a5a5a5au // sign of life

// Turns the process into a daemon: two forks, a session of its own, SIGHUP and SIGPIPE ignored, "/" as
// the working directory, umask 0, standard error on /dev/console where that can be opened. Standard input
// and output and all other descriptors stay. To be called before any thread exists. Returns 0 in the
// process that survives; the caller's own process leaves with exit(0), also when a fork failed: what
// stdio has not written by then is written by both.
QN_API int32_t qn_daemon(void);

// Takes the pid file /tmp/quillnet/`name` (a name of at most 112 bytes) for this process: 4 bytes, the
// pid as a signed 32-bit number in host byte order. A file whose owner is gone is taken over. The
// directory must exist (qn_init_dir()). There is no lock: of two processes that start at one moment the
// later wins. A link in the place of the file is followed if root or the process's own user made it;
// another user's makes the file one that cannot be opened.
//
// The owner is alive if any process has its pid that may be signalled. A daemon that died without
// qn_proc_clean_pidfile() leaves a pid that may be another process's by now, which then keeps it from
// starting for as long as it lives. It may even be the caller's own, in a container where each start
// counts from 1: a file that names the caller before the first call is a left-over, to be cleaned before.
// Against the rest helps a lock of the daemon's own on a file beside it, held while it runs: who gets
// that lock knows that the pid file is stale. Returns 0; QN_PROC_ALIVE when a live process holds the
// file, which stays as it is (logged, 599); -1 for a null or too long name and when the file cannot be
// read or written (logged, 595, 596, 598).
QN_API int32_t qn_proc_check_or_create_pidfile(const char* name);

// Removes the pid file, whoever holds it. Returns 0; -1 when there is none or the name is too long or
// null.
QN_API int32_t qn_proc_clean_pidfile(const char* name);

// One supervised child. The caller owns the record and keeps it as long as the child runs; parent and
// child have a copy each.
typedef struct qn_child_proc {
  // The child's main routine. `arg` is the address of `name` below, see qn_proc_child_of_entry(); its
  // result becomes the exit status.
  // It watches `read_fd` for the stop word and answers with any word on `write_fd`, or exits.
  int32_t (*entry)(void* arg);
  const char* name;         // for the log
  uint32_t caller_words[9]; // the caller's own
  int32_t pid;              // of the child, in both processes
  int32_t read_fd;          // this side's read end, blocking
  int32_t write_fd;         // this side's write end, not blocking
} qn_child_proc_t;

// The child's record, out of the argument that its `entry` was given.
static inline qn_child_proc_t* qn_proc_child_of_entry(void* arg) {
  return (qn_child_proc_t*)(void*)((char*)arg - offsetof(qn_child_proc_t, name));
}

// Forks a child that runs `entry` in a session of its own. Only the calling thread goes on in the child,
// so `entry` must not count on locks that other threads held. Several threads may start children at once,
// beside any other fork(): no child gets an end of a pipe that is being made for another. What the parent
// holds by then it inherits, its ends of earlier children's pipes among that. Returns 0 in the parent,
// with pid and descriptors in the record; -1 for a null record or entry, when the pipes could not be made
// (logged) and when the fork failed (logged, 588), the record being unchanged. The child does not return:
// it leaves by exit(), with the exit handlers and unwritten stdio buffers that the parent had.
QN_API int32_t qn_proc_child_start(qn_child_proc_t* child);

// Sends the stop word, waits without limit, past signals too, until the child writes a word or closes its
// end, closes both descriptors, sends SIGTERM. A heartbeat that nobody has read ends the wait too. The
// caller reaps the child behind this call and never before: the pid of a child that has been reaped may
// be another process's by now, and that would get the SIGTERM. SIGPIPE should be ignored: the child may
// be gone. The record must be of a child that was started and not stopped yet: a zeroed one signals the
// caller's own process group. Returns 0; -1 for a null record.
QN_API int32_t qn_proc_child_stop(qn_child_proc_t* child);

// Writes the heartbeat word on the record's `write_fd`. A full pipe costs the beat and never blocks.
// Returns 0; -1 for a null record.
QN_API int32_t qn_proc_child_send_heatbeat(qn_child_proc_t* child);

// Starts the program at `path` with the argument vector `argv`, which ends in a null entry. A program
// that cannot be executed is a child with exit status 255. Returns 0, with the child's pid in `*pid`; -1
// for a null path, vector or `pid` and when the fork failed (logged, 592), and `*pid` stays as it was.
QN_API int32_t qn_proc_child_start_exec(const char* name, const char* path, char* const argv[],
                                        int32_t* pid);

// Sends SIGTERM to `pid`, if it is 2 or more, and does not wait. The caller reaps the child behind this
// call, as behind qn_proc_child_stop(). Returns 0.
QN_API int32_t qn_proc_child_stop_exec(const char* path, const char* name, int32_t pid);

QN_END_DECLS

#endif // QUILLCORE_PROCESS_H
