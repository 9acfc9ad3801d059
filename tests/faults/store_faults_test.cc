// The store: open, get, put and delete.
#include <gtest/gtest.h>
#include <quillcore/store.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>

#include "faults/table.h"
#include "kvs/kvstore.h"
#include "support/temp_dir.h"

namespace {

using namespace shim;

using Contents = std::map<std::string, std::string>;

constexpr uint32_t kUnindexed = 467;
const Contents kFirst = {{"one", "1"}, {"three", "3"}, {"two", "2"}};

// Lends a key to a call.
class Key {
 public:
  explicit Key(const char* text) : text_(text) {}
  const qn_str_t* get() const { return &counted_; }

 private:
  std::string text_;
  qn_str_t counted_ = {static_cast<uint32_t>(text_.size()), text_.data()};
};

int32_t put(kvstore_t* store, const char* key, const std::string& value) {
  return qn_kvs_put(store, Key(key).get(), value.data(), static_cast<uint16_t>(value.size()));
}

struct Store : Operation {
  explicit Store(const Contents& contents) {
    if (contents.empty()) return;
    open();
    for (const auto& [key, value] : contents) put(handle, key.c_str(), value);
  }
  ~Store() override { close(); }

  int32_t open() { return qn_kvs_open(&handle, pool.get(), path.c_str()); }
  void close() {
    qn_kvs_close(handle);
    handle = nullptr;
  }
  Contents contents() const {
    Contents found;
    for (const char* key : {"one", "two", "three", "new", "next"}) {
      void* value = nullptr;
      uint16_t length = 0;
      if (qn_kvs_get(handle, Key(key).get(), &value, &length) != 0) continue;
      found[key].assign(static_cast<char*>(value), length);
      qn_free(value);
    }
    return found;
  }
  // The next commit carries to the file whatever an earlier one has missed.
  void expect_works(Contents expected) {
    EXPECT_EQ(0, put(handle, "next", "last"));
    expected["next"] = "last";
    close();
    ASSERT_EQ(0, open());
    EXPECT_EQ(expected, contents());
  }

  TempDir dir;
  std::string path = dir.file("sub/store");
  // A block is just large enough for the locks, so that they and the lists need one each.
  PoolPtr pool{qn_pool_create(64 + qn::kValueTypeCount * sizeof(pthread_rwlock_t))};
  kvstore_t* handle = nullptr;
};

// Opens a file that is there or is not.
struct Open : Store {
  explicit Open(const Contents& contents) : Store(contents), expected(contents) {
    close();
    bytes = read_file(path);
    exhaust(pool.get());
  }
  int64_t run() override { return open(); }
  void check(const Outcome& seen) override {
    EXPECT_EQ(seen.result == 0, handle != nullptr);
    if (seen.result != 0 && expected.empty()) unlink(path.c_str());
    if (seen.result != 0) {
      EXPECT_EQ(bytes, read_file(path));
      ASSERT_EQ(0, open());
    }
    EXPECT_EQ(expected.size(), contents().size() + (seen.has(kUnindexed) ? 1 : 0));
    expect_works(expected);
  }

  Contents expected;
  std::string bytes;
};

struct Change {
  const char* name;
  int32_t (*call)(kvstore_t* store);
  const char* key;
  const char* value; // afterwards; null when it is gone
};

constexpr char kLong[] = "a value of a longer class than the one before";

constexpr Change kPutNew{"put_new", [](kvstore_t* store) { return put(store, "new", "n"); }, "new", "n"};
constexpr Change kPutInPlace{"put_in_place", [](kvstore_t* store) { return put(store, "two", "second"); },
                             "two", "second"};
constexpr Change kPutMoved{"put_moved", [](kvstore_t* store) { return put(store, "two", kLong); }, "two",
                           kLong};
constexpr Change kPutFmt{
    "put_fmt", [](kvstore_t* store) { return qn_kvs_put_fmt(store, Key("new").get(), "%d", 42); }, "new",
    "42"};
constexpr Change kDelete{
    "delete", [](kvstore_t* store) { return qn_kvs_delete(store, Key("two").get()); }, "two", nullptr};

struct Changing : Store {
  explicit Changing(const Change& made) : Store(kFirst), change(made) {}
  int64_t run() override { return change.call(handle); }
  void check(const Outcome& seen) override {
    Contents after = kFirst;
    if (seen.result == 0) after.erase(change.key);
    Contents found = after;
    if (seen.result == 0 && change.value != nullptr) after[change.key] = change.value;
    // A key that could not be indexed is in the file, and found after the next open.
    if (!seen.has(kUnindexed)) found = after;
    EXPECT_EQ(found, contents());
    expect_works(after);
  }

