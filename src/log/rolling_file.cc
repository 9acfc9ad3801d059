// Rolling file.
#include "log/rolling_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "core/heap.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/own_link.h"

namespace {

using qn::Message;
using qn::MutexGuard;

constexpr char kModule[] = "qn_file";
constexpr char kRename[] = "qn_file_rename_and_unlink_old_file";

constexpr Message kOpenFailed{QN_LOG_E, 451, kModule, "qn_file_open_file",
                              "open file failed. file->pathname=%s\n"};
constexpr Message kPathTooLong{QN_LOG_E, 452, kModule, "qn_file_open", "snprintf_s failed. path=%s"};
constexpr Message kNameTooLong{QN_LOG_E, 453, kModule, "qn_file_open", "snprintf_s failed. filename=%s"};
constexpr Message kPathnameTooLong{QN_LOG_E, 454, kModule, "qn_file_open",
                                   "snprintf_s filepath failed. path=%s, filename=%s "};
constexpr Message kNoDirectory{QN_LOG_E, 455, kModule, "qn_file_open", "dir create failed. dir=%s\n"};
constexpr Message kRenameFailedOld{QN_LOG_E, 456, kModule, kRename, "rename failed. old filename=%s"};
constexpr Message kRenameFailedNew{QN_LOG_E, 457, kModule, kRename, "rename failed. new filename=%s"};

constexpr size_t kCommandSize = 128;

using FilePtr = qn::HeapPtr<qn_file_t>;

bool directory_exists(const char* path) { return access(path, F_OK) == 0; }

// A path that does not fit the command line makes nothing and says nothing.
bool make_directory(const char* path) {
  char command[kCommandSize] = "";
  if (snprintf_s(command, sizeof(command), sizeof(command) - 1, "mkdir -p %s;chmod -R 750 %s", path,
                 path) < 0) {
    return false;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): what tells is whether the directory is there afterwards
  [[maybe_unused]] const int ignored = system(command);
  if (directory_exists(path)) return true;
  QN_CONSOLE(kNoDirectory, path);
  return false;
}

bool fill_names(qn_file_t& file, const char* path, const char* filename) {
  if (snprintf_s(file.path, sizeof(file.path), sizeof(file.path) - 1, "%s", path) < 0)
    return QN_FAIL_CONSOLE(false, kPathTooLong, path);
  if (snprintf_s(file.filename, sizeof(file.filename), sizeof(file.filename) - 1, "%s", filename) < 0)
    return QN_FAIL_CONSOLE(false, kNameTooLong, filename);
  if (snprintf_s(file.pathname, sizeof(file.pathname), sizeof(file.pathname) - 1, "%s/%s", path,
                 filename) < 0)
    return QN_FAIL_CONSOLE(false, kPathnameTooLong, path, filename);
  return true;
}

void close_descriptor(qn_file_t& file) {
  if (file.fd >= 0) close(file.fd);
  file.fd = -1;
  file.written = 0;
}

// Flags that leave what is there.
constexpr int32_t keeping(int32_t flags) { return flags & ~O_TRUNC; }

// Puts the file that has the name in the place of the one that was open. False where it cannot be opened,
// and then nothing has changed.
bool open_in_place(qn_file_t& file, int32_t flags) {
  qn::UniqueFd fd(qn::open_by_own_links(file.pathname, flags | O_APPEND, file.mode));
  struct stat status;
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return false;
  close_descriptor(file);
  file.fd = fd.release();
  file.st = status;
  file.dev = status.st_dev;
  file.ino = status.st_ino;
  return true;
}

// Asks what has the name now: the open file, or another one or none.
bool has_its_name(const qn_file_t& file, struct stat* status) {
  return stat(file.pathname, status) == 0 && status->st_dev == file.dev && status->st_ino == file.ino;
}

// Goes on in the file that another process has put in the place of the open one.
bool follow_name(qn_file_t& file) { return open_in_place(file, keeping(file.flags)); }

bool has_no_name(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && status.st_nlink == 0;
}

// What cannot be written is dropped: there is nobody to tell.
void write_through(qn_file_t& file, const void* bytes, size_t length) {
  file.written += static_cast<uint32_t>(length);
  [[maybe_unused]] const ssize_t ignored = write(file.fd, bytes, length);
  fsync(file.fd);
}

bool reaches(const qn_file_t& file, size_t length, uint64_t limit) {
  return static_cast<uint64_t>(file.st.st_size) + length >= limit ||
         uint64_t{file.written} + length >= limit;
}

int32_t open_or_tell(qn_file_t& file, int32_t flags) {
  return open_in_place(file, flags) ? 0 : QN_FAIL_CONSOLE(-1, kOpenFailed, file.pathname);
}

// Under the lock. The old backup goes here; when the file cannot be moved, its content does. Returns
// whether it was moved.
bool qn_file_rename_and_unlink_old_file(const qn_file_t& file, const char* path, const char* filename) {
  char target[sizeof(file.pathname)] = "";
  if (snprintf_s(target, sizeof(target), sizeof(target) - 1, "%s/%s", path, filename) < 0) return false;
  unlink(target);
  if (rename(file.pathname, target) == 0) return true;
  unlink(file.pathname);
  QN_CONSOLE(kRenameFailedOld, file.pathname);
  QN_CONSOLE(kRenameFailedNew, target);
  return false;
}

} // namespace

