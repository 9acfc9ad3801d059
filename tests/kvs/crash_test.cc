// What a change leaves in the file when the machine stops in the middle of its write, and what a creation
// leaves that never gets to write.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "support/temp_dir.h"

// The linker leads the library's calls here.
extern "C" {
ssize_t __real_write(int fd, const void* bytes, size_t count);
int __real_fsync(int fd);
ssize_t __wrap_write(int fd, const void* bytes, size_t count);
int __wrap_fsync(int fd);
}

namespace {

constexpr size_t kFileSize = StoreModel::kFileSize;

std::string* g_calls = nullptr; // where calls are noted, if anywhere
bool g_is_full = false;         // whether the file system has no room for a store

} // namespace

ssize_t __wrap_write(int fd, const void* bytes, size_t count) {
  if (g_calls != nullptr) {
    *g_calls += "write " + std::to_string(count) + " at " + std::to_string(lseek(fd, 0, SEEK_CUR)) + "; ";
  }
  if (!g_is_full || count != kFileSize) return __real_write(fd, bytes, count);
  errno = ENOSPC;
  return -1;
}

int __wrap_fsync(int fd) {
  if (g_calls != nullptr) *g_calls += "fsync; ";
  return __real_fsync(fd);
}

namespace {

// Bytes that tell their place, so that a piece at a wrong one is noticed.
std::string value_of(size_t length, size_t seed) {
  std::string value(length, '\0');
  for (size_t i = 0; i < length; i++)
    value[i] = static_cast<char>('!' + (i * 31 + i / 90 + seed * 7) % 90);
  return value;
}

// What the other tests of this file build on.
TEST(StoreCommit, IsOneWriteOfTheWholeFileBetweenTwoFlushes) {
  const GateAt quiet(0);
  const TempDir dir;
  const OpenStore store(dir.file("store"));
  constexpr char kOneCommit[] = "fsync; write 131072 at 0; fsync; ";
  std::string calls;
  g_calls = &calls;
  const auto calls_of = [&calls](int32_t result) {
    EXPECT_EQ(0, result);
    return std::exchange(calls, "");
  };
  EXPECT_EQ(kOneCommit, calls_of(store.put("key", "new")));
  EXPECT_EQ(kOneCommit, calls_of(store.put("key", "in place")));
  EXPECT_EQ(kOneCommit, calls_of(store.put("key", value_of(500, 0))));
  EXPECT_EQ(kOneCommit, calls_of(store.remove("key")));
  EXPECT_EQ(kOneCommit, calls_of(OpenStore(dir.file("store")).result()));
  EXPECT_EQ("", calls_of(store.remove("key") + store.put("key", value_of(2046, 0)) + 2));
  g_calls = nullptr;
}

constexpr size_t kLengths[] = {20, 50, 100, 200, 400, 1000, 2000}; // one in each class
constexpr size_t kSector = 512; // what a disk writes whole or not at all
constexpr char kTouched[] = "touched";

std::string neighbour(size_t type) { return "neighbour" + std::to_string(type); }

void expect_neighbours(const OpenStore& store) {
  for (size_t i = 0; i < 7; i++) {
    EXPECT_EQ((Reading{Reading::kValue, value_of(kLengths[i], 50 + i)}), store.get(neighbour(i)));
  }
}

struct Change {
  const char* what;
  size_t before; // length of the touched key's value before the change, 0: absent
  size_t after;  // and after it
  bool reused;   // the slots that the change can take have been in use before
  // What the opens after ever later cuts find, each outcome once:
  // A absent, O the old value, E length 0, P what the slot held before, N the new value, M the new one's
  // first bytes and those of the slot's former content behind. Small letters: both entries are busy.
  const char* outcomes;
};

class Crash {
 public:
  // Makes the file as it is before and after the change.
  explicit Crash(const Change& change)
      : path_(dir_.file("store")),
        old_value_(value_of(change.before, 1)),
        new_value_(value_of(change.after, 2)) {
    {
      const OpenStore store(path_);
      for (size_t i = 0; i < 7; i++) store.put(neighbour(i), value_of(kLengths[i], 50 + i));
      if (change.before != 0) store.put(kTouched, old_value_);
      for (size_t i = 0; i < 7 && change.reused; i++) {
        store.put("former", value_of(kLengths[i] - 5, 20 + i));
        store.remove("former");
      }
    }
    const OpenStore store(path_); // the free slots queue up from the first one again
    before_ = read_file(path_);
    EXPECT_EQ(0, change.after == 0 ? store.remove(kTouched) : store.put(kTouched, new_value_));
    after_ = read_file(path_);
    for (const uint32_t entry : busy_entries(after_))
      former_ = before_.substr(StoreModel::slot_offset(entry), 2 + StoreModel::kValueMax);
  }

