// Map of short texts: a singly linked list with fixed-size fields and one mutex.
//
// The first node ever linked stays at the head; every later one goes directly behind it. So a map filled
// with a, b, c, d reads a, d, c, b.
//
// The mutex covers links, walks and the bytes of a value that is set anew. Nothing is allocated, logged
// or freed under it: an allocation logs, and the gates of that record may read this very map.
#ifndef QN_CONTAINER_STRING_MAP_H
#define QN_CONTAINER_STRING_MAP_H

#include <pthread.h>
#include <quillcore/container.h>

#include <cstddef>
#include <cstdint>

#include "platform/guards.h"

constexpr size_t QN_MAP_KEY_SIZE = 64;
constexpr size_t QN_MAP_VALUE_SIZE = 256;

struct qn_map_node_t {
  char key[QN_MAP_KEY_SIZE];
  char value[QN_MAP_VALUE_SIZE];
  qn_map_node_t* next;
};

struct qn_map {
  qn_map_node_t* head;
  pthread_mutex_t lock;
};

// An empty map, or null (logged).
qn_map_t* qn_map_new();

// An empty node that is linked nowhere, or null (logged).
qn_map_node_t* qn_map_node_new();

// Links a node into the map, which owns it from then on.
void qn_map_link(qn_map_node_t* node, qn_map_t* map);

// Sets a value. An existing key takes 254 bytes and keeps its place; its old value is gone when the new
// one does not fit. A new key takes 63 bytes and its value 255. Two threads that set one new key at once
// can link it twice. Returns 0; -1 when a text does not fit; -2 when memory is short.
int32_t qn_map_set(const char* key, const char* value, qn_map_t* map);

// Removes the first node with the key. Returns 0; -1 if there is none; -2 for a null map.
int32_t qn_map_remove(const char* key, qn_map_t* map);

namespace qn {

// Copies the value under the lock; false for an absent key and a null map.
bool map_copy_value(const char* key, qn_map_t* map, char (&value)[QN_MAP_VALUE_SIZE]);

// Calls visit(node) for each node, under the lock.
template <typename Visit>
void map_walk(qn_map_t* map, Visit visit) {
  if (map == nullptr) return;
  const MutexGuard guard(map->lock);
  for (const qn_map_node_t* node = map->head; node != nullptr; node = node->next) visit(*node);
}

} // namespace qn

#endif // QN_CONTAINER_STRING_MAP_H
