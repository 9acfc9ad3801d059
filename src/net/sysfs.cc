// Small text files of the kernel about one interface.
#include "net/sysfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"

namespace qn {
namespace {

struct FileClose {
  void operator()(FILE* file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

} // namespace

SysfsPath::SysfsPath(const char* intf_name, const char* below, ...) {
  if (intf_name == nullptr) return;
  const int front = snprintf_s(text_, sizeof(text_), sizeof(text_) - 1, "/sys/class/net/%s/", intf_name);
  if (front < 0) return;
  const size_t room = sizeof(text_) - static_cast<size_t>(front);
  va_list args;
  va_start(args, below);
  fits_ = vsnprintf_s(text_ + front, room, room - 1, below, args) >= 0;
  va_end(args);
}

// The kernel gives the whole of such a file to one read, so nothing is gained by a stream with its buffer
// from the heap.
SysfsResult sysfs_read_line(const char* path, char* line, size_t size) {
  const UniqueFd fd(open_above(path, O_RDONLY));
  if (!fd.valid()) return SysfsResult::kNoFile;
  const ssize_t length = read(fd.get(), line, size - 1);
  if (length <= 0) return SysfsResult::kNoText;
  char* const line_end = static_cast<char*>(memchr(line, '\n', static_cast<size_t>(length)));
  *(line_end != nullptr ? line_end + 1 : line + length) = '\0';
  return SysfsResult::kRead;
}

bool sysfs_read_hex(const char* path, unsigned int* number) {
  const StandardStreamsHeld held;
  const FilePtr file(fopen(path, "re"));
  return file && fscanf_s(file.get(), "%x", number) == 1;
}

} // namespace qn
