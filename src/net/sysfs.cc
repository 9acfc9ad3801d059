// Small text files of the kernel about one interface.
#include "net/sysfs.h"

#include <climits>
#include <cstdio>
#include <memory>

#include "platform/bounded_string.h"

namespace qn {
namespace {

struct FileClose {
  void operator()(FILE* file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

} // namespace

SysfsPath::SysfsPath(const char* intf_name, const char* file)
    : fits_(intf_name != nullptr && snprintf_s(text_, kSysfsPathSize, kSysfsPathSize - 1,
                                               "/sys/class/net/%s/%s", intf_name, file) >= 0) {}

SysfsPath::SysfsPath(const char* intf_name, const char* directory, const char* file)
    : fits_(intf_name != nullptr &&
            snprintf_s(text_, kSysfsPathSize, kSysfsPathSize - 1, "/sys/class/net/%s/%s/%s", intf_name,
                       directory, file) >= 0) {}

SysfsPath::SysfsPath(const char* intf_name, const char* directory, const char* subdirectory,
                     const char* file)
    : fits_(intf_name != nullptr &&
            snprintf_s(text_, kSysfsPathSize, kSysfsPathSize - 1, "/sys/class/net/%s/%s/%s/%s", intf_name,
                       directory, subdirectory, file) >= 0) {}

SysfsResult sysfs_read_line(const char* path, char* line, size_t size, const char* mode) {
  const FilePtr file(fopen(path, mode));
  if (!file) return SysfsResult::kNoFile;
  const int room = size < INT_MAX ? static_cast<int>(size) : INT_MAX;
  return fgets(line, room, file.get()) != nullptr ? SysfsResult::kRead : SysfsResult::kNoText;
}

bool sysfs_read_hex(const char* path, unsigned int* number) {
  const FilePtr file(fopen(path, "re"));
  return file && fscanf_s(file.get(), "%x", number) == 1;
}

} // namespace qn
