// Processes, their open files and their sockets.
#include "processes.h"

#include <cstdio>
#include <cstring>

#include "output.h"

namespace ctl {
namespace {

constexpr unsigned long kListening = 0x10000; // __SO_ACCEPTCON in the flags
constexpr unsigned long kSeqpacket = 5;

uint32_t uptime_seconds() {
  char text[64];
  read_text("/proc/uptime", text, sizeof(text));
  return static_cast<uint32_t>(strtoull(text, nullptr, 10));
}

// Hundredths of a second, which is what the kernel tells on every machine of ours.
uint32_t seconds_of_ticks(const char* digits) {
  uint32_t seconds = 0;
  for (size_t left = strspn(digits, "0123456789"); left > 2; left--) {
    seconds = seconds * 10 + static_cast<uint32_t>(*digits++ - '0');
  }
  return seconds;
}

// The field of /proc/PID/stat; the third is the first behind the name's bracket.
const char* stat_field(const char* behind_name, int number) {
  for (; number > 3 && behind_name != nullptr; number--) {
    behind_name = strchr(behind_name, ' ');
    if (behind_name != nullptr) behind_name++;
  }
  return behind_name;
}

} // namespace

bool read_process(pid_t pid, Process* process) {
  char path[40], text[512];
  snprintf(path, sizeof(path), "/proc/%d/stat", pid);
  read_text(path, text, sizeof(text));
  // A name can hold brackets and blanks itself.
  const char* const name = strchr(text, '(');
  const char* const end = strrchr(text, ')');
  if (name == nullptr || end == nullptr || end < name || strlen(end) < 5) return false;
  *process = {};
  process->pid = pid;
  process->state = end[2];
  process->parent = static_cast<pid_t>(strtoull(end + 4, nullptr, 10));
  snprintf(process->program, sizeof(process->program), "%.*s", static_cast<int>(end - name - 1),
           name + 1);
  const char* const start = stat_field(end + 2, 22);
  const uint32_t started = start != nullptr ? seconds_of_ticks(start) : 0, now = uptime_seconds();
  process->up_seconds = now > started ? now - started : 0;
  return true;
}

pid_t Processes::next() {
  while (const char* const name = proc_.next()) {
    unsigned long pid = 0;
    if (parse_number(name, 1, INT32_MAX, &pid)) return static_cast<pid_t>(pid);
  }
  return 0;
}

OpenFiles::OpenFiles(pid_t pid)
    : files_((snprintf(folder_, sizeof(folder_), "/proc/%d/fd", pid), folder_)) {}

bool OpenFiles::next(OpenFile* file) {
  while (const char* const name = files_.next()) {
    const ssize_t length = readlinkat(files_.fd(), name, file->target, sizeof(file->target) - 1);
    if (length < 0) continue;
    file->target[length] = '\0';
    snprintf(file->link, sizeof(file->link), "%s/%.12s", folder_, name);
    file->socket_inode =
        strncmp(file->target, "socket:[", 8) == 0 ? strtoull(file->target + 8, nullptr, 10) : 0;
    return true;
  }
  return false;
}

bool status_of(const OpenFile& file, struct stat* status) {
  constexpr const char* kNone[] = {"/proc/", "/sys/", "/dev/pts", "/dev/tty", "/dev/null"};
  if (file.target[0] != '/') return false;
  for (const char* const front : kNone) {
    if (strncmp(file.target, front, strlen(front)) == 0) return false;
  }
  return fstatat(AT_FDCWD, file.link, status, 0) == 0;
}

bool is_written(const OpenFile& file) {
  struct stat link;
  return status_of_name(file.link, &link) && (link.st_mode & S_IWUSR) != 0;
}

namespace {

bool holds(pid_t pid, const char* name, const struct stat& file) {
  OpenFiles files(pid);
  OpenFile open_file;
  while (files.next(&open_file)) {
    struct stat status;
    if (strncmp(base_name(open_file.target), name, strlen(name)) != 0) continue;
    if (status_of(open_file, &status) && same_file(status, file) && is_written(open_file)) return true;
  }
  return false;
}

bool has(const Holders& holders, pid_t pid) {
  for (unsigned i = 0; i < holders.count; i++) {
    if (holders.pids[i] == pid) return true;
  }
  return false;
}

} // namespace

Holders find_holders(const char* path, const struct stat& file) {
  Holders all = {}, own = {};
  constexpr unsigned kMax = sizeof(all.pids) / sizeof(all.pids[0]);
  Processes processes;
  for (pid_t pid; all.count < kMax && (pid = processes.next()) != 0;) {
    if (holds(pid, base_name(path), file)) all.pids[all.count++] = pid;
  }
  for (unsigned i = 0; i < all.count; i++) {
    Process process;
    if (read_process(all.pids[i], &process) && !has(all, process.parent))
      own.pids[own.count++] = all.pids[i];
  }
  return own;
}

Listeners::Listeners() : fd_(open_plain("/proc/net/unix")) {}

bool Listeners::next(Listener* listener) {
  for (;;) {
    char* line_end = static_cast<char*>(memchr(text_ + at_, '\n', length_ - at_));
    if (line_end == nullptr) {
      memmove(text_, text_ + at_, length_ - at_);
      length_ -= at_;
      at_ = 0;
      const ssize_t got = fd_.valid() ? read(fd_.get(), text_ + length_, sizeof(text_) - length_) : 0;
      if (got <= 0) return false;
      length_ += static_cast<size_t>(got);
      continue;
    }
    *line_end = '\0';
    const char* const line = text_ + at_;
    at_ = static_cast<size_t>(line_end - text_) + 1;
    unsigned long flags = 0, type = 0;
    unsigned long long inode = 0;
    int path_at = 0;
    // Num: RefCount Protocol Flags Type St Inode Path
    if (sscanf(line, "%*[^:]: %*x %*x %lx %lx %*x %llu %n", &flags, &type, &inode, &path_at) != 3)
      continue;
    if ((flags & kListening) == 0 || type != kSeqpacket || line[path_at] != '/') continue;
    listener->inode = inode;
    snprintf(listener->path, sizeof(listener->path), "%s", line + path_at);
    return true;
  }
}

const char* short_time(uint32_t seconds) {
  static char text[40];
  const uint32_t minutes = static_cast<uint32_t>(seconds / 60.0),
                 hours = static_cast<uint32_t>(seconds / 3600.0);
  const uint32_t days = static_cast<uint32_t>(seconds / 86400.0);
  if (days > 0) {
    snprintf(text, sizeof(text), "%ud %02u:%02u", days, hours - days * 24, minutes - hours * 60);
  } else {
    snprintf(text, sizeof(text), "%02u:%02u:%02u", hours, minutes - hours * 60, seconds - minutes * 60);
  }
  return text;
}

} // namespace ctl
