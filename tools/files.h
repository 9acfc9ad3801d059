// Files and clocks: what may be opened, and how.
//
// Nothing is opened but plain files and block devices (a store can lie on one), never through a link,
// never in a way that can wait, and no size is taken from a file: reads go on until the buffer is full or
// nothing comes.
#ifndef TOOLS_FILES_H
#define TOOLS_FILES_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace ctl {

constexpr char kRunFolder[] = "/tmp/quillnet";
constexpr char kLogFolder[] = "/tmp/quillnet/log";
constexpr char kConfFile[] = "/etc/quillnet/quillnet.conf";
constexpr size_t kPathSize = 768;

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  bool valid() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Memory of the C library's heap; the program ends with status 3 when there is none.
void* take_memory(size_t size);

template <typename T>
class Owned {
 public:
  explicit Owned(T* it) : it_(it) {}
  Owned() : it_(static_cast<T*>(take_memory(sizeof(T)))) {}
  ~Owned() { free(it_); }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  T* get() const { return it_; }
  T* operator->() const { return it_; }
  T& operator*() const { return *it_; }

 private:
  T* it_;
};

// The entries of a folder, without "." and "..". An invalid one has none.
class Folder {
 public:
  // A folder by path; with `parent` one below that descriptor. Never through a link.
  explicit Folder(const char* path, int parent = AT_FDCWD);
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  bool valid() const { return dir_ != nullptr; }
  int fd() const { return dirfd(dir_); }
  const char* next();

 private:
  DIR* dir_;
};

// Opens for reading. Returns an invalid descriptor and errno: ELOOP for a link, EISDIR, ENXIO for what is
// neither a plain file nor a block device, otherwise what the kernel says.
Fd open_plain(const char* path, struct stat* status = nullptr, int folder = AT_FDCWD);

// lstat(): of the name itself, where that is a link.
bool status_of_name(const char* path, struct stat* status, int folder = AT_FDCWD);

// Why open_plain() refused, for a person.
const char* why_not(int error);

// Reads until `size` bytes are there or nothing more comes, from the descriptor's place or from `offset`.
// Returns their number, or -1.
ssize_t read_up_to(int fd, void* buffer, size_t size);
ssize_t read_up_to_at(int fd, void* buffer, size_t size, int64_t offset);

// Reads a small file as text. Returns its length; an empty text where it cannot be read.
size_t read_text(const char* path, char* text, size_t size, int folder = AT_FDCWD);

bool same_file(const struct stat& left, const struct stat& right);

// The part of a path behind its last slash.
const char* base_name(const char* path);

// Of the clock that nobody sets. The second one wraps, for differences below an hour.
int64_t monotonic_ms();
uint32_t monotonic_us();

// A whole number within limits, decimal or with 0x in front. False for anything else.
bool parse_number(const char* text, unsigned long low, unsigned long high, unsigned long* number);

// "90", "90s", "5m", "2h", "1d" as seconds, at most a year.
bool parse_duration(const char* text, int64_t* seconds);

// Microseconds as milliseconds, to a tenth.
const char* short_ms(uint32_t microseconds);

// Bytes as "612K", "1.4M".
const char* short_size(uint64_t bytes);

} // namespace ctl

#endif // TOOLS_FILES_H
