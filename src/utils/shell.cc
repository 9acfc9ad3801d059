// Commands through the shell: run and wait, run and collect, read a value out of a file.
#include <quillcore/utility.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/past_signals.h"
#include "platform/standard_streams.h"

namespace {

using qn::Message;

constexpr char kModule[] = "qn_utils";

constexpr Message kWaitFailed{QN_LOG_D, 611, kModule, "qn_os_exec_cmd", "exec cmd=%s, ret=EINTR"};
constexpr Message kExecDone{QN_LOG_D, 612, kModule, "qn_os_exec_cmd", "exec cmd=%s, ret=%d"};
constexpr Message kFormatFailed{QN_LOG_E, 613, kModule, "qn_os_exec_vcmd",
                                "vsnprintf_s failed.format=%s."};
constexpr Message kVcmdFailed{QN_LOG_E, 614, kModule, "qn_os_exec_vcmd", "exec cmd=%s, ret=%d"};
constexpr Message kVcmdDone{QN_LOG_D, 615, kModule, "qn_os_exec_vcmd", "exec cmd=%s, ret=%d"};
constexpr Message kReadPopenFailed{QN_LOG_E, 4140, kModule, "qn_os_exec_cmd_and_read_output",
                                   "popen failed. cmd=%s"};
constexpr Message kReadPopenDone{QN_LOG_D, 4156, kModule, "qn_os_exec_cmd_and_read_output",
                                 "popen success. cmd=%s"};
constexpr Message kValueFormatFailed{QN_LOG_E, 4141, kModule, "qn_os_read_value_by_key_from_file",
                                     "snprintf_s failed"};
constexpr Message kValuePopenFailed{QN_LOG_E, 4142, kModule, "qn_os_read_value_by_key_from_file",
                                    "popen failed"};
constexpr Message kValueReadFailed{QN_LOG_E, 4143, kModule, "qn_os_read_value_by_key_from_file",
                                   "fgets failed"};

constexpr size_t kCommandSize = 512;
constexpr int kSignalMask = 0x7F; // low bits of a wait status: the signal that ended the child

// The output of a command line. The end of the scope waits for the command.
class CommandOutput {
 public:
  // Under the streams' lock, which every fork waits for: no child of another thread gets the pipe's ends
  // while popen() has both, and neither of them is where a thread writes its records.
  explicit CommandOutput(const char* command) {
    const qn::StandardStreamsHeld held;
    stream_ = popen(command, "re");
  }
  ~CommandOutput() {
    if (stream_ != nullptr) pclose(stream_);
  }
  CommandOutput(const CommandOutput&) = delete;
  CommandOutput& operator=(const CommandOutput&) = delete;

  bool valid() const { return stream_ != nullptr; }

  // As fgets(), but past signals. False when there is no more and when reading fails, which costs what
  // came of the line.
  bool read_line(char* line, size_t size) {
    size_t length = 0;
    while (length + 1 < size && (length == 0 || line[length - 1] != '\n') && fill()) {
      line[length++] = buffer_[at_++];
    }
    if (length == 0 && size > 1) return false;
    line[failed_ ? 0 : length] = '\0';
    return !failed_;
  }

 private:
  bool fill() {
    if (at_ < end_) return true;
    const ssize_t got = qn::read_past_signals(fileno(stream_), buffer_, sizeof(buffer_));
    failed_ = got < 0;
    at_ = 0;
    end_ = got > 0 ? static_cast<size_t>(got) : 0;
    return got > 0;
  }

  FILE* stream_ = nullptr;
  size_t at_ = 0;
  size_t end_ = 0;
  bool failed_ = false;
  char buffer_[4096];
};

// Between fork() and execv() the child of a process with threads may do nothing else.
[[noreturn]] void exec_shell(const char* command) {
  char name[] = "sh";
  char option[] = "-c";
  char* const arguments[] = {name, option, const_cast<char*>(command), nullptr};
  execv("/bin/sh", arguments);
  _exit(-1);
}

} // namespace

int32_t qn_os_exec_cmd(const char* cmd) {
  if (cmd == nullptr) return -1;
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) exec_shell(cmd);

  int status = 0;
  if (!qn::wait_past_signals(child, &status)) return QN_FAIL(-1, kWaitFailed, cmd);
  const int32_t result = (status & kSignalMask) == 0 ? 0 : -1;
  QN_LOG(kExecDone, cmd, result);
  return result;
}

int32_t qn_os_exec_vcmd(const char* fmt, ...) {
  if (fmt == nullptr) return -1;
  char command[kCommandSize];
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf_s(command, sizeof(command), sizeof(command) - 1, fmt, args);
  va_end(args);
  if (length < 0) return QN_FAIL(-1, kFormatFailed, fmt);

  const int32_t result = qn_os_exec_cmd(command);
  if (result != 0) QN_LOG(kVcmdFailed, command, result);
  QN_LOG(kVcmdDone, command, result);
  return result;
}

int32_t qn_os_exec_cmd_and_read_output(const char* cmd, char* output, int32_t size) {
  if (cmd == nullptr || output == nullptr || size <= 0) return -1;
  CommandOutput stream(cmd);
  if (!stream.valid()) return QN_FAIL(-1, kReadPopenFailed, cmd);
  QN_LOG(kReadPopenDone, cmd);

  char* target = output;
  size_t room = static_cast<size_t>(size);
  while (stream.read_line(target, room)) {
    // A line counts up to its first NUL: the next one follows there.
    const size_t length = strlen(target);
    target += length;
    room -= length;
    if (room <= 1) break;
  }
  return 0;
}

int32_t qn_os_read_value_by_key_from_file(const char* path, const char* key, const char* separator,
                                          char* value, int32_t size) {
  if (path == nullptr || key == nullptr || separator == nullptr || value == nullptr || size <= 0)
    return -1;
  char command[kCommandSize];
  if (snprintf_s(command, sizeof(command), sizeof(command) - 1, "awk -F '%s' '/%s/ {printf $2}' %s",
                 separator, key, path) < 0)
    return QN_FAIL(-1, kValueFormatFailed);
  CommandOutput stream(command);
  if (!stream.valid()) return QN_FAIL(-1, kValuePopenFailed);
  return stream.read_line(value, static_cast<size_t>(size)) ? 0 : QN_FAIL(-1, kValueReadFailed);
}

int32_t qn_init_dir(void) {
  qn_os_exec_vcmd("mkdir -p %s", "/tmp/quillnet/log/");
  return qn_os_exec_vcmd("mkdir -p %s", "/tmp/quillnet/");
}
