// The store with 100 keys: get, put, open and close, on tmpfs and on disk.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "store_peers.h"

namespace {

using namespace bench;

struct Setting {
  std::string key;
  std::string value;
};

// How the 100 keys spread over value sizes. The longest class has room for eight.
constexpr struct {
  size_t size;
  uint32_t count;
} kSpread[] = {{16, 32}, {100, 28}, {200, 32}, {1500, 8}};
constexpr uint32_t kKeys = 100;

constexpr size_t kMeasuredSizes[] = {16, 200, 1500};
constexpr size_t kPutSize = 200;
constexpr size_t kTurns = 4096; // a power of two

std::string key_name(uint32_t number) {
  static const char* const kFamilies[] = {"wireless.radio0", "wireless.radio1", "network.lan", "dhcp.lan",
                                          "firewall.zone"};
  return std::string(kFamilies[number % 5]) + ".option" + std::to_string(number / 5);
}

// All keys, in an order that is neither that of their names nor that of their sizes.
const std::vector<Setting>& settings() {
  static const std::vector<Setting> all = [] {
    std::vector<Setting> made(kKeys);
    uint32_t number = 0;
    for (const auto& row : kSpread) {
      for (uint32_t i = 0; i < row.count; i++, number++) {
        made[number * 37 % kKeys] = {key_name(number * 61 % kKeys),
                                     std::string(row.size, static_cast<char>('a' + i % 26))};
      }
    }
    return made;
  }();
  return all;
}

std::vector<Setting> settings_of(size_t size) {
  std::vector<Setting> found;
  for (const Setting& setting : settings()) {
    if (setting.value.size() == size) found.push_back(setting);
  }
  return found;
}

// Indexes below `count` in an order too long to be learnt by a processor that predicts branches: a daemon
// does not ask for its settings in turn. The same order in every run.
std::vector<uint8_t> shuffled_turns(size_t count) {
  std::vector<uint8_t> turns(kTurns);
  uint32_t state = 1;
  for (uint8_t& turn : turns) {
    state = state * 1664525u + 1013904223u;
    turn = static_cast<uint8_t>((state >> 16u) % count);
  }
  return turns;
}

std::string tmpfs() { return "/dev/shm"; }

std::string disk() {
  const char* const named = getenv("TMPDIR");
  return named != nullptr ? named : "/var/tmp";
}

// A directory with the files of a store that holds all keys, made by the store itself where they are
// measured: a copy lies on the disk, and in the memory of the kernel, as no user's file does.
template <typename Store>
class FilledDirectory {
 public:
  explicit FilledDirectory(const std::string& parent) : directory_(parent) {
    Store store;
    store.open(directory_.path());
    for (const Setting& setting : settings()) store.put(setting.key, setting.value);
    store.close();
  }
  const std::string& path() const { return directory_.path(); }

 private:
  TemporaryDirectory directory_;
};

// One for all benchmarks of the process, which measure it in turn.
template <typename Store>
const std::string& filled_directory(const std::string& parent) {
  static std::map<std::string, FilledDirectory<Store>> made;
  return made.try_emplace(parent, parent).first->second.path();
}

template <typename Store>
void get(benchmark::State& state, const std::vector<Setting>& wanted) {
  // Not from files: a map and an in-memory database keep nothing there.
  const TemporaryDirectory directory(tmpfs());
  Store store;
  store.open(directory.path());
  for (const Setting& setting : settings()) store.put(setting.key, setting.value);
  for (const Setting& setting : wanted) {
    void* const value = store.get(setting.key);
    must((value != nullptr) != setting.value.empty(), "get");
    must(value == nullptr || memcmp(value, setting.value.data(), setting.value.size()) == 0, "compare");
    free(value);
  }

  const std::vector<uint8_t> turns = shuffled_turns(wanted.size());
  size_t turn = 0;
  for (auto _ : state) {
    void* value = store.get(wanted[turns[turn++ % kTurns]].key);
    benchmark::DoNotOptimize(value);
    free(value);
  }
  store.close();
}

template <typename Store>
void put(benchmark::State& state, const std::string& parent) {
  std::vector<Setting> changed = settings_of(kPutSize);
  Store store;
  store.open(filled_directory<Store>(parent));

  size_t turn = 0;
  for (auto _ : state) {
    Setting& setting = changed[turn % changed.size()];
    memcpy(setting.value.data(), &turn, sizeof(turn));
    turn++;
    store.put(setting.key, setting.value);
  }
  store.close();
}

template <typename Store>
void open_and_close(benchmark::State& state, const std::string& parent) {
  const std::string& directory = filled_directory<Store>(parent);
  Store store;
  for (auto _ : state) {
    store.open(directory);
    store.close();
  }
}

template <typename Store>
void add_get(const std::string& who) {
  for (const size_t size : kMeasuredSizes) {
    add("get " + std::to_string(size), who,
        [wanted = settings_of(size)](benchmark::State& state) { get<Store>(state, wanted); });
  }
  // One key, asked for again and again, as an optional setting is.
  add("get absent", who, [](benchmark::State& state) {
    get<Store>(state, {{"network.lan.option7x", ""}});
  });
}

template <typename Store>
void add_put(const std::string& who) {
  add("put tmpfs", who, [](benchmark::State& state) { put<Store>(state, tmpfs()); });
  add("put disk", who, [](benchmark::State& state) { put<Store>(state, disk()); });
}

template <typename Store>
void add_open(const std::string& who) {
  add("open and close tmpfs", who,
      [](benchmark::State& state) { open_and_close<Store>(state, tmpfs()); });
  add("open and close disk", who, [](benchmark::State& state) { open_and_close<Store>(state, disk()); });
}

} // namespace

void bench::register_all() {
  add_get<MapStore>("limit");
  add_get<OurStore>("ours");
  add_put<ImageStore>("limit");
  add_put<OurStore>("ours");
  add_open<ImageStore>("limit");
  add_open<OurStore>("ours");
#ifdef HAVE_GDBM
  add_get<GdbmStore>("gdbm");
  add_open<GdbmStore>("gdbm");
#endif
#ifdef HAVE_LMDB
  add_get<LmdbStore>("LMDB");
  add_put<LmdbStore>("LMDB");
  add_open<LmdbStore>("LMDB");
#endif
#ifdef HAVE_SQLITE
  add_get<SqliteStore<Journal::kInMemory>>("SQLite");
  add_put<SqliteStore<Journal::kWriteAhead>>("SQLite WAL");
  add_put<SqliteStore<Journal::kRollback>>("SQLite");
  add_open<SqliteStore<Journal::kRollback>>("SQLite");
#endif
#ifdef HAVE_TDB
  add_put<TdbStore>("tdb");
  add_open<TdbStore>("tdb");
#endif
}
