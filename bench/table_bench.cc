// A table of texts that threads share: each table here has a mutex, which nobody contends for.
#include <pthread.h>
#include <quillcore/container.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench_support.h"

#if __has_include(<uthash.h>)
#define HAVE_UTHASH
#include <uthash.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr size_t kFew = 500;
constexpr size_t kSome = 5000;
constexpr size_t kMany = 50000;

// The limit: one array, sought from the hash on, in which each place holds hash, key and value.
class OpenAddressing {
 public:
  explicit OpenAddressing(size_t expected) {
    size_t size = 1;
    while (size < 2 * expected) size *= 2;
    mask_ = size - 1;
    places_.resize(size);
  }
  ~OpenAddressing() {
    for (Place& place : places_) free(place.key);
  }

  void* get(const char* key) {
    const uint32_t hashed = hash(key);
    const Guard guard(mutex_);
    const Place& place = find(key, hashed);
    return place.key != nullptr ? place.value : nullptr;
  }

  void put(const char* key, void* value) {
    const uint32_t hashed = hash(key);
    const Guard guard(mutex_);
    Place& place = find(key, hashed);
    if (place.key == nullptr) place = {hashed, strdup(key), nullptr};
    place.value = value;
  }

  // What follows in the run moves up, so that no search ends too early.
  void remove(const char* key) {
    const uint32_t hashed = hash(key);
    const Guard guard(mutex_);
    Place* hole = &find(key, hashed);
    if (hole->key == nullptr) return;
    free(hole->key);
    size_t at = static_cast<size_t>(hole - places_.data());
    for (size_t next = (at + 1) & mask_; places_[next].key != nullptr; next = (next + 1) & mask_) {
      const size_t home = places_[next].hash & mask_;
      if (((next - home) & mask_) < ((next - at) & mask_)) continue;
      places_[at] = places_[next];
      at = next;
    }
    places_[at] = {};
  }

 private:
  struct Place {
    uint32_t hash = 0;
    char* key = nullptr;
    void* value = nullptr;
  };
  class Guard {
   public:
    explicit Guard(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~Guard() { pthread_mutex_unlock(&mutex_); }

   private:
    pthread_mutex_t& mutex_;
  };

  // Eight bytes a round.
  static uint32_t hash(const char* key) {
    size_t left = strlen(key);
    uint64_t state = left * 0x9E3779B97F4A7C15u;
    while (left > 0) {
      uint64_t word = 0;
      const size_t take = std::min(left, sizeof(word));
      if (take == sizeof(word)) {
        memcpy(&word, key, sizeof(word));
      } else {
        for (size_t i = 0; i < take; i++) word = word << 8 | static_cast<uint8_t>(key[i]);
      }
      state = (state ^ word) * 0xD6E8FEB86659FD93u;
      state ^= state >> 32;
      key += take;
      left -= take;
    }
    return static_cast<uint32_t>(state);
  }

  Place& find(const char* key, uint32_t hashed) {
    size_t at = hashed & mask_;
    while (places_[at].key != nullptr &&
           (places_[at].hash != hashed || strcmp(places_[at].key, key) != 0)) {
      at = (at + 1) & mask_;
    }
    return places_[at];
  }

  std::vector<Place> places_;
  size_t mask_ = 0;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class Ours {
 public:
  explicit Ours(size_t expected)
      : table_(_qn_table_new(static_cast<int32_t>(expected), nullptr, nullptr)) {
    bench::must(table_ != nullptr, "_qn_table_new");
  }
  ~Ours() { qn_table_free(&table_); }
  void* get(const char* key) { return qn_table_get(table_, key); }
  void put(const char* key, void* value) { _qn_table_put(table_, key, value, nullptr); }
  void remove(const char* key) { qn_table_remove(table_, key); }

 private:
  qn_table_t* table_;
};

// Looked up by the caller's text, without a string made of it.
class UnorderedMap {
 public:
  explicit UnorderedMap(size_t expected) { map_.reserve(expected); }
  void* get(const char* key) {
    const std::lock_guard guard(mutex_);
    const auto found = map_.find(key);
    return found != map_.end() ? found->second : nullptr;
  }
  void put(const char* key, void* value) {
    const std::lock_guard guard(mutex_);
    const auto found = map_.find(key);
    if (found != map_.end()) {
      found->second = value;
    } else {
      map_.emplace(key, value);
    }
  }
  void remove(const char* key) {
    const std::lock_guard guard(mutex_);
    const auto found = map_.find(key);
    if (found != map_.end()) map_.erase(found);
  }

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  std::unordered_map<std::string, void*, Hash, std::equal_to<>> map_;
  std::mutex mutex_;
};

#ifdef HAVE_UTHASH
// The macros convert and shadow as C does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wimplicit-fallthrough"
class Uthash {
 public:
  explicit Uthash(size_t) {}
  ~Uthash() {
    Node* next = nullptr;
    for (Node* node = nodes_; node != nullptr; node = next) {
      next = static_cast<Node*>(node->hh.next);
      HASH_DEL(nodes_, node);
      release(node);
    }
  }
  void* get(const char* key) {
    const std::lock_guard guard(mutex_);
    Node* node = nullptr;
    HASH_FIND_STR(nodes_, key, node);
    return node != nullptr ? node->value : nullptr;
  }
  void put(const char* key, void* value) {
    const std::lock_guard guard(mutex_);
    Node* node = nullptr;
    HASH_FIND_STR(nodes_, key, node);
    if (node == nullptr) {
      node = static_cast<Node*>(malloc(sizeof(Node)));
      node->key = strdup(key);
      HASH_ADD_KEYPTR(hh, nodes_, node->key, strlen(node->key), node);
    }
    node->value = value;
  }
  void remove(const char* key) {
    const std::lock_guard guard(mutex_);
    Node* node = nullptr;
    HASH_FIND_STR(nodes_, key, node);
    if (node == nullptr) return;
    HASH_DEL(nodes_, node);
    release(node);
  }

