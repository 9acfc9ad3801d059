// Small text files of the kernel about one interface.
#ifndef QN_NET_SYSFS_H
#define QN_NET_SYSFS_H

#include <quillcore/api.h>

#include <cstddef>

namespace qn {

constexpr size_t kSysfsPathSize = 128;

// A path below /sys/class/net on the stack. A null interface and what does not fit give no path.
class SysfsPath {
 public:
  // `below` is a format of what stands behind the interface's name.
  SysfsPath(const char* intf_name, const char* below, ...) QN_PRINTF(3, 4);

  bool fits() const { return fits_; }
  const char* text() const { return text_; }

 private:
  char text_[kSysfsPathSize];
  bool fits_ = false;
};

enum class SysfsResult { kRead, kNoFile, kNoText };

// Reads the first line of a file, with its line end, into `line`, and no more than size - 1 bytes.
SysfsResult sysfs_read_line(const char* path, char* line, size_t size);

// Reads a hexadecimal number from a file.
bool sysfs_read_hex(const char* path, unsigned int* number);

} // namespace qn

#endif // QN_NET_SYSFS_H
