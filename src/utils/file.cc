// Questions about files.
#include <quillcore/utility.h>
#include <sys/stat.h>

#include <cstdint>

namespace {

static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8, "64-bit time and offsets on every target");

// Modification time in whole seconds, or false for null and where the file cannot be asked.
bool file_mtime(const char* path, int64_t* seconds) {
  struct stat status;
  if (path == nullptr || stat(path, &status) != 0) return false;
  *seconds = status.st_mtime;
  return true;
}

} // namespace

int32_t qn_file_is_exist(const char* path) {
  int64_t seconds = 0;
  return file_mtime(path, &seconds) ? 1 : 0;
}

int32_t qn_file_is_modified(const char* path, int64_t mtime) {
  int64_t seconds = 0;
  return file_mtime(path, &seconds) && seconds > mtime ? 1 : 0;
}

int64_t qn_file_get_last_mtime(const char* path) {
  int64_t seconds = 0;
  return file_mtime(path, &seconds) ? seconds : 0;
}
