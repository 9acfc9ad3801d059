// The main function of every benchmark program: a process with a log instance, as a daemon has it.
#include <fcntl.h>
#include <quillcore/log.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "bench_support.h"

void bench::fail(const char* what) {
  fprintf(stderr, "%s failed: %s\n", what, strerror(errno));
  exit(1);
}

bench::TemporaryDirectory::TemporaryDirectory(const std::string& parent)
    : path_(parent + "/quillcore-bench-XXXXXX") {
  must(mkdtemp(path_.data()) != nullptr, "mkdtemp");
}

bench::TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

bench::QuietStderr::QuietStderr() : kept_(dup(STDERR_FILENO)) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  must(kept_ >= 0 && null >= 0, "opening /dev/null");
  dup2(null, STDERR_FILENO);
  close(null);
}

bench::QuietStderr::~QuietStderr() {
  dup2(kept_, STDERR_FILENO);
  close(kept_);
}

namespace {

constexpr uint32_t kRoleHubd = 2;
constexpr char kRunDirectory[] = "/tmp/quillnet";

// The log's fixed folder becomes a private one in memory: no daemon's files are touched, and what is
// measured is not the disk.
void enter_private_run_directory() {
  mkdir(kRunDirectory, 0755);
  const int flags = getuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
  bench::must(unshare(flags) == 0, "unshare");
  bench::must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount");
  bench::must(mount("tmpfs", kRunDirectory, "tmpfs", 0, nullptr) == 0, "mount");
}

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  enter_private_run_directory();
  // By the default tables: level I, trace off. The console shows errors.
  bench::must(qn_log_new_singleton_instance(0, kRoleHubd, 0) == 0, "making a log instance");
  bench::register_all();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  qn_log_free_singleton_instance();
  return 0;
}