  Change change;
};

struct Get : Store {
  Get() : Store(kFirst) {}
  int64_t run() override { return qn_kvs_get(handle, Key("two").get(), &value, &length); }
  void check(const Outcome& seen) override {
    EXPECT_EQ(seen.result == 0, value != nullptr);
    EXPECT_EQ(seen.result == 0 ? 1 : 0, length);
    EXPECT_EQ(kFirst, contents());
    if (seen.result == 0) qn_free(value);
  }

  void* value = this;
  uint16_t length = 77;
};

} // namespace

std::vector<Row> store_rows() {
  const Make open_new = make<Open>(Contents{}), open_old = make<Open>(kFirst);
  const Outcome not_written = {0, {518}};
  const std::vector<Outcome> pool = {{-1, {526, 414, 486}}, {-1, {526, 414, 487}}, {0, {526, 414, 466}}};
  std::vector<Row> rows = {
      {"open_new", open_new, "malloc", ENOMEM, {{-1, {524, 484}}, {-1, {524, 482}}}},
      {"open_new", open_new, "posix_memalign", ENOMEM, pool, kFail, kMore},
      {"open_new", open_new, "stat", ENOENT, {{0}}},
      {"open_new", open_new, "stat", EIO, {{-1, {488}, ENOENT}}}, // what may be there is not made anew
      {"open_new", open_new, "fork", EAGAIN, {{-1, {614, 459}, ENOENT}}}, // no directory
      {"open_new", open_new, "execv", ENOENT, {{-1, {459}}}},
      {"open_new", open_new, "waitpid", EINTR, {{0}}},
      {"open_new", open_new, "waitpid", ECHILD, {{0, {611, 614}}}},
      {"open_new", open_new, "open", EACCES, {{0}, {-1, {459}}}}, // it is looked for first
      {"open_new", open_new, "ftruncate", EFBIG, {{-1, {460}}, {-1, {461}}}},
      // Before and after the load, then around each of two commits.
      {"open_new", open_new, "lseek", ESPIPE, {{-1, {479}}, {0}, {0, {517}}, {0}, {0, {517}}, {0}}},
      {"open_new", open_new, "read", EIO, {{-1, {480}}}},
      {"open_new", open_new, "read", 0, {{0}}, kShort},
      {"open_new", open_new, "write", ENOSPC, {not_written, not_written}},
      {"open_new", open_new, "write", 0, {not_written, not_written}, kShort},
      {"open_new", open_new, "fsync", EIO, {{0}, {0}, {0}, {0}}},

      {"open_old", open_old, "malloc", ENOMEM, {{-1, {524, 484}}, {-1, {524, 482}}}},
      {"open_old", open_old, "posix_memalign", ENOMEM, pool, kFail, kMore},
      {"open_old", open_old, "tsearch", ENOMEM, {{0, {467}}, {0, {467}}, {0, {467}}}},
      {"open_old", open_old, "open", EMFILE, {{-1, {488}}}},
      {"open_old", open_old, "lseek", ESPIPE, {{0}, {-1, {479}}, {0}, {0, {517}}, {0}}},
      {"open_old", open_old, "read", EIO, {{-1, {463}}, {-1, {480}}}},
      {"open_old", open_old, "read", EINTR, {{-1, {463}}, {-1, {480}}}},
      {"open_old", open_old, "read", 0, {{-1, {463}}, {0}}, kShort},
      {"open_old", open_old, "read", 0, {{-1, {463}}, {-1, {480}}}, kNothing},
      {"open_old", open_old, "write", EIO, {not_written}},
      {"open_old", open_old, "write", 0, {not_written}, kShort},
      {"open_old", open_old, "fsync", EIO, {{0}, {0}}},

      {"put_new", make<Changing>(kPutNew), "tsearch", ENOMEM, {{0, {467}}}},
      {"put_moved", make<Changing>(kPutMoved), "tsearch", ENOMEM, {{0, {467}}}},
      {"put_fmt", make<Changing>(kPutFmt), "malloc", ENOMEM, {{-1, {524, 497}}}},
      {"get", make<Get>(), "posix_memalign", ENOMEM, {{-1, {526, 514}}}},
  };
  // A commit that fails changes no result.
  for (const Change& change : {kPutNew, kPutInPlace, kPutMoved, kPutFmt, kDelete}) {
    rows.push_back({change.name, make<Changing>(change), "lseek", ESPIPE, {{0, {517}}, {0}}});
    rows.push_back({change.name, make<Changing>(change), "write", ENOSPC, {not_written}});
    rows.push_back({change.name, make<Changing>(change), "write", 0, {not_written}, kShort});
    rows.push_back({change.name, make<Changing>(change), "fsync", EIO, {{0}, {0}}});
  }
  return rows;
}
