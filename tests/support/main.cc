// Runs the tests of a program and fails each one that leaves a descriptor or a child behind, and each one
// that skips where nothing may be left out, which CI=true in the environment says.
#include "support/main.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string_view>

std::set<int> open_descriptors(const std::string& process) {
  const std::string folder = "/proc/" + process + "/fd/";
  std::set<int> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    found.insert(std::stoi(entry.path().filename()));
  // The walk's own descriptor is closed again by now.
  std::erase_if(found, [&](int fd) { return !std::filesystem::exists(folder + std::to_string(fd)); });
  return found;
}

int status_of(pid_t child) {
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  return status;
}

void close_descriptors_not_in(const std::set<int>& kept) {
  for (const int fd : open_descriptors()) {
    if (!kept.contains(fd)) close(fd);
  }
}

// A call that asks for what it cannot get shall fail under a sanitizer as it does without one.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

class LeakListener : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { before_ = open_descriptors(); }

  void OnTestEnd(const testing::TestInfo& test) override {
    const char* const ci = getenv("CI");
    if (test.result()->Skipped() && ci != nullptr && std::string_view(ci) == "true")
      ADD_FAILURE() << "skipped, which CI=true does not allow";
    EXPECT_EQ(before_, open_descriptors()) << "descriptors before and after the test";
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD) << "a child is left";
  }

  std::set<int> before_;
};

} // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // As a daemon does: a write to a peer that is gone shall fail, not end the process.
  signal(SIGPIPE, SIG_IGN);
  testing::UnitTest::GetInstance()->listeners().Append(new LeakListener);
  return RUN_ALL_TESTS();
}
