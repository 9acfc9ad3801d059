// Pid files: one process of a kind at a time.
#include <quillcore/process.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>

#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/own_link.h"

namespace {

using qn::Message;
using qn::UniqueFd;

constexpr char kModule[] = "child_proc";
constexpr char kCreate[] = "create_pidfile";
constexpr char kCheck[] = "check_exist_pidfile";

constexpr Message kCreateFailed{QN_LOG_E, 595, kModule, kCreate, "create pidfile=%s failed."};
constexpr Message kWriteFailed{QN_LOG_E, 596, kModule, kCreate, "write pid=%d into pidfile=%s failed."};
constexpr Message kWritten{QN_LOG_I, 597, kModule, kCreate, "write pid=%d into pidfile=%s success."};
constexpr Message kOpenFailed{QN_LOG_E, 598, kModule, kCheck, "open pidfile=%s failed."};
constexpr Message kAlive{QN_LOG_E, 599, kModule, kCheck, "pidfile=%s, another process(pid=%d) exists."};
constexpr Message kAliveConsole{QN_LOG_E, 600, kModule, kCheck,
                                "pidfile=%s, another process(pid=%d) exists."};
constexpr Message kStale{QN_LOG_I, 601, kModule, kCheck,
                         "pidfile=%s exist, but another process not exist."};
constexpr Message kStaleConsole{QN_LOG_E, 602, kModule, kCheck,
                                "pidfile=%s exist, but another process not exist."};

constexpr char kDirectory[] = "/tmp/quillnet/";
constexpr size_t kPathSize = 128;
constexpr mode_t kFileMode = 0666;

// The content of the file, in host byte order.
using StoredPid = int32_t;
static_assert(sizeof(StoredPid) == 4 && sizeof(pid_t) == sizeof(StoredPid));

int build_path(const char* name, char (&path)[kPathSize]) {
  if (name == nullptr) return -1;
  path[0] = '\0';
  return snprintf_s(path, sizeof(path), sizeof(path) - 1, "%s/%s", kDirectory, name);
}

// A short file, a pid that no process can have and a process that may not be signalled count as gone.
bool owner_is_alive(int fd, StoredPid* pid) {
  *pid = -1;
  return read(fd, pid, sizeof(*pid)) == static_cast<ssize_t>(sizeof(*pid)) && *pid > 0 &&
         kill(*pid, 0) == 0;
}

// Returns 0 when there is no file or its owner is gone.
int32_t check_exist_pidfile(const char* path) {
  struct stat status;
  if (stat(path, &status) != 0) return 0;
  UniqueFd fd(qn::open_by_own_links(path, O_RDWR));
  if (!fd.valid()) return QN_FAIL(-1, kOpenFailed, path);
  StoredPid pid = -1;
  const bool alive = owner_is_alive(fd.get(), &pid);
  fd.reset();
  if (alive) {
    QN_LOG(kAlive, path, pid);
    QN_CONSOLE(kAliveConsole, path, pid);
    return QN_PROC_ALIVE;
  }
  QN_LOG(kStale, path);
  QN_CONSOLE(kStaleConsole, path);
  return 0;
}

int32_t create_pidfile(const char* path) {
  UniqueFd fd(qn::open_by_own_links(path, O_RDWR | O_CREAT | O_TRUNC, kFileMode));
  if (!fd.valid()) return QN_FAIL(-1, kCreateFailed, path);
  const StoredPid pid = getpid();
  if (write(fd.get(), &pid, sizeof(pid)) != static_cast<ssize_t>(sizeof(pid))) {
    QN_LOG(kWriteFailed, pid, path);
    fd.reset();
    unlink(path);
    return -1;
  }
  QN_LOG(kWritten, pid, path);
  return 0;
}

} // namespace

int32_t qn_proc_check_or_create_pidfile(const char* name) {
  char path[kPathSize];
  if (build_path(name, path) < 0) return -1;
  const int32_t checked = check_exist_pidfile(path);
  return checked != 0 ? checked : create_pidfile(path);
}

int32_t qn_proc_clean_pidfile(const char* name) {
  char path[kPathSize];
  const int built = build_path(name, path);
  return built < 0 ? built : unlink(path);
}
