// Daemons, pid files and supervised children: real processes in mounts of their own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <quillcore/log.h>
#include <quillcore/memory.h>
#include <quillcore/process.h>
#include <quillcore/utility.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kForks = 100;
constexpr int kHeartbeats = 100000;
#else
constexpr int kForks = 1000;
constexpr int kHeartbeats = 1000000;
#endif
constexpr int kRounds = 1000;
constexpr int kStarts = 200;
constexpr unsigned int kDeadlineSeconds = 240;

constexpr char kPidFile[] = "/tmp/quillnet/x.pid";

std::string pid_bytes(int32_t pid) { return {reinterpret_cast<const char*>(&pid), sizeof(pid)}; }

int32_t ended_process() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

TEST(PidFile, BelongsToTheLiveProcessThatItNames) {
  in_own_namespace([] {
    StderrCapture capture;
    EXPECT_EQ(-1, qn_proc_check_or_create_pidfile("x.pid")) << "no directory";
    EXPECT_EQ("create pidfile=/tmp/quillnet//x.pid failed.", capture.records(595).at(0).text);
    mkdir("/tmp/quillnet", 0755);
    const int32_t self = getpid(), gone = ended_process();
    const struct {
      const char* why;
      std::string content;
      int32_t result;
      std::vector<uint32_t> logids;
    } rows[] = {
        {"gone", pid_bytes(gone), 0, {601, 602, 597}},
        {"short", "\x01\x00\x00", 0, {601, 602, 597}},
        {"empty", "", 0, {601, 602, 597}},
        {"zero", pid_bytes(0), 0, {601, 602, 597}},
        {"negative", pid_bytes(-1), 0, {601, 602, 597}},
        {"bytes behind are not read", pid_bytes(gone) + "junk", 0, {601, 602, 597}},
        {"alive", pid_bytes(self), QN_PROC_ALIVE, {599, 600}},
    };
    for (const auto& row : rows) {
      SCOPED_TRACE(row.why);
      write_file(kPidFile, row.content);
      capture.clear();
      EXPECT_EQ(row.result, qn_proc_check_or_create_pidfile("x.pid"));
      EXPECT_EQ(row.logids, capture.logids());
      EXPECT_EQ(pid_bytes(self), read_file(kPidFile));
    }
    EXPECT_EQ(QN_PROC_ALIVE, qn_proc_check_or_create_pidfile("x.pid")) << "it finds itself alive";
    EXPECT_EQ(0, qn_proc_clean_pidfile("x.pid"));
    EXPECT_EQ(-1, qn_proc_clean_pidfile("x.pid"));
    mkdir(kPidFile, 0755);
    capture.clear();
    EXPECT_EQ(-1, qn_proc_check_or_create_pidfile("x.pid"));
    EXPECT_EQ((std::vector<uint32_t>{598}), capture.logids());

    const std::string fits(112, 'n'), too_long(113, 'n');
    EXPECT_EQ(0, qn_proc_check_or_create_pidfile(fits.c_str()));
    EXPECT_EQ(0, qn_proc_clean_pidfile(fits.c_str()));
    EXPECT_EQ(-1, qn_proc_check_or_create_pidfile(too_long.c_str()));
    EXPECT_GT(0, qn_proc_clean_pidfile(too_long.c_str()));
    EXPECT_EQ(-1, qn_proc_check_or_create_pidfile(nullptr));
    capture.release();
  });
}

// Whoever makes the folder first may have laid links there.
TEST(PidFile, IsReachedByLinksOfItsOwnUserOnly) {
  in_own_namespace([] {
    const StderrCapture capture;
    const auto lay = [](const std::string& name, const std::string& to, bool other) {
      const std::string path = "/tmp/quillnet/" + name;
      unlink(path.c_str());
      ASSERT_EQ(0, symlink(to.c_str(), path.c_str()));
      if (other) ASSERT_EQ(0, lchown(path.c_str(), 4711, 4711)) << "this takes root";
    };
    mkdir("/tmp/quillnet", 0755), mkdir("/tmp/victims", 0755);
    const struct {
      const char* why;
      bool first_is_other, second_is_other, is_there;
      std::vector<uint32_t> logids;
    } rows[] = {
        {"own links", false, false, true, {601, 602, 597}},
        {"own links to a new file", false, false, false, {597}},
        {"another's link", true, false, true, {598}},
        {"another's link to a new file", true, false, false, {595}},
        {"another's behind an own one", false, true, true, {598}},
    };
    for (const auto& row : rows) {
      SCOPED_TRACE(row.why);
      unlink("/tmp/victims/file");
      if (row.is_there) write_file("/tmp/victims/file", "victim");
      lay("x.pid", "second", row.first_is_other);
      lay("second", "../victims/file", row.second_is_other);
      const_cast<StderrCapture&>(capture).clear();
      const bool refused = row.first_is_other || row.second_is_other;
      EXPECT_EQ(refused ? -1 : 0, qn_proc_check_or_create_pidfile("x.pid"));
      EXPECT_EQ(row.logids, capture.logids());
      const std::string kept = row.is_there ? "victim" : "";
      EXPECT_EQ(refused ? kept : pid_bytes(getpid()), read_file("/tmp/victims/file"));
    }
    lay("x.pid", "x.pid", false);
    EXPECT_EQ(-1, qn_proc_check_or_create_pidfile("x.pid")) << "a loop ends";
  });
}

