// Map of short texts.
#include "container/string_map.h"

#include <cstring>

#include "core/heap.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"

namespace {

using qn::Message;
using qn::MutexGuard;

constexpr Message kNodeFailed{QN_LOG_E, 0, "qn_map", "qn_map_node_new", "malloc map node failed."};
constexpr Message kMapFailed{QN_LOG_E, 0, "qn_map", "qn_map_new", "malloc failed."};

// One byte less than a new node's value takes.
constexpr size_t kUpdateSize = QN_MAP_VALUE_SIZE - 1;

bool has_key(const qn_map_node_t& node, const char* key) {
  return strncmp(node.key, key, QN_MAP_KEY_SIZE) == 0;
}

// Under the lock.
qn_map_node_t* find(const qn_map_t& map, const char* key) {
  qn_map_node_t* node = map.head;
  while (node != nullptr && !has_key(*node, key)) node = node->next;
  return node;
}

qn_map_node_t* unlink_node(qn_map_t& map, const char* key) {
  const MutexGuard guard(map.lock);
  for (qn_map_node_t** link = &map.head; *link != nullptr; link = &(*link)->next) {
    qn_map_node_t* const node = *link;
    if (!has_key(*node, key)) continue;
    *link = node->next;
    return node;
  }
  return nullptr;
}

// Whether the key is there; its value is set then, and `result` says whether it fitted.
bool update(qn_map_t& map, const char* key, const char* value, int32_t* result) {
  const MutexGuard guard(map.lock);
  qn_map_node_t* const node = find(map, key);
  if (node == nullptr) return false;
  memset_s(node->value, sizeof(node->value), 0, sizeof(node->value));
  *result = strncpy_s(node->value, kUpdateSize, value, kUpdateSize) == 0 ? 0 : -1;
  return true;
}

} // namespace

qn_map_t* qn_map_new() {
  qn_map_t* const map = qn::make_heap<qn_map_t>().release();
  if (map == nullptr) return QN_FAIL(nullptr, kMapFailed);
  pthread_mutex_init(&map->lock, nullptr);
  return map;
}

qn_map_node_t* qn_map_node_new() {
  qn_map_node_t* const node = qn::make_heap<qn_map_node_t>().release();
  if (node == nullptr) QN_LOG(kNodeFailed);
  return node;
}

void qn_map_link(qn_map_node_t* node, qn_map_t* map) {
  const MutexGuard guard(map->lock);
  qn_map_node_t** const link = map->head == nullptr ? &map->head : &map->head->next;
  node->next = *link;
  *link = node;
}

int32_t qn_map_set(const char* key, const char* value, qn_map_t* map) {
  int32_t result = 0;
  if (update(*map, key, value, &result)) return result;

  qn::HeapPtr<qn_map_node_t> node(qn_map_node_new());
  if (!node) return -2;
  if (strncpy_s(node->key, QN_MAP_KEY_SIZE, key, QN_MAP_KEY_SIZE) != 0) return -1;
  if (strncpy_s(node->value, QN_MAP_VALUE_SIZE, value, QN_MAP_VALUE_SIZE) != 0) return -1;
  qn_map_link(node.release(), map);
  return 0;
}

int32_t qn_map_remove(const char* key, qn_map_t* map) {
  if (map == nullptr) return -2;
  const qn::HeapPtr<qn_map_node_t> node(unlink_node(*map, key));
  return node ? 0 : -1;
}

bool qn::map_copy_value(const char* key, qn_map_t* map, char (&value)[QN_MAP_VALUE_SIZE]) {
  if (map == nullptr) return false;
  const MutexGuard guard(map->lock);
  const qn_map_node_t* const node = find(*map, key);
  return node != nullptr && strcpy_s(value, sizeof(value), node->value) == 0;
}

const char* qn_map_get(const char* key, qn_map_t* map) {
  if (key == nullptr || map == nullptr) return nullptr;
  const MutexGuard guard(map->lock);
  const qn_map_node_t* const node = find(*map, key);
  return node != nullptr ? node->value : nullptr;
}

void qn_map_free(qn_map_t* map) {
  if (map == nullptr) return;
  for (qn_map_node_t* node = map->head; node != nullptr;) {
    qn_map_node_t* const next = node->next;
    qn_free(node);
    node = next;
  }
  pthread_mutex_destroy(&map->lock);
  qn_free(map);
}
