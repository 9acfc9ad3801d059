// Writing the image back to the file.
#include <unistd.h>

#include <cerrno>

#include "core/log_record.h"
#include "kvs/kvstore.h"
#include "platform/error_text.h"

namespace qn {
namespace {

constexpr Message kSeekFailed{QN_LOG_E, 517, kStoreModule, "kvs_commit",
                              "lseek failed. dbfile=%s, errno=(%d, %s)"};
constexpr Message kWriteFailed{QN_LOG_E, 518, kStoreModule, "kvs_commit",
                               "sync failed. dbfile=%s, errno=(%d, %s)"};

} // namespace

int32_t kvs_seek_start(int32_t fd) { return lseek(fd, 0, SEEK_SET) == 0 ? 0 : -1; }

void kvs_commit(kvstore_t& store) {
  if (store.db_addr == nullptr || store.fd < 0) return;
  fsync(store.fd);
  if (kvs_seek_start(store.fd) != 0) {
    const int error = errno;
    QN_LOG(kSeekFailed, store.dbfile, error, ErrorText(error).text());
    return;
  }
  if (write(store.fd, store.db_addr, kDbSize) != static_cast<ssize_t>(kDbSize)) {
    const int error = errno;
    QN_LOG(kWriteFailed, store.dbfile, error, ErrorText(error).text());
  }
  kvs_seek_start(store.fd);
  fsync(store.fd);
}

} // namespace qn
