// Intrusive circular list: a link lives in the object, the head is a link of its own, and an empty
// list's head points at itself. Who embeds a link knows its object.
#ifndef QN_CONTAINER_LIST_H
#define QN_CONTAINER_LIST_H

#include <cstddef>

namespace qn {

struct ListLink {
  ListLink* next;
  ListLink* prev;
};

inline void list_init(ListLink& link) { link.next = link.prev = &link; }

inline bool list_is_empty(const ListLink& head) { return head.next == &head; }

inline void list_append(ListLink& head, ListLink& link) {
  link.next = &head;
  link.prev = head.prev;
  head.prev->next = &link;
  head.prev = &link;
}

// Joins the link's neighbours. Both of its pointers are null afterwards, so removing twice is harmless.
inline void list_remove(ListLink& link) {
  if (link.next != nullptr && link.prev != nullptr) {
    link.next->prev = link.prev;
    link.prev->next = link.next;
  }
  link.next = link.prev = nullptr;
}

// The object that embeds `link` at `offset`.
template <typename T>
T& list_entry(ListLink& link, size_t offset) {
  return *reinterpret_cast<T*>(reinterpret_cast<char*>(&link) - offset);
}

} // namespace qn

#endif // QN_CONTAINER_LIST_H