 private:
  struct Node {
    char* key;
    void* value;
    UT_hash_handle hh;
  };
  static void release(Node* node) {
    free(node->key);
    free(node);
  }
  Node* nodes_ = nullptr;
  std::mutex mutex_;
};
#pragma GCC diagnostic pop
#endif

#ifdef HAVE_GLIB
class GHash {
 public:
  explicit GHash(size_t) : table_(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)) {}
  ~GHash() { g_hash_table_destroy(table_); }
  void* get(const char* key) {
    const std::lock_guard guard(mutex_);
    return g_hash_table_lookup(table_, key);
  }
  void put(const char* key, void* value) {
    const std::lock_guard guard(mutex_);
    g_hash_table_insert(table_, g_strdup(key), value);
  }
  void remove(const char* key) {
    const std::lock_guard guard(mutex_);
    g_hash_table_remove(table_, key);
  }

 private:
  GHashTable* table_;
  std::mutex mutex_;
};
#endif

// Keys as a daemon has them, in an order that no prefetcher guesses: for another `seed` another one,
// since what was put in one order lies in the heap in that order. The same in every run.
std::vector<std::string> make_keys(size_t count, const char* prefix, uint32_t seed) {
  std::vector<std::string> keys;
  for (size_t i = 0; i < count; i++) keys.push_back(prefix + std::to_string(i) + ".rssi");
  std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
  return keys;
}

constexpr uint32_t kPutOrder = 7;
constexpr uint32_t kAskOrder = 11;

char g_value;

template <typename Table>
void fill(Table& table, const std::vector<std::string>& keys) {
  for (const std::string& key : keys) table.put(key.c_str(), &g_value);
}

template <typename Table>
void measure_get(benchmark::State& state, size_t count, bool present) {
  const std::vector<std::string> asked = make_keys(count, present ? "station." : "antenna.", kAskOrder);
  Table table(count);
  fill(table, make_keys(count, "station.", kPutOrder));
  bench::must((table.get(asked[0].c_str()) != nullptr) == present, "get");
  size_t at = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.get(asked[at].c_str()));
    if (++at == count) at = 0;
  }
}

template <typename Table>
void measure_put_known(benchmark::State& state, size_t count) {
  const std::vector<std::string> keys = make_keys(count, "station.", kAskOrder);
  Table table(count);
  fill(table, make_keys(count, "station.", kPutOrder));
  size_t at = 0;
  for (auto _ : state) {
    table.put(keys[at].c_str(), &state);
    if (++at == count) at = 0;
  }
}

// A batch fills an empty table, or empties a full one; what lies between two batches is not measured.
template <typename Table>
void measure_put_new(benchmark::State& state) {
  const std::vector<std::string> keys = make_keys(kFew, "station.", kPutOrder);
  Table table(kFew);
  while (state.KeepRunningBatch(kFew)) {
    for (const std::string& key : keys) table.put(key.c_str(), &g_value);
    state.PauseTiming();
    for (const std::string& key : keys) table.remove(key.c_str());
    state.ResumeTiming();
  }
}

template <typename Table>
void measure_remove(benchmark::State& state) {
  const std::vector<std::string> put = make_keys(kFew, "station.", kPutOrder);
  const std::vector<std::string> removed = make_keys(kFew, "station.", kAskOrder);
  Table table(kFew);
  fill(table, put);
  while (state.KeepRunningBatch(kFew)) {
    for (const std::string& key : removed) table.remove(key.c_str());
    state.PauseTiming();
    fill(table, put);
    state.ResumeTiming();
  }
}

template <typename Table>
void add_table(const char* who) {
  const struct {
    const char* operation;
    size_t count;
    bool present;
  } gets[] = {{"table get, 500 keys", kFew, true},
              {"table get, 5000 keys", kSome, true},
              {"table get, 50000 keys", kMany, true},
              {"table get absent, 500 keys", kFew, false},
              {"table get absent, 50000 keys", kMany, false}};
  for (const auto& row : gets) {
    bench::add(row.operation, who,
               [row](benchmark::State& state) { measure_get<Table>(state, row.count, row.present); });
  }
  bench::add("table put, known of 500", who,
             [](benchmark::State& state) { measure_put_known<Table>(state, kFew); });
  bench::add("table put, known of 50000", who,
             [](benchmark::State& state) { measure_put_known<Table>(state, kMany); });
  bench::add("table put, new key", who, measure_put_new<Table>);
  bench::add("table remove", who, measure_remove<Table>);
}

} // namespace

void bench::register_all() {
  add_table<OpenAddressing>("limit");
  add_table<Ours>("ours");
  add_table<UnorderedMap>("unordered_map");
#ifdef HAVE_UTHASH
  add_table<Uthash>("uthash");
#endif
#ifdef HAVE_GLIB
  add_table<GHash>("GHashTable");
#endif
}