// Two processes start at one moment, again and again: both may win, but the file is always whole.
TEST(PidFile, IsWholeAfterTwoStartAtOnce) {
  in_own_namespace([] {
    struct Shared {
      pthread_barrier_t barrier;
      int32_t results[2];
    };
    StderrCapture capture;
    mkdir("/tmp/quillnet", 0755);
    auto* const shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pthread_barrierattr_t attributes;
    pthread_barrierattr_init(&attributes);
    pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_barrier_init(&shared->barrier, &attributes, 3);
    pid_t starters[2];
    for (int i = 0; i < 2; i++) {
      starters[i] = fork();
      if (starters[i] != 0) continue;
      alarm(kDeadlineSeconds);
      for (int round = 0; round < kRounds; round++) {
        pthread_barrier_wait(&shared->barrier);
        shared->results[i] = qn_proc_check_or_create_pidfile("x.pid");
        pthread_barrier_wait(&shared->barrier);
      }
      _exit(0);
    }
    alarm(kDeadlineSeconds);
    const std::string first = pid_bytes(starters[0]), second = pid_bytes(starters[1]);
    for (int round = 0; round < kRounds; round++) {
      unlink(kPidFile);
      pthread_barrier_wait(&shared->barrier);
      pthread_barrier_wait(&shared->barrier);
      const std::string content = read_file(kPidFile);
      const int32_t* const results = shared->results;
      const bool first_won = results[0] == 0 && content == first;
      const bool second_won = results[1] == 0 && content == second;
      EXPECT_TRUE(first_won || second_won) << results[0] << ' ' << results[1];
      for (int i = 0; i < 2; i++) EXPECT_TRUE(results[i] == 0 || results[i] == QN_PROC_ALIVE);
    }
    for (const pid_t starter : starters) EXPECT_EQ(starter, waitpid(starter, nullptr, 0));
    capture.release();
  });
}

// What a daemon finds of itself, as the answer's one letter.
char look_at_daemon(int32_t result, pid_t starter) {
  char place[64] = "";
  struct sigaction hup, pipe_action;
  sigaction(SIGHUP, nullptr, &hup);
  sigaction(SIGPIPE, nullptr, &pipe_action);
  const bool held = result == 0 && getcwd(place, sizeof(place)) != nullptr && strcmp(place, "/") == 0 &&
                    umask(0) == 0 && getsid(0) != getpid() && getsid(0) != getsid(starter) &&
                    hup.sa_handler == SIG_IGN && pipe_action.sa_handler == SIG_IGN &&
                    fcntl(STDIN_FILENO, F_GETFD) == 0 && fcntl(STDOUT_FILENO, F_GETFD) == 0;
  return held ? 'y' : 'n';
}

