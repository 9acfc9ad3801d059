// Opening a store, new or existing, and closing it.
//
// Nothing of a store is visible before it is whole: a failing step leaves through the guard, which
// releases what has been made so far. Only what was taken from the pool stays there.
#include <fcntl.h>
#include <libgen.h>
#include <quillcore/utility.h>
#include <search.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "core/heap.h"
#include "core/log_record.h"
#include "core/pool.h"
#include "kvs/kvstore.h"
#include "platform/bounded_string.h"
#include "platform/error_text.h"
#include "platform/standard_streams.h"

namespace qn {
namespace {

constexpr char kOpen[] = "qn_kvs_open";
constexpr char kOpenFile[] = "kvstore_open";

constexpr Message kInvalidParam{QN_LOG_E, 489, kStoreModule, kOpen, "invalid param."};
constexpr Message kHandleFailed{QN_LOG_E, 484, kStoreModule, kOpen,
                                "malloc kvstore_t failed. dbfile=%s, errno=(%d, %s)"};
constexpr Message kHandleMade{QN_LOG_D, 485, kStoreModule, kOpen,
                              "create db instance success. dbfile=%s"};
constexpr Message kOpenFailed{QN_LOG_E, 488, kStoreModule, kOpenFile,
                              "open database file failed. dbfile=%s, errno=(%d, %s)."};
constexpr Message kHeaderFailed{QN_LOG_E, 463, kStoreModule, kOpenFile,
                                "try to read database file header failed. dbfile=%s, errno=(%d, %s)."};
constexpr Message kMagicFailed{QN_LOG_E, 464, kStoreModule, kOpenFile,
                               "db file header magic check failed. dbfile=%s."};
constexpr Message kVersionFailed{
    QN_LOG_E, 465, kStoreModule, kOpenFile,
    "version no check failed. current version no=%d, but got verno=%d, dbfile=%s."};
constexpr Message kListsFailed{QN_LOG_E, 486, kStoreModule, kOpen, "malloc free list failed. dbfile=%s."};
constexpr Message kRwlocksFailed{QN_LOG_E, 487, kStoreModule, kOpen, "init rwlock failed. dbfile=%s."};
constexpr Message kPathCopyFailed{QN_LOG_E, 0, kStoreModule, kOpenFile, "strcpy_s failed."};
constexpr Message kCreateFailed{QN_LOG_E, 459, kStoreModule, kOpenFile,
                                "open database file failed. dbfile=%s, errno=(%d, %s)."};
constexpr Message kClearFailed{QN_LOG_E, 460, kStoreModule, kOpenFile,
                               "ftruncate database file failed. dbfile=%s, errno=(%d, %s), db_size=%d."};
constexpr Message kExtendFailed{QN_LOG_E, 461, kStoreModule, kOpenFile,
                                "ftruncate database file failed. dbfile=%s, errno=(%d, %s), db_size=%d."};
constexpr Message kImageFailed{QN_LOG_E, 482, kStoreModule, "qn_kvs_mmap",
                               "alloc db_addr failed. dbfile=%s, errno=(%d, %s), db_size=%d"};
constexpr Message kLoadSeekFailed{QN_LOG_E, 479, kStoreModule, "kvs_commit",
                                  "lseek failed. dbfile=%s, errno=(%d, %s)"};
constexpr Message kLoadFailed{QN_LOG_E, 480, kStoreModule, "qn_kvs_safe_load_dbfile",
                              "read dbfile failed. dbfile=%s, total read count=0x%x not match "
                              "db_size=0x%x, error=(%d, %s)"};
constexpr Message kLoaded{QN_LOG_D, 483, kStoreModule, "qn_kvs_mmap",
                          "read/mmap dbfile success. dbfile=%s, db_size=0x%x"};
constexpr Trace kTraceCreate{kStoreModule, "qn_kvs_create_and_open_dbfile", 458, "create_and_open_dbfile",
                             462,          "create_and_open_dbfile"};

constexpr mode_t kFileMode = 0600;
constexpr size_t kPathSize = 639; // one byte less than `dbfile`: a path has at most 638 bytes

void keep_key(void*) {} // the keys lie in the image

bool is_same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Takes a file that the store has made away again, if no commit has given it its magic: every later open
// would refuse it. What has come into its place or into it since stays.
void remove_unwritten_file(const kvstore_t& store) {
  char magic[kMagicSize] = {};
  if (!store.has_made_file || pread(store.fd, magic, kMagicSize, 0) < 0) return;
  if (memcmp(magic, kMagic, kMagicSize) == 0) return;
  struct stat made, present;
  char path[PATH_MAX]; // behind a link, if `dbfile` is one
  if (realpath(store.dbfile, path) == nullptr) return;
  if (fstat(store.fd, &made) != 0 || lstat(path, &present) != 0) return;
  if (is_same_file(made, present)) unlink(path);
}

// Releases whatever has been made of a store; a part that was not made is null or -1.
struct StoreClose {
  void operator()(kvstore_t* store) const {
    tdestroy(store->index_root, keep_key);
    qn_free(store->db_addr);
    if (store->rwlocks != nullptr) {
      for (uint32_t i = 0; i < kValueTypeCount; i++) pthread_rwlock_destroy(&store->rwlocks[i]);
    }
    if (store->lists != nullptr) {
      for (uint32_t i = 0; i < kListCount; i++) pthread_spin_destroy(&store->lists[i].lock);
    }
    pthread_spin_destroy(&store->lock);
    pthread_mutex_destroy(&store->mutex);
    remove_unwritten_file(*store);
    if (store->fd >= 0) close(store->fd);
    qn_free(store);
  }
};

using StorePtr = std::unique_ptr<kvstore_t, StoreClose>;

// A path that does not fit leaves `dbfile` empty, and no file can be made under that name.
StorePtr make_store(qn_pool_t* pool, const char* path) {
  kvstore_t* const store = static_cast<kvstore_t*>(qn_alloc(sizeof(kvstore_t)));
  if (store == nullptr) return QN_FAIL(nullptr, kHandleFailed, path, QN_ERRNO);
  QN_LOG(kHandleMade, path);
  store->pool = pool;
  store->fd = -1;
  strncpy_s(store->dbfile, kPathSize, path, strlen(path));
  pthread_spin_init(&store->lock, PTHREAD_PROCESS_PRIVATE);
  pthread_mutex_init(&store->mutex, nullptr);
  return StorePtr(store);
}

// Whether there is no such file. A question that could not be answered for another reason is no licence
// to make the file anew: what may be there would be lost.
bool is_absent(const char* dbfile) {
  if (qn_file_is_exist(dbfile) != 0) return false;
  return errno == ENOENT || errno == ENOTDIR || errno == EACCES || errno == ENAMETOOLONG ||
         errno == ELOOP;
}

// Makes the directories of a file. dirname() may change its argument.
int32_t make_directories(const char* dbfile) {
  char path[sizeof(kvstore_t::dbfile)] = "";
  if (strcpy_s(path, sizeof(path), dbfile) != 0) return QN_FAIL(-1, kPathCopyFailed);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): works on the copy above
  if (const char* const directory = dirname(path)) qn_os_exec_vcmd("mkdir -p %s", directory);
  return 0;
}

// Makes a file of full size, all zero, also in place of one that came into being in the meantime. Only
// one that this call has made is this store's to take away again.
int32_t qn_kvs_create_and_open_dbfile(kvstore_t& store) {
  trace_enter(kTraceCreate);
  if (make_directories(store.dbfile) != 0) return -1;
  store.fd = open_above(store.dbfile, O_RDWR | O_CREAT | O_EXCL, kFileMode);
  store.has_made_file = store.fd >= 0;
  if (store.fd < 0 && errno == EEXIST) {
    // Or a link that leads to no file: what is made there is as empty as ours.
    store.fd = open_above(store.dbfile, O_RDWR | O_CREAT, kFileMode);
    struct stat status;
    store.has_made_file = store.fd >= 0 && fstat(store.fd, &status) == 0 && status.st_size == 0;
  }
  if (store.fd < 0) return QN_FAIL(-1, kCreateFailed, store.dbfile, QN_ERRNO);
  if (ftruncate(store.fd, 0) != 0) return QN_FAIL(-1, kClearFailed, store.dbfile, QN_ERRNO, 0);
  if (ftruncate(store.fd, kDbSize) != 0)
    return QN_FAIL(-1, kExtendFailed, store.dbfile, QN_ERRNO, static_cast<int>(kDbSize));
  trace_leave(kTraceCreate);
  return 0;
}

// Whether the file has our magic and version; changes nothing in it.
int32_t check_header(const kvstore_t& store) {
  char header[kHeaderSize];
  kvs_seek_start(store.fd);
  const ssize_t got = read(store.fd, header, sizeof(header));
  if (got >= 0) errno = 0; // a file that is too short is no error of the system
  if (got != static_cast<ssize_t>(sizeof(header)))
    return QN_FAIL(-1, kHeaderFailed, store.dbfile, QN_ERRNO);
  if (memcmp(header, kMagic, kMagicSize) != 0) return QN_FAIL(-1, kMagicFailed, store.dbfile);
  const uint8_t version = static_cast<uint8_t>(header[kMagicSize]);
  if (version != kVersion) return QN_FAIL(-1, kVersionFailed, kVersion, version, store.dbfile);
  return 0;
}

// Reads until the image is full or nothing more comes; an interrupted read ends it like a failed one.
// Leaves errno at 0 when the file has ended.
uint32_t read_image(int32_t fd, uint8_t* image) {
  uint32_t total = 0;
  ssize_t got = 1;
  while (total < kDbSize && got > 0) {
    got = read(fd, image + total, kDbSize - total);
    if (got > 0) total += static_cast<uint32_t>(got);
  }
  if (got >= 0) errno = 0;
  return total;
}

// Loads the whole file into a private image.
int32_t qn_kvs_safe_load_dbfile(kvstore_t& store) {
  store.db_addr = static_cast<uint8_t*>(alloc_unfilled(kDbSize));
  if (store.db_addr == nullptr)
    return QN_FAIL(-1, kImageFailed, store.dbfile, QN_ERRNO, static_cast<int>(kDbSize));
  if (kvs_seek_start(store.fd) != 0) return QN_FAIL(-1, kLoadSeekFailed, store.dbfile, QN_ERRNO);
  const uint32_t total = read_image(store.fd, store.db_addr);
  const int error = errno;
  kvs_seek_start(store.fd);
  if (total != kDbSize)
    return QN_FAIL(-1, kLoadFailed, store.dbfile, total, kDbSize, error, ErrorText(error).text());
  QN_LOG(kLoaded, store.dbfile, kDbSize);
  return 0;
}

int32_t create_and_load(kvstore_t& store) {
  if (qn_kvs_create_and_open_dbfile(store) != 0) return -1;
  if (qn_kvs_safe_load_dbfile(store) != 0) return -1;
  // The kernel keeps what was read of a hole in single pages, and each later commit would walk them.
  posix_fadvise(store.fd, 0, 0, POSIX_FADV_DONTNEED);
  memcpy_s(store.db_addr, kDbSize, kMagic, kMagicSize);
  store.db_addr[kMagicSize] = kVersion;
  kvs_commit(store);
  return 0;
}

// The file is asked after only where it cannot be opened: the question alone makes the next change of its
// time stamps one that a file system must write down.
int32_t open_and_load(kvstore_t& store) {
  store.fd = open_above(store.dbfile, O_RDWR);
  int error = errno;
  if (store.fd < 0 && is_absent(store.dbfile)) return create_and_load(store);
  if (store.fd < 0 && error == ENOENT) {
    store.fd = open_above(store.dbfile, O_RDWR); // it has come into being since
    error = errno;
  }
  if (store.fd < 0) return QN_FAIL(-1, kOpenFailed, store.dbfile, error, ErrorText(error).text());
  if (check_header(store) != 0) return -1;
  return qn_kvs_safe_load_dbfile(store);
}

int32_t make_lists(kvstore_t& store) {
  store.lists = pcalloc_objects<kvs_list_t>(store.pool, kListCount);
  if (store.lists == nullptr) return QN_FAIL(-1, kListsFailed, store.dbfile);
  for (uint32_t i = 0; i < kListCount; i++) {
    pthread_spin_init(&store.lists[i].lock, PTHREAD_PROCESS_PRIVATE);
    list_init(store.lists[i].head);
  }
  store.rwlocks = pcalloc_objects<pthread_rwlock_t>(store.pool, kValueTypeCount);
  if (store.rwlocks == nullptr) return QN_FAIL(-1, kRwlocksFailed, store.dbfile);
  for (uint32_t i = 0; i < kValueTypeCount; i++) pthread_rwlock_init(&store.rwlocks[i], nullptr);
  return 0;
}

} // namespace
} // namespace qn

int32_t qn_kvs_open(kvstore_t** store, qn_pool_t* pool, const char* path) {
  if (store == nullptr || pool == nullptr || path == nullptr)
    return QN_FAIL_CONSOLE(-1, qn::kInvalidParam);
  qn::StorePtr opened = qn::make_store(pool, path);
  if (!opened) return -1;
  if (qn::open_and_load(*opened) != 0) return -1;
  if (qn::make_lists(*opened) != 0) return -1;
  qn::qn_kvs_build_indexs(*opened);
  *store = opened.release();
  return 0;
}

void qn_kvs_close(kvstore_t* store) {
  if (store != nullptr) qn::StoreClose()(store);
}