  // The outcomes of all cuts in order; checks on the way that everything can be done with each cut file.
  std::string outcomes() const {
    std::string found(1, outcome(before_));
    for (size_t cut = kSector; cut <= after_.size(); cut += kSector) {
      if (before_.compare(cut - kSector, kSector, after_, cut - kSector, kSector) == 0) continue;
      const char letter = outcome(after_.substr(0, cut) + before_.substr(cut));
      if (letter != found.back()) found += letter;
    }
    return found;
  }

 private:
  char outcome(const std::string& file) const {
    const bool both = busy_entries(file).size() > 1;
    char found = '?';
    write_file(path_, file);
    {
      const OpenStore store(path_);
      EXPECT_EQ(0, store.result());
      expect_neighbours(store);
      found = letter(store.get(kTouched));
      for (const size_t length : kLengths) {
        EXPECT_EQ(0, store.put(kTouched, value_of(length, 3)));
        EXPECT_EQ((Reading{Reading::kValue, value_of(length, 3)}), store.get(kTouched));
      }
      EXPECT_EQ(0, store.remove(kTouched));
      EXPECT_EQ('A', letter(store.get(kTouched)));
    }
    for (const char expected : {both ? 'O' : 'A', 'A'}) {
      const OpenStore store(path_);
      expect_neighbours(store);
      EXPECT_EQ(expected, letter(store.get(kTouched)));
      EXPECT_EQ(expected == 'A' ? -1 : 0, store.remove(kTouched));
    }
    return both ? static_cast<char>(tolower(found)) : found;
  }

  // Those of the touched key.
  static std::vector<uint32_t> busy_entries(const std::string& file) {
    std::vector<uint32_t> found;
    for (uint32_t i = 0; i < StoreModel::kKeys; i++) {
      const char* const entry = &file[StoreModel::entry_offset(i)];
      if (entry[32] != 0 && strcmp(entry, kTouched) == 0) found.push_back(i);
    }
    return found;
  }

  char letter(const Reading& reading) const {
    if (reading.kind == Reading::kNothing) return 'A';
    if (reading.kind == Reading::kEmpty) return 'E';
    const std::string& value = reading.value;
    if (value == new_value_) return 'N';
    if (value == old_value_) return 'O';
    const size_t length =
        static_cast<unsigned char>(former_[0]) + 256u * static_cast<unsigned char>(former_[1]);
    if (value == former_.substr(2, length)) return 'P';
    if (value.size() != new_value_.size() || value[0] != new_value_[0]) return '?';
    size_t common = 1;
    while (value[common] == new_value_[common]) common++;
    return value.substr(common) == former_.substr(2 + common, value.size() - common) ? 'M' : '?';
  }

  const TempDir dir_;
  const std::string path_, old_value_, new_value_;
  std::string before_, after_, former_ = {0, 0}; // the file; what the slot held before the change
};

TEST(StoreCrash, LeavesTheOtherKeysAndOneOfTheNamedOutcomes) {
  const GateAt quiet(0);
  const Change rows[] = {
      {"new key, one sector", 0, 20, false, "AEN"},
      {"new key, two sectors", 0, 1000, false, "AEMN"},
      {"new key in a used slot", 0, 20, true, "APN"},
      {"new key in a used slot of four sectors", 0, 2000, true, "APMN"},
      {"in place, one sector", 20, 10, false, "ON"},
      {"longer in place", 600, 1000, false, "OMN"},
      {"shorter in place", 1000, 600, false, "OMN"},
      {"to a longer class", 20, 50, false, "OAEN"},
      {"to a longer class, used slot", 50, 2000, true, "OAPMN"},
      {"to a shorter class", 2000, 1000, false, "OeEMN"},
      {"to a shorter class, used slot", 1000, 20, true, "OpPN"},
      {"delete", 1000, 0, false, "OA"},
  };
  for (const Change& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.outcomes, Crash(row).outcomes());
  }
}

// What no commit has given its magic goes with its store, unless it is another's.
TEST(StoreCreation, LeavesNoFileThatEveryLaterOpenRefuses) {
  const GateAt quiet(0);
  const struct {
    const char *what, *link_to;
    void (*meanwhile)(const std::string& path);
    bool is_left;
  } rows[] = {
      {"its own", nullptr, [](const std::string&) {}, false},
      {"behind a link", "other", [](const std::string&) {}, false},
      {"replaced", nullptr,
       [](const std::string& path) { std::filesystem::remove(path), write_file(path, ""); }, true},
      {"filled", nullptr, [](const std::string& path) { write_file(path, StoreModel().image()); }, true},
  };
  for (const auto& row : rows) {
    const TempDir dir;
    const std::string path = dir.file("store");
    if (row.link_to != nullptr) std::filesystem::create_symlink(row.link_to, path);
    g_is_full = true;
    {
      const OpenStore store(path);
      EXPECT_EQ(0, store.result()) << row.what;
      row.meanwhile(path);
    }
    g_is_full = false;
    EXPECT_EQ(row.is_left, std::filesystem::exists(path)) << row.what;
  }
}

} // namespace
