// Key and value stores behind one form: open(), put(), get(), close() on files in a directory.
//
// get() hands over a copy on the heap, which the caller frees, or null for an absent key. Whatever put()
// has stored is on disk when it returns.
#ifndef QUILLCORE_BENCH_STORE_PEERS_H
#define QUILLCORE_BENCH_STORE_PEERS_H

#include <fcntl.h>
#include <quillcore/store.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench_support.h"

#ifdef HAVE_GDBM
#include <gdbm.h>
#endif
#ifdef HAVE_LMDB
#include <lmdb.h>
#endif
#ifdef HAVE_SQLITE
#include <sqlite3.h>
#endif
#ifdef HAVE_TDB
#include <sys/stat.h>
extern "C" {
#include <tdb.h>
}
#endif

namespace bench {

inline void* copy_of(const void* data, size_t size) {
  void* const copy = malloc(size);
  return copy != nullptr ? memcpy(copy, data, size) : nullptr;
}

class OurStore {
 public:
  ~OurStore() {
    close();
    qn_pool_free(pool_);
  }
  void open(const std::string& directory) {
    must(qn_kvs_open(&store_, pool_, (directory + "/store").c_str()) == 0, "qn_kvs_open");
  }
  void put(const std::string& key, const std::string& value) {
    const qn_str_t name = name_of(key);
    must(qn_kvs_put(store_, &name, value.data(), static_cast<uint16_t>(value.size())) == 0, "qn_kvs_put");
  }
  void* get(const std::string& key) {
    const qn_str_t name = name_of(key);
    void* value = nullptr;
    uint16_t length = 0;
    return qn_kvs_get(store_, &name, &value, &length) == 0 ? value : nullptr;
  }
  void close() {
    qn_kvs_close(store_);
    store_ = nullptr;
    qn_pool_reset(pool_);
  }

 private:
  static qn_str_t name_of(const std::string& key) {
    return {static_cast<uint32_t>(key.size()), const_cast<char*>(key.data())};
  }

  qn_pool_t* pool_ = qn_pool_create(32768);
  kvstore_t* store_ = nullptr;
};

// The least that a lookup in memory can cost: a map, a lock, one allocation and one copy.
class MapStore {
 public:
  void open(const std::string&) {}
  void put(const std::string& key, const std::string& value) { values_[key] = value; }
  void* get(const std::string& key) {
    const std::lock_guard guard(mutex_);
    const auto found = values_.find(key);
    return found != values_.end() ? copy_of(found->second.data(), found->second.size()) : nullptr;
  }
  void close() {}

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> values_;
};

// The least that an image of the store's size can cost: the system calls and nothing else.
class ImageStore {
 public:
  void open(const std::string& directory) {
    fd_ = ::open((directory + "/image").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    must(fd_ >= 0, "open");
    must(read(fd_, image_.data(), image_.size()) >= 0, "read");
    write_image();
  }
  void put(const std::string&, const std::string& value) {
    memcpy(image_.data(), value.data(), value.size());
    write_image();
  }
  void close() { ::close(fd_); }

 private:
  void write_image() {
    must(fsync(fd_) == 0 && lseek(fd_, 0, SEEK_SET) == 0, "fsync, lseek");
    must(write(fd_, image_.data(), image_.size()) == static_cast<ssize_t>(image_.size()), "write");
    must(lseek(fd_, 0, SEEK_SET) == 0 && fsync(fd_) == 0, "lseek, fsync");
  }

  int fd_ = -1;
  std::vector<char> image_ = std::vector<char>(131072);
};

#ifdef HAVE_GDBM
class GdbmStore {
 public:
  void open(const std::string& directory) {
    file_ = gdbm_open((directory + "/gdbm").c_str(), 0, GDBM_WRCREAT, 0600, nullptr);
    must(file_ != nullptr, "gdbm_open");
  }
  void put(const std::string& key, const std::string& value) {
    must(gdbm_store(file_, datum_of(key), datum_of(value), GDBM_REPLACE) == 0, "gdbm_store");
    must(gdbm_sync(file_) == 0, "gdbm_sync");
  }
  void* get(const std::string& key) { return gdbm_fetch(file_, datum_of(key)).dptr; }
  void close() { gdbm_close(file_); }

 private:
  static datum datum_of(const std::string& text) {
    return {const_cast<char*>(text.data()), static_cast<int>(text.size())};
  }

