// Daemons, pid files and supervised children: real processes in mounts of their own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <quillcore/process.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/main.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

constexpr unsigned int kDeadlineSeconds = 120;
constexpr char kPidFile[] = "/tmp/quillnet/x.pid";

std::string pid_bytes(int32_t pid) { return {reinterpret_cast<const char*>(&pid), sizeof(pid)}; }

// --- pid files ---

TEST(PidFile, BelongsToTheLiveProcessThatItNames) {
  in_own_namespace([] {
    StderrCapture capture;
    const auto take = [&](const std::string& name) {
      capture.clear();
      return qn_proc_check_or_create_pidfile(name.c_str());
    };
    EXPECT_EQ(-1, take("x.pid")) << "no directory";
    EXPECT_EQ((std::vector<uint32_t>{595}), capture.logids());
    mkdir("/tmp/quillnet", 0755);
    EXPECT_EQ(0, take("x.pid"));
    EXPECT_EQ((std::vector<uint32_t>{597}), capture.logids());
    EXPECT_EQ(QN_PROC_ALIVE, take("x.pid")) << "it finds itself alive";
    EXPECT_EQ((std::vector<uint32_t>{599, 600}), capture.logids());
    for (const std::string& stale : {pid_bytes(0), pid_bytes(-1), std::string("\x01\x00\x00", 3)}) {
      write_file(kPidFile, stale);
      EXPECT_EQ(0, take("x.pid"));
      EXPECT_EQ((std::vector<uint32_t>{601, 602, 597}), capture.logids());
      EXPECT_EQ(pid_bytes(getpid()), read_file(kPidFile));
    }
    write_file(kPidFile, pid_bytes(getpid()) + "more");
    EXPECT_EQ(QN_PROC_ALIVE, take("x.pid"));
    EXPECT_EQ(0, qn_proc_clean_pidfile("x.pid"));
    EXPECT_EQ(-1, qn_proc_clean_pidfile("x.pid"));
    mkdir(kPidFile, 0755);
    EXPECT_EQ(-1, take("x.pid"));
    EXPECT_EQ((std::vector<uint32_t>{598}), capture.logids());

    EXPECT_EQ(0, take(std::string(112, 'n')));
    EXPECT_EQ(0, qn_proc_clean_pidfile(std::string(112, 'n').c_str()));
    EXPECT_EQ(-1, take(std::string(113, 'n')));
    EXPECT_GT(0, qn_proc_clean_pidfile(std::string(113, 'n').c_str()));
    EXPECT_EQ(-1, qn_proc_check_or_create_pidfile(nullptr));
  });
}

// Whoever makes the folder first may have laid links there.
TEST(PidFile, IsReachedByLinksOfItsOwnUserOnly) {
  in_own_namespace([] {
    StderrCapture capture;
    const auto lay = [](const std::string& name, const char* to, bool by_other) {
      const std::string path = "/tmp/quillnet/" + name;
      unlink(path.c_str());
      ASSERT_EQ(0, symlink(to, path.c_str()));
      if (by_other) ASSERT_EQ(0, lchown(path.c_str(), 4711, 4711)) << "this takes root";
    };
    mkdir("/tmp/quillnet", 0755), mkdir("/tmp/victims", 0755);
    const struct {
      bool first_by_other, second_by_other, is_there;
      std::vector<uint32_t> logids;
    } rows[] = {
        {false, false, true, {601, 602, 597}}, {false, false, false, {597}}, {true, false, true, {598}},
        {true, false, false, {595}},           {false, true, true, {598}},
    };
    for (const auto& row : rows) {
      unlink("/tmp/victims/file");
      if (row.is_there) write_file("/tmp/victims/file", "victim");
      lay("x.pid", "second", row.first_by_other);
      lay("second", "/tmp/quillnet/../victims/file", row.second_by_other);
      capture.clear();
      const bool refused = row.first_by_other || row.second_by_other;
      EXPECT_EQ(refused ? -1 : 0, qn_proc_check_or_create_pidfile("x.pid"));
      EXPECT_EQ(row.logids, capture.logids());
      const std::string kept = row.is_there ? "victim" : "";
      EXPECT_EQ(refused ? kept : pid_bytes(getpid()), read_file("/tmp/victims/file"));
    }
    lay("x.pid", "x.pid", false);
    EXPECT_EQ(-1, qn_proc_check_or_create_pidfile("x.pid")) << "a loop ends";
  });
}

