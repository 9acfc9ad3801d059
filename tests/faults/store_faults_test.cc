// The store: open, get, put and delete.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <string>

#include "faults/table.h"
#include "kvs/kvstore.h"
#include "kvs/open_store.h"
#include "support/temp_dir.h"

namespace {

using namespace shim;

using Contents = std::map<std::string, std::string>;

constexpr uint32_t kUnindexed = 467;
constexpr char kLong[] = "a value of a longer class than the one before";

struct Store : Operation {
  Store() {
    for (const auto& [key, value] : first) store.put(key, value);
  }
  Contents contents() const {
    Contents found;
    for (const char* key : {"one", "two", "three", "new", "next"}) {
      const Reading reading = store.get(key);
      if (reading.kind == Reading::kValue) found[key] = reading.value;
    }
    return found;
  }
  // The next commit carries to the file whatever an earlier one has missed.
  void expect_works(Contents expected) {
    EXPECT_EQ(0, store.put("next", "last"));
    expected["next"] = "last";
    store.close();
    ASSERT_EQ(0, store.open());
    EXPECT_EQ(expected, contents());
  }

  const Contents first = {{"one", "1"}, {"three", "3"}, {"two", "2"}};
  const TempDir dir;
  const std::string path = dir.file("sub/store");
  // A block is just large enough for the locks, so that they and the lists need one each.
  OpenStore store{path, 64 + qn::kValueTypeCount * sizeof(pthread_rwlock_t)};
};

// Opens a file that is there or is not.
struct Open : Store {
  explicit Open(bool is_new) : expected(is_new ? Contents{} : first) {
    store.close();
    if (is_new) std::filesystem::remove_all(dir.file("sub"));
    bytes = read_file(path);
    exhaust(store.pool());
  }
  int64_t run() override { return store.open(); }
  void check(const Outcome& seen) override {
    EXPECT_EQ(seen.result == 0, store.get() != nullptr);
    if (seen.result != 0) {
      // A file that was there is as it was; one that was made is gone, or a store.
      EXPECT_TRUE(bytes == read_file(path) || bytes.empty());
      ASSERT_EQ(0, store.open());
    }
    EXPECT_EQ(expected.size(), contents().size() + (seen.has(kUnindexed) ? 1 : 0));
    expect_works(expected);
  }

  const Contents expected;
  std::string bytes;
};

struct Change {
  const char* name;
  int32_t (*call)(const OpenStore& store);
  const char* key;
  const char* value; // afterwards; null when it is gone
};

constexpr Change kChanges[] = {
    {"put_new", [](const OpenStore& store) { return store.put("new", "n"); }, "new", "n"},
    {"put_in_place", [](const OpenStore& store) { return store.put("two", "2nd"); }, "two", "2nd"},
    {"put_moved", [](const OpenStore& store) { return store.put("two", kLong); }, "two", kLong},
    {"put_fmt", [](const OpenStore& store) { return store.put_text("new", "42"); }, "new", "42"},
    {"delete", [](const OpenStore& store) { return store.remove("two"); }, "two", nullptr},
};

struct Changing : Store {
  explicit Changing(const Change& made) : change(made) {}
  // The errno that a call leaves which gives 0.
  int64_t run() override { return change.call(store) == 0 ? errno : -1; }
  void check(const Outcome& seen) override {
    Contents after = first;
    if (seen.result >= 0) after.erase(change.key);
    Contents found = after;
    if (seen.result >= 0 && change.value != nullptr) after[change.key] = change.value;
    // A key that could not be indexed is in the file, and found after the next open.
    if (!seen.has(kUnindexed)) found = after;
    EXPECT_EQ(found, contents());
    expect_works(after);
  }

  const Change change;
};

struct Get : Store {
  int64_t run() override { return static_cast<int64_t>((reading = store.get("two")).kind); }
  void check(const Outcome& seen) override {
    EXPECT_EQ(seen.result == Reading::kValue ? "2" : "", reading.value);
    EXPECT_EQ(first, contents());
  }

