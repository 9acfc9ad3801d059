#include "support/own_namespace.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "support/main.h"

// Of LeakSanitizer, where it is linked.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

// Exit statuses of the child. One that another program or an exit() leaves is none of them.
constexpr int kHeld = 76, kFailed = 1, kSkipped = 77;

bool map_user(uid_t uid, gid_t gid) {
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
  std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  return true;
}

// The folder /etc/quillnet need not exist, so it is made on a writable layer of /etc. Copying the few
// files that the C library reads there is not needed: what /etc holds stays visible below.
bool mount_etc() {
  if (mkdir("/tmp/.upper", 0755) != 0 || mkdir("/tmp/.work", 0755) != 0) return false;
  if (mount("overlay", "/etc", "overlay", 0, "lowerdir=/etc,upperdir=/tmp/.upper,workdir=/tmp/.work") !=
      0) {
    return false;
  }
  return mkdir("/etc/quillnet", 0755) == 0 || errno == EEXIST;
}

// Null, or what the kernel does not give us, with the reason in errno.
const char* enter_namespace() {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  if (uid == 0 ? unshare(CLONE_NEWNS) != 0
               : unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !map_user(uid, gid)) {
    return "a mount namespace (CAP_SYS_ADMIN, or a user namespace)";
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "mounts of our own";
  if (mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0) return "a tmpfs on /tmp";
  if (!mount_etc()) return "an overlay on /etc";
  return nullptr;
}

// Asked here, because leaving by _exit() asks nobody. Where the body has entered another PID namespace,
// the checker's own process could not be started.
bool leaks_memory() {
  std::error_code ignored;
  const auto own = std::filesystem::read_symlink("/proc/self/ns/pid", ignored);
  return __lsan_do_recoverable_leak_check != nullptr &&
         std::filesystem::read_symlink("/proc/self/ns/pid_for_children", ignored) == own &&
         __lsan_do_recoverable_leak_check() != 0;
}

int run(const std::function<void()>& body) {
  if (const char* const missing = enter_namespace(); missing != nullptr) {
    printf("missing: %s: %s\n", missing, strerror(errno));
    return kSkipped;
  }
  setenv("TMPDIR", "/tmp", 1); // the folder that it names may be hidden now
  body();
  if (testing::Test::HasFailure() || leaks_memory()) return kFailed;
  return testing::Test::IsSkipped() ? kSkipped : kHeld;
}

} // namespace

void in_own_namespace(const std::function<void()>& body) {
  fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int status = run(body);
    fflush(nullptr);
    _exit(status);
  }
  const int status = status_of(child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "for the reason above";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kHeld) << "status of the child " << status;
}
