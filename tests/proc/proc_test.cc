// Daemons, pid files and supervised children: real processes in mounts of their own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillcore/process.h>
#include <quillcore/utility.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "support/capture.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

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

// The daemon tells about itself through a file; it is no child of ours, so its end is read from a pipe.
TEST(Daemon, LeavesItsSessionAndItsPlace) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  const pid_t starter = fork();
  ASSERT_GE(starter, 0);
  if (starter == 0) {
    close(STDERR_FILENO);
    open("/dev/null", O_RDWR);
    const int32_t result = qn_daemon();
    char place[64] = "";
    struct sigaction hup, pipe_action;
    sigaction(SIGHUP, nullptr, &hup);
    sigaction(SIGPIPE, nullptr, &pipe_action);
    const bool held = result == 0 && getcwd(place, sizeof(place)) != nullptr && strcmp(place, "/") == 0 &&
                      umask(0) == 0 && getsid(0) != getpid() && hup.sa_handler == SIG_IGN &&
                      pipe_action.sa_handler == SIG_IGN;
    const char answer = held ? 'y' : 'n';
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
}

qn_child_proc_t* record_of(void* arg) {
  return reinterpret_cast<qn_child_proc_t*>(static_cast<char*>(arg) - offsetof(qn_child_proc_t, name));
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
    qn_child_proc_t& self = *record_of(arg);
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
    for (int i = 0; i < 100000; i++) qn_proc_child_send_heatbeat(record_of(arg));
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
  capture.clear();
  for (const int32_t pid : {1, 0, -1}) EXPECT_EQ(0, qn_proc_child_stop_exec("p", "n", pid));
  EXPECT_EQ("", capture.text());
  capture.release();
}

} // namespace
