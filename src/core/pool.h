// The pool, for the library's own objects.
#ifndef QN_CORE_POOL_H
#define QN_CORE_POOL_H

#include <quillcore/memory.h>

#include <cstdint>
#include <cstring>

namespace qn {

// qn_palloc() with an alignment of the caller's choosing, a power of two up to that of malloc().
void* palloc_aligned(qn_pool_t* pool, uint32_t size, uint32_t alignment);

// A zero-filled object, aligned as its type wants it, or null when the pool has no memory.
template <typename T>
T* pcalloc_object(qn_pool_t* pool) {
  T* const object = static_cast<T*>(palloc_aligned(pool, sizeof(T), alignof(T)));
  // The size is known here, so small objects cost a few stores and no call.
  if (object != nullptr) memset(static_cast<void*>(object), 0, sizeof(T));
  return object;
}

// `count` of them, or null also when the size does not fit 32 bits.
template <typename T>
T* pcalloc_objects(qn_pool_t* pool, uint32_t count) {
  uint32_t size = 0;
  if (__builtin_mul_overflow(count, static_cast<uint32_t>(sizeof(T)), &size)) return nullptr;
  void* const objects = palloc_aligned(pool, size, alignof(T));
  if (objects != nullptr) memset(objects, 0, size);
  return static_cast<T*>(objects);
}

} // namespace qn

#endif // QN_CORE_POOL_H