  GDBM_FILE file_ = nullptr;
};
#endif

#ifdef HAVE_LMDB
class LmdbStore {
 public:
  void open(const std::string& directory) {
    check(mdb_env_create(&environment_));
    check(mdb_env_set_mapsize(environment_, 4u << 20u));
    check(mdb_env_open(environment_, (directory + "/lmdb").c_str(), MDB_NOSUBDIR, 0600));
    MDB_txn* transaction = nullptr;
    check(mdb_txn_begin(environment_, nullptr, 0, &transaction));
    check(mdb_dbi_open(transaction, nullptr, MDB_CREATE, &database_));
    check(mdb_txn_commit(transaction));
    // One reader for the life of the store, renewed for each get: what its manual advises.
    check(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reader_));
    mdb_txn_reset(reader_);
  }
  void put(const std::string& key, const std::string& value) {
    MDB_val name = val_of(key);
    MDB_val data = val_of(value);
    MDB_txn* transaction = nullptr;
    check(mdb_txn_begin(environment_, nullptr, 0, &transaction));
    check(mdb_put(transaction, database_, &name, &data, 0));
    check(mdb_txn_commit(transaction));
  }
  void* get(const std::string& key) {
    MDB_val name = val_of(key);
    MDB_val data{};
    check(mdb_txn_renew(reader_));
    void* const copy =
        mdb_get(reader_, database_, &name, &data) == 0 ? copy_of(data.mv_data, data.mv_size) : nullptr;
    mdb_txn_reset(reader_);
    return copy;
  }
  void close() {
    mdb_txn_abort(reader_);
    mdb_env_close(environment_);
  }

 private:
  static MDB_val val_of(const std::string& text) { return {text.size(), const_cast<char*>(text.data())}; }
  static void check(int result) { must(result == 0, "LMDB"); }

  MDB_env* environment_ = nullptr;
  MDB_txn* reader_ = nullptr;
  MDB_dbi database_ = 0;
};
#endif

#ifdef HAVE_SQLITE
enum class Journal { kRollback, kWriteAhead, kInMemory };

template <Journal kJournal>
class SqliteStore {
 public:
  void open(const std::string& directory) {
    const std::string path = kJournal == Journal::kInMemory ? ":memory:" : directory + "/sqlite";
    check(sqlite3_open(path.c_str(), &database_));
    // Each put is durable in both modes.
    run("PRAGMA synchronous = FULL");
    if (kJournal == Journal::kWriteAhead) run("PRAGMA journal_mode = WAL");
    run("CREATE TABLE IF NOT EXISTS settings (name TEXT PRIMARY KEY, value BLOB) WITHOUT ROWID");
    prepare("SELECT value FROM settings WHERE name = ?", &select_);
    prepare("INSERT OR REPLACE INTO settings VALUES (?, ?)", &replace_);
  }
  void put(const std::string& key, const std::string& value) {
    bind_name(replace_, key);
    sqlite3_bind_blob(replace_, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    must(sqlite3_step(replace_) == SQLITE_DONE, "sqlite3_step");
    check(sqlite3_reset(replace_));
  }
  void* get(const std::string& key) {
    bind_name(select_, key);
    void* copy = nullptr;
    if (sqlite3_step(select_) == SQLITE_ROW) {
      copy =
          copy_of(sqlite3_column_blob(select_, 0), static_cast<size_t>(sqlite3_column_bytes(select_, 0)));
    }
    check(sqlite3_reset(select_));
    return copy;
  }
  void close() {
    sqlite3_finalize(select_);
    sqlite3_finalize(replace_);
    check(sqlite3_close(database_));
  }

 private:
  static void check(int result) { must(result == SQLITE_OK, "SQLite"); }
  void run(const char* text) { check(sqlite3_exec(database_, text, nullptr, nullptr, nullptr)); }
  void prepare(const char* text, sqlite3_stmt** statement) {
    check(sqlite3_prepare_v2(database_, text, -1, statement, nullptr));
  }
  static void bind_name(sqlite3_stmt* statement, const std::string& key) {
    sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  }

  sqlite3* database_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* replace_ = nullptr;
};
#endif

#ifdef HAVE_TDB
class TdbStore {
 public:
  void open(const std::string& directory) {
    file_ = tdb_open((directory + "/tdb").c_str(), 0, TDB_DEFAULT, O_RDWR | O_CREAT, 0600);
    must(file_ != nullptr, "tdb_open");
  }
  // A store outside a transaction is not synchronised.
  void put(const std::string& key, const std::string& value) {
    must(tdb_transaction_start(file_) == 0, "tdb_transaction_start");
    must(tdb_store(file_, data_of(key), data_of(value), TDB_REPLACE) == 0, "tdb_store");
    must(tdb_transaction_commit(file_) == 0, "tdb_transaction_commit");
  }
  void* get(const std::string& key) { return tdb_fetch(file_, data_of(key)).dptr; }
  void close() { tdb_close(file_); }

 private:
  static TDB_DATA data_of(const std::string& text) {
    return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), text.size()};
  }

  tdb_context* file_ = nullptr;
};
#endif

} // namespace bench

#endif // QUILLCORE_BENCH_STORE_PEERS_H
