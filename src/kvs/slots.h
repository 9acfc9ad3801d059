// The slots of an open store: the nodes that stand for them, on the lists where they wait, and the bytes
// in them. A list's spinlock is held inside; the read-write lock of a slot's class is the caller's to
// hold.
#ifndef QN_KVS_SLOTS_H
#define QN_KVS_SLOTS_H

#include "kvs/kvstore.h"
#include "platform/bounded_string.h"

namespace qn {

// Unlinks the node that has been free for the longest time, or null where the class is full.
kvs_node_t* take_free_node(kvstore_t& store, uint8_t value_type);

// Unlinks the node of a busy entry, or null where it has none.
kvs_node_t* take_busy_node(kvstore_t& store, uint8_t value_type, uint32_t key_index);

void append_free_node(kvstore_t& store, kvs_node_t& node);
void append_busy_node(kvstore_t& store, kvs_node_t& node);

inline uint8_t* slot_of(const kvstore_t& store, const kvs_key_entry_t& entry) {
  return value_slot(store.db_addr, entry.value_type, entry.value_index());
}

// Leaves the slot all zero but for the length of the value to come.
inline void clear_slot(uint8_t* slot, const kvs_value_type_t& type, uint16_t value_len) {
  memset_s(slot, type.slot_size, 0, type.slot_size);
  write_value_len(slot, value_len);
}

// Puts a value in, behind its length. Returns 0, or not 0 for a null value.
inline int fill_slot(uint8_t* slot, const kvs_value_type_t& type, const void* value, uint16_t value_len) {
  return memcpy_s(slot + kValueLenSize, type.value_size_max(), value, value_len);
}

} // namespace qn

#endif // QN_KVS_SLOTS_H
