// Files and clocks.
#include "files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "output.h"

namespace ctl {

void* take_memory(size_t size) {
  void* const memory = calloc(1, size);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread
  if (memory == nullptr) exit(fail(kCannotLook, "no memory for %zu bytes", size));
  return memory;
}

Folder::Folder(const char* path, int parent) : dir_(nullptr) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  Fd run;
  if (strcmp(path, kLogFolder) == 0) {
    // The folder above may be a link, too.
    run.reset(open(kRunFolder, kFlags));
    if (!run.valid()) return;
    parent = run.get();
    path += sizeof(kRunFolder);
  }
  Fd fd(openat(parent, path, kFlags));
  if (!fd.valid()) return;
  dir_ = fdopendir(fd.get());
  if (dir_ != nullptr) fd.release();
}

Folder::~Folder() {
  if (dir_ != nullptr) closedir(dir_);
}

const char* Folder::next() {
  if (dir_ == nullptr) return nullptr;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread
  while (const dirent* const entry = readdir(dir_)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) return entry->d_name;
  }
  return nullptr;
}

bool status_of_name(const char* path, struct stat* status, int folder) {
  return fstatat(folder, path, status, AT_SYMLINK_NOFOLLOW) == 0;
}

Fd open_plain(const char* path, struct stat* status, int folder) {
  struct stat own;
  if (status == nullptr) status = &own;
  // Asked before the open: to open a device can already do something.
  if (!status_of_name(path, status, folder)) return Fd();
  const mode_t kind = status->st_mode & S_IFMT;
  if (kind != S_IFREG && kind != S_IFBLK) {
    errno = kind == S_IFLNK ? ELOOP : kind == S_IFDIR ? EISDIR : ENXIO;
    return Fd();
  }
  Fd fd(openat(folder, path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd.valid()) return Fd();
  if (fstat(fd.get(), status) == 0 && (status->st_mode & S_IFMT) == kind) return fd;
  errno = ENXIO;
  return Fd();
}

const char* why_not(int error) {
  switch (error) {
    case ELOOP:
      return "it is a link; name the file itself";
    case ENOTDIR:
      return "it is no folder, or a link to one";
    case EISDIR:
      return "it is a folder; name a file";
    case ENXIO:
      return "it is no plain file";
    case EACCES:
      return "not allowed; ask as root";
    default:
      return strerror(error); // NOLINT(concurrency-mt-unsafe): the tool has one thread
  }
}

ssize_t read_up_to(int fd, void* buffer, size_t size) {
  size_t length = 0;
  while (length < size) {
    const ssize_t got = read(fd, static_cast<char*>(buffer) + length, size - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    length += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(length);
}

ssize_t read_up_to_at(int fd, void* buffer, size_t size, int64_t offset) {
  return lseek(fd, offset, SEEK_SET) == offset ? read_up_to(fd, buffer, size) : -1;
}

size_t read_text(const char* path, char* text, size_t size, int folder) {
  const Fd fd(open_plain(path, nullptr, folder));
  const ssize_t length = fd.valid() ? read_up_to(fd.get(), text, size - 1) : 0;
  text[length > 0 ? length : 0] = '\0';
  return length > 0 ? static_cast<size_t>(length) : 0;
}

bool same_file(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

const char* base_name(const char* path) {
  const char* const slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// Divided as floating-point numbers, here and below: the router has no other divider.
int64_t monotonic_ms() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + static_cast<int32_t>(static_cast<int32_t>(now.tv_nsec) / 1e6);
}

uint32_t monotonic_us() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(now.tv_sec) * 1000000u +
         static_cast<uint32_t>(static_cast<int32_t>(now.tv_nsec) / 1e3);
}

bool parse_number(const char* text, unsigned long low, unsigned long high, unsigned long* number) {
  if (text[0] < '0' || text[0] > '9') return false; // no sign, no blank
  char* end = nullptr;
  errno = 0;
  const unsigned long long value =
      strtoull(text, &end, text[0] == '0' && (text[1] | 0x20) == 'x' ? 16 : 10);
  *number = static_cast<unsigned long>(value);
  return errno == 0 && *end == '\0' && value >= low && value <= high;
}

bool parse_duration(const char* text, int64_t* seconds) {
  constexpr struct {
    char unit;
    int32_t seconds;
  } kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
  constexpr int64_t kYear = 366 * int64_t{86400};
  char digits[12] = "";
  const size_t length = strlen(text);
  if (length == 0 || length >= sizeof(digits)) return false;
  memcpy(digits, text, length);
  int64_t factor = 1;
  for (const auto& unit : kUnits) {
    if (digits[length - 1] != unit.unit) continue;
    factor = unit.seconds;
    digits[length - 1] = '\0';
  }
  unsigned long number = 0;
  if (!parse_number(digits, 0, kYear, &number)) return false;
  *seconds = static_cast<int64_t>(number) * factor;
  return *seconds <= kYear;
}

const char* short_ms(uint32_t microseconds) {
  static char text[24];
  snprintf(text, sizeof(text), "%.1f", microseconds / 1000.0);
  return text;
}

const char* short_size(uint64_t bytes) {
  static char texts[2][24];
  static unsigned turn;
  char(&text)[24] = texts[turn++ & 1];
  const uint32_t kilo = static_cast<uint32_t>((bytes + 512) >> 10);
  if (bytes < 1024) {
    snprintf(text, sizeof(text), "%u", static_cast<unsigned>(bytes));
  } else if (kilo < 1024) {
    snprintf(text, sizeof(text), "%uK", kilo);
  } else {
    snprintf(text, sizeof(text), "%.1fM", kilo / 1024.0);
  }
  return text;
}

} // namespace ctl