// The daemon tells about itself through a pipe; it is no child of ours, so that also shows its end.
TEST(Daemon, LeavesItsSessionAndItsPlace) {
  const struct {
    const char* why;
    bool has_console;
    std::vector<uint32_t> on_stderr;
    std::vector<std::string> on_console;
  } rows[] = {{"console", true, {407, 408}, {"daemon success. pid="}},
              {"no console", false, {407, 408, 0, 413}, {}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.why);
    in_own_namespace([&row] {
      ASSERT_EQ(0, mount("tmpfs", "/dev", "tmpfs", 0, nullptr));
      if (row.has_console) write_file("/dev/console", "");
      umask(027);
      signal(SIGHUP, SIG_DFL);
      signal(SIGPIPE, SIG_DFL);
      StderrCapture capture;
      int ends[2];
      ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
      const pid_t starter = fork(), caller = getppid();
      ASSERT_GE(starter, 0);
      if (starter == 0) {
        const char answer = look_at_daemon(qn_daemon(), caller);
        _exit(write(ends[1], &answer, 1) == 1 ? 0 : 1);
      }
      close(ends[1]);
      int status = -1;
      waitpid(starter, &status, 0);
      EXPECT_EQ(0, status) << "the caller's own process leaves with 0";
      char answer = '-';
      EXPECT_EQ(1, read(ends[0], &answer, 1));
      EXPECT_EQ('y', answer);
      EXPECT_EQ(0, read(ends[0], &answer, 1)) << "the daemon has ended";
      close(ends[0]);
      EXPECT_EQ(row.on_stderr, capture.logids());
      for (const Record& record : capture.records()) {
        EXPECT_EQ("I daemon daemon", record.level + " " + record.module + " " + record.biz_name);
      }
      if (!row.has_console) {
        EXPECT_EQ("open(\"/dev/console\") failed. errno=(2,No such file or directory).",
                  capture.records(0).at(0).text);
      }
      const std::string console = read_file("/dev/console");
      EXPECT_EQ(row.on_console.size(),
                static_cast<size_t>(std::count(console.begin(), console.end(), '\n')));
      for (const std::string& text : row.on_console) EXPECT_NE(std::string::npos, console.find(text));
      capture.release();
    });
  }
}

int status_of(const qn_child_proc_t& child) {
  int status = 0;
  EXPECT_EQ(child.pid, waitpid(child.pid, &status, 0));
  return status;
}

