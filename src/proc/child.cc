// Supervised children: a forked routine behind two pipes, or a program that is only known by its pid.
//
//   first pipe    parent to child: the stop word
//   second pipe   child to parent: the answer to it, and heartbeats
//
// Write ends do not block, read ends do. A word of 4 bytes never tears on a pipe.
//
// From the making of the pipes until the parent has closed the child's ends, a child that another thread
// forks would have them all, and no end of a stream would be told as long as it lives. No lock can keep
// others from forking meanwhile: it would have to be taken around every fork(), and the start forks
// itself. So starts under way are listed, and each new child closes what is not its own before anything
// else.
#include <quillcore/process.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>

#include "core/log_record.h"
#include "platform/error_text.h"
#include "platform/guards.h"
#include "platform/past_signals.h"
#include "platform/standard_streams.h"

namespace {

using qn::Message;
using qn::MutexGuard;
using qn::or_dash;
using qn::StandardStreamsHeld;
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

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;

  // Close-on-exec: a program that another thread starts meanwhile must not keep the ends open.
  bool open(const StandardStreamsHeld& held) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read_end.reset(held.above(ends[0]));
    write_end.reset(held.above(ends[1]));
    return read_end.valid() && write_end.valid() && fcntl(write_end.get(), F_SETFL, O_NONBLOCK) == 0;
  }

  void close() {
    read_end.reset();
    write_end.reset();
  }
};

// A start under way. List and ends change in one step under the streams' lock, which is taken around
// every fork, so a child finds both in accord.
class Start {
 public:
  Start() = default;
  ~Start() {
    const MutexGuard guard(qn::g_standard_streams_lock);
    take_off_list();
  }
  Start(const Start&) = delete;
  Start& operator=(const Start&) = delete;

  bool open_pipes() {
    const StandardStreamsHeld held;
    next_ = g_first;
    g_first = this;
    return to_child.open(held) && to_parent.open(held);
  }

  void close_ends_of_child() {
    const MutexGuard guard(qn::g_standard_streams_lock);
    take_off_list();
    to_child.read_end.reset();
    to_parent.write_end.reset();
  }

  // In a new child, which has one thread.
  static void close_ends_of_others() {
    for (Start* start = g_first; start != nullptr; start = start->next_) {
      if (pthread_equal(start->thread_, pthread_self()) != 0) continue;
      start->to_child.close();
      start->to_parent.close();
    }
    g_first = nullptr;
  }

  Pipe to_child;
  Pipe to_parent;

 private:
  void take_off_list() {
    for (Start** link = &g_first; *link != nullptr; link = &(*link)->next_) {
      if (*link != this) continue;
      *link = next_;
      return;
    }
  }

  static constinit Start* g_first;

  Start* next_ = nullptr;
  pthread_t thread_ = pthread_self();
};

constinit Start* Start::g_first = nullptr;

__attribute__((constructor)) void arrange() {
  pthread_atfork(nullptr, nullptr, Start::close_ends_of_others);
}

void write_word(int32_t fd, uint32_t word) {
  [[maybe_unused]] const ssize_t ignored = write(fd, &word, sizeof(word));
}

// Another process's copy of the record: nothing of it reaches the parent.
[[noreturn]] void run_child(qn_child_proc_t& child, Start& start) {
  setsid();
  start.to_child.write_end.reset();
  start.to_parent.read_end.reset();
  child.read_fd = start.to_child.read_end.release();
  child.write_fd = start.to_parent.write_end.release();
  child.pid = getpid();
  exit(child.entry(&child.name)); // NOLINT(concurrency-mt-unsafe): the child has one thread
}

} // namespace

int32_t qn_proc_child_start(qn_child_proc_t* child) {
  if (child == nullptr || child->entry == nullptr) return -1;
  Start start;
  if (!start.open_pipes()) return QN_FAIL(-1, kPipeFailed, QN_ERRNO);
  const pid_t pid = fork();
  if (pid < 0) return QN_FAIL(-1, kForkFailed);
  QN_LOG(kForked);
  if (pid == 0) run_child(*child, start);

  start.close_ends_of_child();
  child->pid = pid;
  child->read_fd = start.to_parent.read_end.release();
  child->write_fd = start.to_child.write_end.release();
  QN_LOG(kStarted, pid, or_dash(child->name));
  return 0;
}

int32_t qn_proc_child_stop(qn_child_proc_t* child) {
  if (child == nullptr) return -1;
  write_word(child->write_fd, QN_PROC_STOP_WORD);
  uint32_t answer = 0;
  qn::read_past_signals(child->read_fd, &answer, sizeof(answer));
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
