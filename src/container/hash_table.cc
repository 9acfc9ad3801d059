// Hash table from texts to pointers: chained, with a fixed number of buckets and one mutex.
#include <quillcore/container.h>
#include <quillcore/thread.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/heap.h"
#include "core/log_record.h"
#include "platform/guards.h"
#include "platform/remainder.h"

namespace {

using qn::Message;
using qn::MutexGuard;

constexpr Message kPrintText{QN_LOG_I, 404, "qn_table", "qn_table_print", "[%s] = %s\n"};
constexpr Message kPrintPointer{QN_LOG_I, 405, "qn_table", "qn_table_print", "[%s] = %p\n"};

// The first prime stands twice and the last row only ends the search: neither is met by it as a size.
constexpr int32_t kPrimes[] = {509, 509, 1021, 2053, 4093, 8191, 16381, 32771, 65521, INT32_MAX};
constexpr uint32_t kPrimeCount = sizeof(kPrimes) / sizeof(kPrimes[0]);

struct Inverses {
  uint32_t of[kPrimeCount] = {};
  constexpr Inverses() {
    for (uint32_t row = 0; row < kPrimeCount; row++)
      of[row] = qn::inverse_of(static_cast<uint32_t>(kPrimes[row]));
  }
};
constexpr Inverses kInverses;

struct qn_table_node_t {
  qn_table_node_t* next;
  char* key; // the table's own copy
  void* value;
  qn_table_free_t free_fn;
  uint32_t hash_value; // spares a look at the keys of a chain's other nodes
};

// The row before the one where the search stops, so large hints get fewer buckets than keys.
uint32_t row_of_size(int32_t hint) {
  uint32_t row = 0;
  while (kPrimes[row + 1] < hint) row++;
  return row;
}

int default_cmp(const char* key, const char* stored_key) { return strcmp(key, stored_key); }

// hash * 33 + byte for each byte, four at a time: the multiplications of one round do not wait for each
// other.
uint32_t default_hash(const char* key) {
  constexpr uint32_t k1 = 33, k2 = k1 * k1, k3 = k2 * k1, k4 = k3 * k1;
  const uint8_t* byte = reinterpret_cast<const uint8_t*>(key);
  uint32_t hash = 0;
  for (;; byte += 4) {
    if (byte[0] == 0) return hash;
    if (byte[1] == 0) return hash * k1 + byte[0];
    if (byte[2] == 0) return hash * k2 + byte[0] * k1 + byte[1];
    if (byte[3] == 0) return hash * k3 + byte[0] * k2 + byte[1] * k1 + byte[2];
    hash = hash * k4 + byte[0] * k3 + byte[1] * k2 + byte[2] * k1 + byte[3];
  }
}

} // namespace

struct qn_table {
  int32_t size;
  qn_table_cmp_t cmp;
  qn_table_hash_t hash;
  int32_t length;
  uint32_t change_count;     // stores and removals, found or not
  qn_table_node_t** buckets; // directly behind this record
  pthread_mutex_t mutex;
  uint32_t inverse; // of the size
};

namespace {

// Where a key hangs or would hang. Under the mutex.
class Place {
 public:
  Place(qn_table_t& table, const char* key) : hash_(table.hash(key)) {
    link_ = &table.buckets[qn::remainder_of(hash_, static_cast<uint32_t>(table.size), table.inverse)];
    bucket_ = link_;
    while (*link_ != nullptr && !matches(table, **link_, key)) link_ = &(*link_)->next;
  }

  qn_table_node_t* node() const { return *link_; }
  uint32_t hash() const { return hash_; }

  void push_front(qn_table_node_t* node) const {
    node->next = *bucket_;
    *bucket_ = node;
  }

  void unlink() const { *link_ = (*link_)->next; }

 private:
  // Equal texts have equal hashes of ours; what functions of the caller's hold equal, only they know.
  bool matches(const qn_table_t& table, const qn_table_node_t& node, const char* key) const {
    if (table.cmp == default_cmp && table.hash == default_hash && node.hash_value != hash_) return false;
    return table.cmp(key, node.key) == 0;
  }

  uint32_t hash_;
  qn_table_node_t** bucket_;
  qn_table_node_t** link_;
};

qn_table_node_t* make_node(const char* key, uint32_t hash) {
  qn::HeapPtr<qn_table_node_t> node = qn::make_heap<qn_table_node_t>();
  if (!node) return nullptr;
  node->key = strdup(key);
  if (node->key == nullptr) return nullptr;
  node->hash_value = hash;
  return node.release();
}

// Under the mutex; the length is read without it.
void add_to_length(qn_table_t& table, int32_t change) {
  __atomic_store_n(&table.length, table.length + change, __ATOMIC_RELAXED);
}

// Calls visit(node) for all nodes, bucket by bucket, the newest of a chain first. `visit` may release it.
template <typename Visit>
void for_each_node(qn_table_t& table, Visit visit) {
  for (int32_t i = 0; i < table.size; i++) {
    for (qn_table_node_t* node = table.buckets[i]; node != nullptr;) {
      qn_table_node_t* const next = node->next;
      visit(*node);
      node = next;
    }
  }
}

} // namespace

