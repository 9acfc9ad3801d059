// The lists on which nodes wait.
#include "kvs/slots.h"

#include "platform/guards.h"

namespace qn {
namespace {

kvs_node_t& node_of_link(ListLink& link) {
  return list_entry<kvs_node_t>(link, offsetof(kvs_node_t, link));
}

void append(kvs_list_t& list, kvs_node_t& node) {
  const SpinGuard guard(list.lock);
  list_append(list.head, node.link);
}

} // namespace

kvs_node_t* take_free_node(kvstore_t& store, uint8_t value_type) {
  kvs_list_t& list = store.lists[value_type];
  const SpinGuard guard(list.lock);
  if (list_is_empty(list.head)) return nullptr;
  ListLink& link = *list.head.next;
  list_remove(link);
  return &node_of_link(link);
}

kvs_node_t* take_busy_node(kvstore_t& store, uint8_t value_type, uint32_t key_index) {
  kvs_list_t& list = store.lists[kBusyList];
  const SpinGuard guard(list.lock);
  for (ListLink* link = list.head.next; link != &list.head; link = link->next) {
    kvs_node_t& node = node_of_link(*link);
    if (node.key_index != key_index || node.value_type != value_type) continue;
    list_remove(*link);
    return &node;
  }
  return nullptr;
}

void append_free_node(kvstore_t& store, kvs_node_t& node) { append(store.lists[node.value_type], node); }

void append_busy_node(kvstore_t& store, kvs_node_t& node) { append(store.lists[kBusyList], node); }

} // namespace qn
