// Going to the background.
#include <quillcore/process.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "core/log_record.h"
#include "platform/error_text.h"

namespace {

using qn::ErrorText;
using qn::Message;

constexpr char kModule[] = "daemon";
constexpr char kConsoleDevice[] = "/dev/console";

constexpr Message kFirstFork{QN_LOG_I, 407, kModule, kModule, "1st fork() success."};
constexpr Message kSecondFork{QN_LOG_I, 408, kModule, kModule, "2nd fork() success."};
constexpr Message kOpenFailed{QN_LOG_I, 0, kModule, kModule,
                              "open(\"/dev/console\") failed. errno=(%d,%s)."};
constexpr Message kDupFailed{QN_LOG_I, 0, kModule, kModule, "dup2(STDERR_FILENO) failed. errno=(%d,%s)."};
constexpr Message kDone{QN_LOG_I, 413, kModule, kModule, "daemon success. pid=%d."};

// Only the child goes on; the parent leaves, and so does a process that cannot fork.
void continue_in_child() {
  if (fork() != 0) exit(0); // NOLINT(concurrency-mt-unsafe): no thread exists yet
}

// Standard error moves to the console, where that can be opened.
void move_stderr_to_console() {
  // NOLINTNEXTLINE(android-cloexec-open): may become standard error itself, which children inherit
  const int console = open(kConsoleDevice, O_RDWR);
  if (console < 0) {
    const int error = errno;
    QN_CONSOLE(kOpenFailed, error, ErrorText(error).text());
    return;
  }
  if (dup2(console, STDERR_FILENO) < 0) {
    const int error = errno;
    close(console);
    QN_CONSOLE(kDupFailed, error, ErrorText(error).text());
    return;
  }
  if (console > STDERR_FILENO) close(console);
}

} // namespace

int32_t qn_daemon(void) {
  continue_in_child();
  QN_CONSOLE(kFirstFork);
  setsid();
  signal(SIGHUP, SIG_IGN);
  continue_in_child();
  signal(SIGPIPE, SIG_IGN);
  QN_CONSOLE(kSecondFork);
  [[maybe_unused]] const int ignored = chdir("/");
  umask(0);
  move_stderr_to_console();
  QN_CONSOLE(kDone, getpid());
  return 0;
}