  Reading reading;
};

} // namespace

std::vector<Row> store_rows() {
  const Make open_new = make<Open>(true), open_old = make<Open>(false);
  const std::vector<Outcome> heap = {{-1, {524, 484}}, {-1, {524, 482}}};
  const std::vector<Outcome> pool = {{-1, {526, 414, 486}}, {-1, {526, 414, 487}}, {0, {526, 414, 466}}};
  const Outcome not_written = {0, {518}};
  std::vector<Row> rows = {
      {"open_new", open_new, "malloc", ENOMEM, heap},
      {"open_new", open_new, "posix_memalign", ENOMEM, pool, kFail, kMore},
      {"open_new", open_new, "stat", EIO, {{-1, {488}, ENOENT}}}, // what may be there is not made anew
      {"open_new", open_new, "fork", EAGAIN, {{-1, {614, 459}, ENOENT}}}, // no directory
      {"open_new", open_new, "waitpid", ECHILD, {{0, {611, 614}}}},
      {"open_new", open_new, "open", EACCES, {{0}, {-1, {459}}}}, // it is looked for first
      {"open_new", open_new, "open", EEXIST, {{0}, {0}}},         // it has come into being in between
      {"open_new", open_new, "ftruncate", EFBIG, {{-1, {460}}, {-1, {461}}}},
      // Before and after the load, then around each of two commits.
      {"open_new", open_new, "lseek", ESPIPE, {{-1, {479}}, {0}, {0, {517}}, {0}, {0, {517}}, {0}}},
      {"open_new", open_new, "read", EIO, {{-1, {480}}}},
      {"open_new", open_new, "read", ENOENT, {{0}}, kShort},
      {"open_new", open_new, "write", ENOSPC, {not_written, not_written}},
      {"open_new", open_new, "fsync", EIO, {{0}, {0}, {0}, {0}}},

      {"open_old", open_old, "malloc", ENOMEM, heap},
      {"open_old", open_old, "posix_memalign", ENOMEM, pool, kFail, kMore},
      {"open_old", open_old, "tsearch", ENOMEM, {{0, {467}}, {0, {467}}, {0, {467}}}},
      {"open_old", open_old, "open", EMFILE, {{-1, {488}}}},
      {"open_old", open_old, "lseek", ESPIPE, {{0}, {-1, {479}}, {0}, {0, {517}}, {0}}},
      {"open_old", open_old, "read", EINTR, {{-1, {463}}, {-1, {480}}}},
      {"open_old", open_old, "read", ENOENT, {{-1, {463}}, {0}}, kShort},
      {"open_old", open_old, "read", ENOENT, {{-1, {463}}, {-1, {480}}}, kNothing},
      {"open_old", open_old, "write", EIO, {not_written}},
      {"open_old", open_old, "fsync", EIO, {{0}, {0}}},

      {"put_fmt", make<Changing>(kChanges[3]), "malloc", ENOMEM, {{-1, {524, 497}}}},
      {"get", make<Get>(), "posix_memalign", ENOMEM, {{Reading::kEmpty, {526, 514}}}},
  };
  // A key that moves leaves the tree before it enters again.
  for (const Change& change : {kChanges[0], kChanges[2]})
    rows.push_back({change.name, make<Changing>(change), "tsearch", ENOMEM, {{0, {kUnindexed}}}});
  // A commit that fails changes no result. The first flush is about an earlier change.
  for (const Change& change : kChanges) {
    const Make changing = make<Changing>(change);
    rows.push_back({change.name, changing, "lseek", ESPIPE, {{ESPIPE, {517}}, {0}}});
    rows.push_back({change.name, changing, "write", ENOSPC, {{ENOSPC, {518}}}});
    rows.push_back({change.name, changing, "write", ENOENT, {{EIO, {518}}}, kShort});
    rows.push_back({change.name, changing, "fsync", EDQUOT, {{0}, {EDQUOT}}});
  }
  return rows;
}
