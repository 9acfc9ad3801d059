// Supervised children: a forked routine behind two pipes, or a program that is only known by its pid.
//
//   first pipe    parent to child: the stop word
//   second pipe   child to parent: the answer to it, and heartbeats
//
// Write ends do not block, read ends do. A word of 4 bytes never tears on a pipe.
#include <quillcore/process.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>

#include "core/log_record.h"
#include "platform/error_text.h"
#include "platform/guards.h"

namespace {

using qn::ErrorText;
using qn::Message;
using qn::UniqueFd;

constexpr char kModule[] = "child_proc";
constexpr char kStart[] = "child_proc_start";

constexpr Message kPipeFailed{QN_LOG_E, 0, kModule, kStart, "pipe failed. errno=(%d,%s)"};
constexpr Message kForkFailed{QN_LOG_E, 588, kModule, kStart, "fork failed"};
constexpr Message kForked{QN_LOG_I, 589, kModule, kStart, "fork success."};
constexpr Message kStarted{QN_LOG_I, 590, kModule, kStart,
                           "fork child proc(pid=%d,name=%s) success.now in parent proc."};
constexpr Message kStopped{QN_LOG_I, 591, kModule, "child_proc_stop",
                           "stop child proc(pid=%d,name=%s) success.now in parent proc."};
constexpr Message kExecForkFailed{QN_LOG_E, 592, kModule, kStart, "fork failed"};
constexpr Message kExecStarted{
    QN_LOG_I, 593, kModule, kStart,
    "fork child proc name=%s, pid=%d, proc_file=%s success. now in parent proc."};
constexpr Message kExecStop{QN_LOG_I, 594, kModule, "proc_child_stop_exec",
                            "ready to stop %s, pid=%d, exec=%s."};

constexpr int32_t kFirstPidToSignal = 2;

static_assert(offsetof(qn_child_proc_t, caller_words) == 2 * sizeof(void*));
static_assert(offsetof(qn_child_proc_t, pid) == 2 * sizeof(void*) + 36);

const char* or_dash(const char* text) { return text != nullptr ? text : "-"; }

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;

  // Close-on-exec: a program that another thread starts meanwhile must not keep the ends open.
  bool open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
    return fcntl(write_end.get(), F_SETFL, O_NONBLOCK) == 0;
  }
};

void write_word(int32_t fd, uint32_t word) {
  [[maybe_unused]] const ssize_t ignored = write(fd, &word, sizeof(word));
}

// Another process's copy of the record: nothing of it reaches the parent.
[[noreturn]] void run_child(qn_child_proc_t& child, Pipe& to_child, Pipe& to_parent) {
  setsid();
  to_child.write_end.reset();
  to_parent.read_end.reset();
  child.read_fd = to_child.read_end.release();
  child.write_fd = to_parent.write_end.release();
  child.pid = getpid();
  exit(child.entry(&child.name)); // NOLINT(concurrency-mt-unsafe): the child has one thread
}

} // namespace

int32_t qn_proc_child_start(qn_child_proc_t* child) {
  if (child == nullptr || child->entry == nullptr) return -1;
  Pipe to_child;
  Pipe to_parent;
  if (!to_child.open() || !to_parent.open()) return QN_FAIL(-1, kPipeFailed, QN_ERRNO);
  const pid_t pid = fork();
  if (pid < 0) return QN_FAIL(-1, kForkFailed);
  QN_LOG(kForked);
  if (pid == 0) run_child(*child, to_child, to_parent);

  to_child.read_end.reset();
  to_parent.write_end.reset();
  child->pid = pid;
  child->read_fd = to_parent.read_end.release();
  child->write_fd = to_child.write_end.release();
  QN_LOG(kStarted, pid, or_dash(child->name));
  return 0;
}

int32_t qn_proc_child_stop(qn_child_proc_t* child) {
  if (child == nullptr) return -1;
  write_word(child->write_fd, QN_PROC_STOP_WORD);
  uint32_t answer = 0;
  while (read(child->read_fd, &answer, sizeof(answer)) < 0 && errno == EINTR) {
  }
  close(child->write_fd);
  close(child->read_fd);
  kill(child->pid, SIGTERM);
  QN_LOG(kStopped, child->pid, or_dash(child->name));
  return 0;
}

int32_t qn_proc_child_send_heatbeat(qn_child_proc_t* child) {
  if (child == nullptr) return -1;
  write_word(child->write_fd, QN_PROC_HEARTBEAT_WORD);
  return 0;
}

int32_t qn_proc_child_start_exec(const char* name, const char* path, char* const argv[], int32_t* pid) {
  if (path == nullptr || argv == nullptr || pid == nullptr) return -1;
  const pid_t child = fork();
  if (child < 0) return QN_FAIL(-1, kExecForkFailed);
  if (child == 0) exit(execv(path, argv)); // NOLINT(concurrency-mt-unsafe): the child has one thread
  *pid = child;
  QN_LOG(kExecStarted, or_dash(name), child, path);
  return 0;
}

int32_t qn_proc_child_stop_exec(const char* path, const char* name, int32_t pid) {
  if (pid < kFirstPidToSignal) return 0;
  QN_LOG(kExecStop, or_dash(name), pid, or_dash(path));
  kill(pid, SIGTERM);
  return 0;
}