TEST(Child, AnswersTheStopWord) {
  StderrCapture capture;
  qn_child_proc_t child = {};
  child.name = "worker";
  child.caller_words[8] = 42;
  child.entry = [](void* arg) -> int32_t {
    qn_child_proc_t& self = *qn_proc_child_of_entry(arg);
    uint32_t word = 0;
    const bool held = self.caller_words[8] == 42 && self.pid == getpid() && getsid(0) == getpid() &&
                      read(self.read_fd, &word, 4) == 4 && word == QN_PROC_STOP_WORD &&
                      write(self.write_fd, &word, 4) == 4;
    pause(); // until SIGTERM
    return held ? 1 : 2;
  };
  ASSERT_EQ(0, qn_proc_child_start(&child));
  EXPECT_EQ(0, fcntl(child.read_fd, F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, fcntl(child.write_fd, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(0, qn_proc_child_stop(&child));
  EXPECT_EQ(SIGTERM, WTERMSIG(status_of(child)));
  capture.release();
}

TEST(Child, NeverBlocksOnHeartbeatsAndEndsWithItsResult) {
  StderrCapture capture;
  qn_child_proc_t child = {};
  child.name = "worker";
  child.entry = [](void* arg) -> int32_t {
    for (int i = 0; i < kHeartbeats; i++) qn_proc_child_send_heatbeat(qn_proc_child_of_entry(arg));
    return 7;
  };
  ASSERT_EQ(0, qn_proc_child_start(&child));
  EXPECT_EQ(7, WEXITSTATUS(status_of(child)));
  uint32_t word = 0;
  EXPECT_EQ(4, read(child.read_fd, &word, sizeof(word)));
  EXPECT_EQ(QN_PROC_HEARTBEAT_WORD, word);
  EXPECT_EQ(0, qn_proc_child_stop(&child)) << "a child that is gone";
  EXPECT_EQ(-1, qn_proc_child_start(nullptr));
  EXPECT_EQ(-1, qn_proc_child_stop(nullptr));
  EXPECT_EQ(-1, qn_proc_child_send_heatbeat(nullptr));
  EXPECT_EQ(2u, capture.records(589).size()) << "once on each side";
  capture.release();
}

TEST(Child, MayLeaveInsteadOfAnAnswerAndStaysToBeReaped) {
  StderrCapture capture;
  qn_child_proc_t child = {};
  child.name = "worker";
  child.entry = [](void* arg) -> int32_t {
    uint32_t word = 0;
    return read(qn_proc_child_of_entry(arg)->read_fd, &word, 4) == 4 && word == QN_PROC_STOP_WORD ? 3 : 4;
  };
  ASSERT_EQ(0, qn_proc_child_start(&child));
  EXPECT_EQ(
      "fork child proc(pid=" + std::to_string(child.pid) + ",name=worker) success.now in parent proc.",
      capture.records(590).at(0).text);
  EXPECT_EQ(0, qn_proc_child_stop(&child));
  EXPECT_EQ(
      "stop child proc(pid=" + std::to_string(child.pid) + ",name=worker) success.now in parent proc.",
      capture.records(591).at(0).text);
  siginfo_t info = {};
  EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(child.pid), &info, WEXITED | WNOWAIT));
  EXPECT_EQ(child.pid, info.si_pid) << "the library does not reap";
  EXPECT_EQ(3, WEXITSTATUS(status_of(child)));
  EXPECT_EQ(0, qn_proc_child_start(&child)) << "a stopped record can be started anew";
  EXPECT_EQ(0, qn_proc_child_stop(&child));
  status_of(child);
  capture.release();
}

TEST(Child, ThatHasBeatenIsStoppedWithoutAnAnswer) {
  StderrCapture capture;
  qn_child_proc_t child = {};
  child.entry = [](void* arg) -> int32_t {
    qn_proc_child_send_heatbeat(qn_proc_child_of_entry(arg));
    for (;;) pause();
  };
  ASSERT_EQ(0, qn_proc_child_start(&child));
  EXPECT_EQ(0, qn_proc_child_stop(&child));
  EXPECT_EQ(SIGTERM, WTERMSIG(status_of(child)));
  capture.release();
}

// With the standard streams closed their numbers go to what is opened next: to nothing of ours, or
// records would get into it.
TEST(Child, GetsNoRecordsThroughItsPipes) {
  in_own_namespace([] {
    mkdir("/tmp/quillnet", 0755);
    for (int fd = 0; fd <= 2; fd++) close(fd);
    EXPECT_EQ(0, qn_proc_check_or_create_pidfile("x.pid"));
    EXPECT_EQ(pid_bytes(getpid()), read_file(kPidFile));
    qn_child_proc_t child = {};
    child.entry = [](void* arg) -> int32_t {
      const qn_child_proc_t& self = *qn_proc_child_of_entry(arg);
      _exit(std::min(self.read_fd, self.write_fd) > 2 ? 0 : 1);
    };
    EXPECT_EQ(0, qn_proc_child_start(&child));
    EXPECT_EQ(0, status_of(child));
    EXPECT_GT(std::min(child.read_fd, child.write_fd), 2);
    close(child.read_fd);
    close(child.write_fd);
  });
}

// A child of another thread must get no end of a pipe that is meant for this one: the end of the stream
// would not be told as long as it lives.
TEST(Child, TellsItsEndBesideOtherThreadsThatFork) {
  StderrCapture capture;
  alarm(kDeadlineSeconds);
  int hold[2];
  ASSERT_EQ(0, pipe2(hold, O_CLOEXEC));
  pthread_barrier_t barrier;
  pthread_barrier_init(&barrier, nullptr, 2);
  std::vector<pid_t> others;
  std::thread forks([&] {
    for (int i = 0; i < kStarts; i++) {
      pthread_barrier_wait(&barrier);
      const pid_t other = fork();
      if (other == 0) {
        char byte = 0;
        close(hold[1]);
        _exit(read(hold[0], &byte, 1) == 0 ? 0 : 1); // lives until all is over
      }
      others.push_back(other);
    }
  });
  int told = 0;
  for (int i = 0; i < kStarts; i++) {
    pthread_barrier_wait(&barrier);
    if (i % 2 == 0) {
      char output[8] = "";
      told += qn_os_exec_cmd_and_read_output("echo x", output, sizeof(output)) == 0;
      continue;
    }
    qn_child_proc_t child = {};
    child.entry = [](void*) -> int32_t { _exit(0); };
    EXPECT_EQ(0, qn_proc_child_start(&child));
    char byte = 0;
    told += read(child.read_fd, &byte, 1) == 0;
    close(child.read_fd);
    close(child.write_fd);
    status_of(child);
  }
  forks.join();
  EXPECT_EQ(kStarts, told);
  close(hold[1]);
  for (const pid_t other : others) waitpid(other, nullptr, 0);
  close(hold[0]);
  pthread_barrier_destroy(&barrier);
  alarm(0);
}

bool is_pending(int number) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, number) == 1;
}

// Runs as the first process of a process namespace, so that every pid in it is the test's own: it is
// process 1, its child is process 2 where no tool has a thread of its own.
int stop_low_pids(const StderrCapture& capture) {
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, nullptr);
  signal(SIGTERM, [](int) {}); // without a handler process 1 would be spared by the kernel
  int go[2], answer[2];
  if (pipe(go) != 0 || pipe(answer) != 0) return 1;
  const pid_t child = fork();
  if (child == 0) {
    char byte = 0;
    if (read(go[0], &byte, 1) != 1 || is_pending(SIGTERM)) _exit(1);
    signal(SIGTERM, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &term, nullptr);
    if (write(answer[1], &byte, 1) != 1) _exit(2);
    for (;;) pause();
  }
  for (const int32_t pid : {1, 0, -1, INT32_MIN}) {
    if (qn_proc_child_stop_exec("p", "n", pid) != 0) return 2;
  }
  if (getpid() != 1 || is_pending(SIGTERM) || !capture.text().empty()) return 3;
  char byte = 'g';
  close(answer[1]);
  if (write(go[1], &byte, 1) != 1 || read(answer[0], &byte, 1) != 1) return 4;
  if (qn_proc_child_stop_exec("/bin/p", "n", child) != 0) return 5;
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGTERM) return 6;
  const std::string told = "ready to stop n, pid=" + std::to_string(child) + ", exec=/bin/p.";
  return capture.records(594).at(0).text == told ? 0 : 7;
}