qn_table_t* _qn_table_new(int32_t hint, qn_table_cmp_t cmp, qn_table_hash_t hash) {
  if (hint < 0) return nullptr;
  const uint32_t row = row_of_size(hint);
  const int32_t size = kPrimes[row];
  const size_t bytes = sizeof(qn_table_t) + static_cast<size_t>(size) * sizeof(qn_table_node_t*);
  qn_table_t* const table = static_cast<qn_table_t*>(qn_alloc(static_cast<uint32_t>(bytes)));
  if (table == nullptr) return nullptr;
  table->size = size;
  table->inverse = kInverses.of[row];
  table->cmp = cmp != nullptr ? cmp : default_cmp;
  table->hash = hash != nullptr ? hash : default_hash;
  table->buckets = reinterpret_cast<qn_table_node_t**>(table + 1);
  qn_pthread_mutex_init(&table->mutex);
  return table;
}

void* _qn_table_put(qn_table_t* table, const char* key, void* value, qn_table_free_t free_fn) {
  if (table == nullptr || key == nullptr) return nullptr;
  const MutexGuard guard(table->mutex);
  const Place place(*table, key);
  qn_table_node_t* node = place.node();
  void* const earlier = node != nullptr ? node->value : nullptr;
  if (node == nullptr) {
    node = make_node(key, place.hash());
    if (node == nullptr) return nullptr;
    place.push_front(node);
    add_to_length(*table, 1);
  }
  node->value = value;
  node->free_fn = free_fn;
  table->change_count++;
  return earlier;
}

void* qn_table_get(qn_table_t* table, const char* key) {
  if (table == nullptr || key == nullptr) return nullptr;
  const MutexGuard guard(table->mutex);
  const qn_table_node_t* const node = Place(*table, key).node();
  return node != nullptr ? node->value : nullptr;
}

void* qn_table_remove(qn_table_t* table, const char* key) {
  const MutexGuard guard(table->mutex);
  table->change_count++;
  const Place place(*table, key);
  qn_table_node_t* const node = place.node();
  if (node == nullptr) return nullptr;
  void* const value = node->value;
  place.unlink();
  free(node->key);
  qn_free(node);
  add_to_length(*table, -1);
  return value;
}

int32_t qn_table_length(qn_table_t* table) {
  return table != nullptr ? __atomic_load_n(&table->length, __ATOMIC_RELAXED) : 0;
}

void qn_table_map(qn_table_t* table, qn_table_apply_t apply, void* closure) {
  if (table == nullptr) return;
  const MutexGuard guard(table->mutex);
  for_each_node(*table, [&](qn_table_node_t& node) { apply(node.key, &node.value, closure); });
}

void** qn_table_toarray(qn_table_t* table, void* end) {
  if (table == nullptr) return nullptr;
  const uint64_t bytes = (2 * static_cast<uint64_t>(table->length) + 1) * sizeof(void*);
  if (bytes > UINT32_MAX) return nullptr;
  void** const array = static_cast<void**>(qn_alloc(static_cast<uint32_t>(bytes)));
  if (array == nullptr) return nullptr;
  void** place = array;
  for_each_node(*table, [&](qn_table_node_t& node) {
    *place++ = node.key;
    *place++ = node.value;
  });
  *place = end;
  return array;
}

void qn_table_print(qn_table_t* table, int32_t as_text) {
  if (table == nullptr) return;
  for_each_node(*table, [&](qn_table_node_t& node) {
    if (as_text != 0) {
      QN_CONSOLE(kPrintText, node.key,
                 node.value != nullptr ? static_cast<const char*>(node.value) : "(null)");
    } else {
      QN_CONSOLE(kPrintPointer, node.key, node.value);
    }
  });
}

void qn_table_free(qn_table_t** table) {
  if (table == nullptr || *table == nullptr) return;
  // The node goes last: the value's function may still be using the place of its value.
  for_each_node(**table, [](qn_table_node_t& node) {
    free(node.key);
    if (node.free_fn != nullptr) node.free_fn(node.value);
    qn_free(&node);
  });
  pthread_mutex_destroy(&(*table)->mutex);
  qn_free(*table);
}
