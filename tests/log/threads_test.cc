// The log under many threads: rotation, permission changes and fork beside them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <quillcore/log.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

constexpr int kThreads = 8;
constexpr uint32_t kRelay = 5; // the smallest limit
constexpr size_t kRelayLimit = 65536;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kForks = 200;
#else
constexpr int kForks = 1000;
#endif

void log_numbered(int thread, int number) {
  qn_log_core_adpater(QN_LOG_G, 1, "m", 1, 1, "b", "thread=%d number=%d.", thread, number);
}

// Every record of a file in order of each thread, without a gap inside the file and with none torn.
void expect_records_in_order(const std::string& path, std::map<int, int>* last) {
  std::istringstream lines(read_file(path));
  for (std::string line; std::getline(lines, line);) {
    int thread = 0, number = 0;
    const size_t at = line.find("thread=");
    ASSERT_NE(std::string::npos, at) << line;
    ASSERT_EQ(2, sscanf(line.c_str() + at, "thread=%d number=%d.", &thread, &number)) << line;
    const int expected = last->contains(thread) ? (*last)[thread] + 1 : number;
    EXPECT_EQ(expected, number) << "thread " << thread;
    (*last)[thread] = number;
  }
}

TEST(LogThreads, LoseAndTearNothingWhileFilesRotate) {
  in_own_namespace([] {
    StderrCapture capture;
    ASSERT_EQ(0, qn_log_new_singleton_instance(0, kRelay, 0));
    constexpr int kRecords = 600; // about five files' worth for all threads
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; thread++) {
      threads.emplace_back([thread] {
        for (int number = 0; number < kRecords; number++) log_numbered(thread, number);
      });
    }
    for (std::thread& thread : threads) thread.join();
    qn_log_free_singleton_instance();

    const std::string dir = "/tmp/quillnet/log/";
    std::map<int, int> last;
    expect_records_in_order(dir + "relay_1.log.txt", &last);
    expect_records_in_order(dir + "relay_0.log.txt", &last);
    // A thread that was done early may have gone with a replaced backup; one that is there is there
    // whole.
    EXPECT_FALSE(last.empty());
    for (const auto& [thread, number] : last) EXPECT_EQ(kRecords - 1, number) << "thread " << thread;
    EXPECT_LT(read_file(dir + "relay_1.log.txt").size(), kRelayLimit + kThreads * 1023);
    capture.release();
  });
}

TEST(LogThreads, MayLogWhilePermissionsChangeAndReset) {
  in_own_namespace([] {
    StderrCapture capture;
    ASSERT_EQ(0, qn_log_new_singleton_instance(0, kRelay, 0));
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; thread++) {
      threads.emplace_back([&stop] {
        for (uint32_t i = 0; !stop; i++) {
          qn_log_core_adpater(QN_LOG_D, i % 3, "m", 1, 1, i % 2 == 0 ? "walk" : "run", "text");
          qn_log_core_adpater(QN_LOG_T, i % 3, "m", 1, 1, "walk", "text");
        }
      });
    }
    for (int i = 0; i < 60; i++) {
      qn_log_permit_config_t change = {};
      snprintf(change.role, sizeof(change.role), "relay");
      snprintf(change.permit, sizeof(change.permit), "%s", i % 2 == 0 ? "on" : "off");
      snprintf(change.biz_name, sizeof(change.biz_name), "walk");
      snprintf(change.trace_permit, sizeof(change.trace_permit), "%s", i % 2 == 0 ? "on" : "off");
      change.logid = i % 2;
      change.reset = i % 10 == 9;
      change.mask = QN_LOG_PERMIT_BIZ | QN_LOG_PERMIT_LOGID | QN_LOG_PERMIT_TRACE;
      qn_log_set_log_permit_config(&change);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    qn_log_free_singleton_instance();
    capture.release();
  });
}

// A change waits for standard error, and whoever forks must not wait for the change.
TEST(LogThreads, MayForkWhileAChangeCannotPrint) {
  for (const bool reset : {false, true}) {
    in_own_namespace([reset] {
      alarm(60);
      StderrCapture capture;
      ASSERT_EQ(0, qn_log_new_singleton_instance(0, kRelay, 0));
      int ends[2];
      ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
      ASSERT_EQ(0, fcntl(ends[1], F_SETFL, O_NONBLOCK));
      while (write(ends[1], "x", 1) == 1) continue;
      ASSERT_EQ(0, fcntl(ends[1], F_SETFL, 0));
      const int kept = dup(STDERR_FILENO);
      dup2(ends[1], STDERR_FILENO);
      std::atomic<pid_t> changer{0};
      std::thread thread([&] {
        qn_log_permit_config_t change = {};
        snprintf(change.role, sizeof(change.role), "relay");
        change.mask = QN_LOG_PERMIT_LEVEL;
        change.reset = reset;
        changer = gettid();
        qn_log_set_log_permit_config(&change);
      });
      while (changer == 0) continue;
      const std::string state = "/proc/self/task/" + std::to_string(changer) + "/stat";
      while (read_file(state).find(") S ") == std::string::npos) continue;
      const pid_t child = fork();
      if (child == 0) _exit(0);
      EXPECT_EQ(child, waitpid(child, nullptr, 0));
      dup2(kept, STDERR_FILENO);
      char bytes[4096];
      close(ends[1]);
      while (read(ends[0], bytes, sizeof(bytes)) > 0) continue;
      thread.join();
      close(ends[0]);
      close(kept);
      qn_log_free_singleton_instance();
      capture.release();
    });
  }
}

// Waits for the child with a deadline; one that hangs is ended and counted.
bool child_ended(pid_t child) {
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  struct pollfd poll_fd = {fd, POLLIN, 0};
  const bool ended = poll(&poll_fd, 1, 30000) == 1;
  close(fd);
  if (!ended) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Also before there is an instance, and with one that has no files.
class LogFork : public testing::TestWithParam<int64_t> {};
INSTANTIATE_TEST_SUITE_P(Instance, LogFork, testing::Values(-1, 0, 0x80));

TEST_P(LogFork, AChildMayLogWhateverOthersWereDoing) {
  in_own_namespace([] {
    StderrCapture capture;
    if (GetParam() >= 0) {
      ASSERT_EQ(0, qn_log_new_singleton_instance(static_cast<uint32_t>(GetParam()), kRelay, 0));
    }
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; thread++) {
      threads.emplace_back([&stop, thread] {
        for (int number = 0; !stop; number++) log_numbered(thread, number);
      });
    }
    threads.emplace_back([&stop] {
      qn_log_permit_config_t change = {};
      snprintf(change.role, sizeof(change.role), "relay");
      snprintf(change.level, sizeof(change.level), "W");
      change.mask = QN_LOG_PERMIT_LEVEL;
      while (!stop) qn_log_set_log_permit_config(&change);
    });
    int hung = 0;
    for (int i = 0; i < kForks; i++) {
      const pid_t child = fork();
      if (child == 0) {
        log_numbered(99, i);
        qn_log_core_adpater(QN_LOG_E, 1, "m", 1, 1, "b", "child");
        qn_log_println(QN_LOG_E, 1, "m", "b", "child");
        _exit(0);
      }
      hung += !child_ended(child);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, hung);
    qn_log_free_singleton_instance();
    capture.release();
  });
}

} // namespace