// --- daemons ---

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
  in_own_namespace([] {
    ASSERT_EQ(0, mount("tmpfs", "/dev", "tmpfs", 0, nullptr));
    write_file("/dev/console", "");
    umask(027);
    signal(SIGHUP, SIG_DFL), signal(SIGPIPE, SIG_DFL);
    const StderrCapture capture;
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const pid_t caller = getpid(), starter = fork();
    if (starter == 0) {
      const char answer = look_at_daemon(qn_daemon(), caller);
      _exit(write(ends[1], &answer, 1) == 1 ? 0 : 1);
    }
    close(ends[1]);
    EXPECT_EQ(0, status_of(starter)) << "the caller's own process leaves with 0";
    char answer = '-';
    EXPECT_EQ(1, read(ends[0], &answer, 1));
    EXPECT_EQ('y', answer);
    EXPECT_EQ(0, read(ends[0], &answer, 1)) << "the daemon has ended";
    close(ends[0]);
    EXPECT_EQ((std::vector<uint32_t>{407, 408}), capture.logids());
    EXPECT_NE(std::string::npos, read_file("/dev/console").find("[0413]"));
  });
}

// --- children ---

qn_child_proc_t* record_of(void* arg) {
  return reinterpret_cast<qn_child_proc_t*>(static_cast<char*>(arg) - offsetof(qn_child_proc_t, name));
}

int32_t answer_stop_word(void* arg) {
  qn_child_proc_t& self = *record_of(arg);
  uint32_t word = 0;
  const bool held = self.caller_words[8] == 42 && self.pid == getpid() && getsid(0) == getpid() &&
                    read(self.read_fd, &word, 4) == 4 && word == QN_PROC_STOP_WORD &&
                    write(self.write_fd, &word, 4) == 4;
  while (held) pause(); // until SIGTERM
  return 1;
}

TEST(Child, AnswersItsStopWordAndStaysToBeReaped) {
  const StderrCapture capture;
  qn_child_proc_t child = {};
  child.name = "worker";
  child.caller_words[8] = 42;
  child.entry = answer_stop_word;
  ASSERT_EQ(0, qn_proc_child_start(&child));
  EXPECT_EQ(0, fcntl(child.read_fd, F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, fcntl(child.write_fd, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(0, qn_proc_child_stop(&child));
  EXPECT_EQ(SIGTERM, WTERMSIG(status_of(child.pid)));

  EXPECT_EQ(2u, capture.records(589).size()) << "once on each side";
  EXPECT_EQ(2u, capture.records(590).size() + capture.records(591).size());
  EXPECT_EQ(-1, qn_proc_child_start(nullptr));
  EXPECT_EQ(-1, qn_proc_child_stop(nullptr));
  EXPECT_EQ(-1, qn_proc_child_send_heatbeat(nullptr));
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
      _exit(std::min(record_of(arg)->read_fd, record_of(arg)->write_fd) > 2 ? 0 : 1);
    };
    EXPECT_EQ(0, qn_proc_child_start(&child));
    EXPECT_EQ(0, status_of(child.pid));
    EXPECT_GT(std::min(child.read_fd, child.write_fd), 2);
    close(child.read_fd), close(child.write_fd);
  });
}

// What happens between the making of a child's pipes and its fork, once.
std::function<void()> g_before_fork;

// A child that another thread forks meanwhile must get no end of the pipes: the end of the stream would
// not be told as long as it lives.
TEST(Child, TellsItsEndBesideAnotherThreadsChild) {
  [[maybe_unused]] static const int ignored = pthread_atfork(
      [] {
        if (const auto action = std::exchange(g_before_fork, nullptr)) action();
      },
      nullptr, nullptr);
  const StderrCapture capture;
  alarm(kDeadlineSeconds);
  int hold[2];
  ASSERT_EQ(0, pipe2(hold, O_CLOEXEC));
  char byte = 0;
  pid_t other = -1;
  const auto fork_other = [&] {
    other = fork();
    if (other != 0) return;
    close(hold[1]);
    _exit(read(hold[0], &byte, 1) == 0 ? 0 : 1); // lives until all is over
  };
  g_before_fork = [&] { std::thread(fork_other).join(); };
  qn_child_proc_t child = {};
  child.entry = [](void*) -> int32_t { _exit(0); };
  EXPECT_EQ(0, qn_proc_child_start(&child));
  EXPECT_EQ(0, read(child.read_fd, &byte, 1));
  EXPECT_EQ(0, status_of(child.pid));
  EXPECT_TRUE(eventually([&] { return write(child.write_fd, "", 1) < 0 && errno == EPIPE; }));
  close(child.read_fd), close(child.write_fd), close(hold[1]);
  EXPECT_EQ(0, status_of(other));
  close(hold[0]);
  alarm(0);
}

// --- programs ---

TEST(Program, IsStartedAndSignalled) {
  const StderrCapture capture;
  char sleeping[] = "sleep", minute[] = "60";
  char* const args[] = {sleeping, minute, nullptr};
  int32_t pid = 0;
  ASSERT_EQ(0, qn_proc_child_start_exec("sleeper", "/bin/sleep", args, &pid));
  EXPECT_EQ(0, qn_proc_child_stop_exec("/bin/sleep", "sleeper", pid));
  EXPECT_EQ(SIGTERM, WTERMSIG(status_of(pid)));
  EXPECT_EQ((std::vector<uint32_t>{593, 594}), capture.logids());
  EXPECT_EQ(-1, qn_proc_child_start_exec("n", nullptr, args, &pid));
}

} // namespace