qn_file_t* qn_file_open(const char* path, const char* filename, int32_t flags, uint32_t mode) {
  if (path == nullptr || filename == nullptr) return nullptr;
  if (!directory_exists(path) && !make_directory(path)) return nullptr;

  FilePtr file(static_cast<qn_file_t*>(malloc(sizeof(qn_file_t))));
  if (!file) return nullptr;
  memset_s(file.get(), sizeof(qn_file_t), 0, sizeof(qn_file_t));
  if (!fill_names(*file, path, filename)) return nullptr;
  file->flags = flags;
  file->mode = mode;
  file->fd = -1;
  if (qn_file_open_file(file.get()) != 0) return nullptr;
  return file.release();
}

int32_t qn_file_open_file(qn_file_t* file) {
  if (file == nullptr) return -2;
  close_descriptor(*file);
  if (open_or_tell(*file, file->flags) != 0) return -1;
  if (file->inited == 0) pthread_mutex_init(&file->lock, nullptr);
  file->inited = 1;
  return 0;
}

int32_t qn_file_write(qn_file_t* file, const void* bytes, size_t length) {
  if (file == nullptr) return QN_FILE_CLOSED;
  // Read under the lock: a descriptor that is closed only because a rotation is under way is none.
  const MutexGuard guard(file->lock);
  if (file->fd < 0) return QN_FILE_CLOSED;
  write_through(*file, bytes, length);
  if (has_its_name(*file, &file->st)) return 0;

  const bool lost = has_no_name(file->fd);
  if (!follow_name(*file) || !lost) return 0;
  write_through(*file, bytes, length);
  stat(file->pathname, &file->st);
  return 0;
}

int32_t qn_file_rename_and_reopen(qn_file_t* file, const char* path, const char* filename) {
  if (file == nullptr || path == nullptr || filename == nullptr) return -1;
  const MutexGuard guard(file->lock);
  close_descriptor(*file);
  const bool moved = qn_file_rename_and_unlink_old_file(*file, path, filename);
  // Behind a move what has the name by now is of another process, with its records.
  return open_or_tell(*file, moved ? keeping(file->flags) : file->flags);
}

void qn_file_sync(qn_file_t* file) {
  if (file == nullptr || file->fd < 0) return;
  fsync(file->fd);
  stat(file->pathname, &file->st);
}

void qn_file_close(qn_file_t* file) {
  if (file == nullptr) return;
  {
    const MutexGuard guard(file->lock);
    close_descriptor(*file);
    file->inited = 0;
  }
  pthread_mutex_destroy(&file->lock);
  qn_free(file);
}

bool qn::file_would_reach(qn_file_t& file, size_t length, uint64_t limit) {
  const MutexGuard guard(file.lock);
  struct stat status;
  if (!reaches(file, length, limit)) return false;
  if (file.fd < 0 || has_its_name(file, &status) || !follow_name(file)) return true;
  return reaches(file, length, limit);
}

int32_t qn::file_reopen(qn_file_t& file) {
  const MutexGuard guard(file.lock);
  return qn_file_open_file(&file);
}
