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
#include "platform/standard_streams.h"

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

// Under the lock. The old backup goes here; when the file cannot be moved, its content does.
void qn_file_rename_and_unlink_old_file(const qn_file_t& file, const char* path, const char* filename) {
  char target[sizeof(file.pathname)] = "";
  if (snprintf_s(target, sizeof(target), sizeof(target) - 1, "%s/%s", path, filename) < 0) return;
  unlink(target);
  if (rename(file.pathname, target) == 0) return;
  unlink(file.pathname);
  QN_CONSOLE(kRenameFailedOld, file.pathname);
  QN_CONSOLE(kRenameFailedNew, target);
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
  file->fd = qn::open_above(file->pathname, file->flags, file->mode);
  if (file->fd < 0) return QN_FAIL_CONSOLE(-1, kOpenFailed, file->pathname);
  stat(file->pathname, &file->st);
  if (file->inited == 0) pthread_mutex_init(&file->lock, nullptr);
  file->inited = 1;
  return 0;
}

int32_t qn_file_write(qn_file_t* file, const void* bytes, size_t length) {
  if (file == nullptr) return QN_FILE_CLOSED;
  // Read under the lock: a descriptor that is closed only because a rotation is under way is none.
  const MutexGuard guard(file->lock);
  if (file->fd < 0) return QN_FILE_CLOSED;
  file->written += static_cast<uint32_t>(length);
  // What cannot be written is dropped: there is nobody to tell.
  [[maybe_unused]] const ssize_t ignored = write(file->fd, bytes, length);
  fsync(file->fd);
  stat(file->pathname, &file->st);
  return 0;
}

int32_t qn_file_rename_and_reopen(qn_file_t* file, const char* path, const char* filename) {
  if (file == nullptr || path == nullptr || filename == nullptr) return -1;
  const MutexGuard guard(file->lock);
  close_descriptor(*file);
  qn_file_rename_and_unlink_old_file(*file, path, filename);
  return qn_file_open_file(file) == 0 ? 0 : -1;
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
  return static_cast<uint64_t>(file.st.st_size) + length >= limit ||
         uint64_t{file.written} + length >= limit;
}

int32_t qn::file_reopen(qn_file_t& file) {
  const MutexGuard guard(file.lock);
  return qn_file_open_file(&file);
}