TEST(ChildExec, SignalsNothingBelowPidTwo) {
  in_own_namespace([] {
    StderrCapture capture;
    ASSERT_EQ(0, unshare(CLONE_NEWPID));
    const pid_t first = fork();
    if (first == 0) _exit(stop_low_pids(capture));
    int status = -1;
    EXPECT_EQ(first, waitpid(first, &status, 0));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(WIFEXITED(status));
    capture.release();
  });
}

// Whether a child that one of the three calls makes has come to its end.
bool child_of_start() {
  qn_child_proc_t child = {};
  child.name = "forked";
  // Leaves by _exit(): what the other threads held stays behind in this process by intent.
  child.entry = [](void*) -> int32_t {
    qn_log_core_adpater(QN_LOG_E, 1, "m", 1, 1, "b", "child %d.", getpid());
    void* const block = qn_alloc(4096);
    const int status = block != nullptr ? 0 : 1;
    qn_free(block);
    _exit(status);
  };
  if (qn_proc_child_start(&child) != 0) return false;
  close(child.read_fd);
  close(child.write_fd);
  return status_of(child) == 0;
}

bool child_of_start_exec() {
  char name[] = "true";
  char* const args[] = {name, nullptr};
  qn_child_proc_t child = {};
  return qn_proc_child_start_exec("true", "/bin/true", args, &child.pid) == 0 && status_of(child) == 0;
}

bool child_of_command() { return qn_os_exec_cmd("exit 0") == 0; }

// Only the forking thread goes on in a child; a lock that another thread held would be locked for ever. A
// child that hangs is met by the alarm.
TEST(Fork, LeavesNoChildHangingBesideBusyThreads) {
  for (const auto& call : {child_of_start, child_of_start_exec, child_of_command}) {
    in_own_namespace([call] {
      alarm(kDeadlineSeconds);
      const StderrCapture capture;
      ASSERT_EQ(0, qn_log_new_singleton_instance(0, 5, 0));
      std::atomic<bool> stop{false};
      std::vector<std::thread> threads;
      for (int thread = 0; thread < 8; thread++) {
        threads.emplace_back([&stop] {
          // A thread that is often interrupted is often interrupted with a lock in its hands.
          setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 19);
          while (!stop) {
            qn_log_core_adpater(QN_LOG_E, 1, "m", 1, 1, "b", "text");
            qn_free(qn_alloc(100));
            free(malloc(200000)); // past the per-thread caches of the heap
          }
        });
      }
      int ended = 0;
      for (int i = 0; i < kForks; i++) ended += call() ? 1 : 0;
      stop = true;
      for (std::thread& thread : threads) thread.join();
      EXPECT_EQ(kForks, ended);
      qn_log_free_singleton_instance();
    });
  }
}

TEST(ChildExec, StartsAProgramAndSignalsIt) {
  StderrCapture capture;
  char sleeping[] = "sleep", minute[] = "60", absent[] = "absent";
  char* const sleep_args[] = {sleeping, minute, nullptr};
  char* const absent_args[] = {absent, nullptr};
  qn_child_proc_t child = {};
  ASSERT_EQ(0, qn_proc_child_start_exec("sleeper", "/bin/sleep", sleep_args, &child.pid));
  EXPECT_EQ(0, qn_proc_child_stop_exec("/bin/sleep", "sleeper", child.pid));
  EXPECT_EQ(SIGTERM, WTERMSIG(status_of(child)));
  ASSERT_EQ(0, qn_proc_child_start_exec("absent", "/no/such/program", absent_args, &child.pid));
  EXPECT_EQ(255, WEXITSTATUS(status_of(child)));
  EXPECT_EQ("fork child proc name=absent, pid=" + std::to_string(child.pid) +
                ", proc_file=/no/such/program success. now in parent proc.",
            capture.records(593).at(1).text);
  capture.release();
}

} // namespace
