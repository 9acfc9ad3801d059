// Writing the image back to the file.
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "core/log_record.h"
#include "kvs/kvstore.h"
#include "platform/error_text.h"
#include "platform/guards.h"

namespace qn {
namespace {

constexpr Message kSeekFailed{QN_LOG_E, 517, kStoreModule, "kvs_commit",
                              "lseek failed. dbfile=%s, errno=(%d, %s)"};
constexpr Message kWriteFailed{QN_LOG_E, 518, kStoreModule, "kvs_commit",
                               "sync failed. dbfile=%s, errno=(%d, %s)"};

// Why the file took only a part: ENOSPC when the file system has no room for the rest, 0 when it does not
// tell.
int reason_of_short_write(int32_t fd, size_t missing) {
  struct statvfs room;
  if (fstatvfs(fd, &room) != 0 || room.f_blocks == 0) return 0;
  return uint64_t{room.f_bavail} * room.f_frsize < missing ? ENOSPC : 0;
}

// Returns 0 or why the image is not in the file.
int write_image(const kvstore_t& store) {
  const ssize_t written = write(store.fd, store.db_addr, kDbSize);
  if (written == static_cast<ssize_t>(kDbSize)) return 0;
  const int error =
      written < 0 ? errno : reason_of_short_write(store.fd, kDbSize - static_cast<size_t>(written));
  QN_LOG(kWriteFailed, store.dbfile, error, ErrorText(error).text());
  return error != 0 ? error : EIO;
}

} // namespace

int32_t kvs_seek_start(int32_t fd) { return lseek(fd, 0, SEEK_SET) == 0 ? 0 : -1; }

void kvs_commit(kvstore_t& store) {
  if (store.db_addr == nullptr || store.fd < 0) return;
  fsync(store.fd); // what it tells is about a write before this one
  if (kvs_seek_start(store.fd) != 0) {
    const ErrnoKept reason;
    QN_LOG(kSeekFailed, store.dbfile, QN_ERRNO);
    return;
  }
  int error = write_image(store);
  kvs_seek_start(store.fd);
  if (fsync(store.fd) != 0 && error == 0) error = errno;
  errno = error;
}

} // namespace qn
