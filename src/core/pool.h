// The pool, for the library's own objects.
#ifndef QN_CORE_POOL_H
#define QN_CORE_POOL_H

#include <quillcore/memory.h>

#include <cstdint>

namespace qn {

// qn_palloc() with an alignment of the caller's choosing, a power of two up to that of malloc().
void* palloc_aligned(qn_pool_t* pool, uint32_t size, uint32_t alignment);

// `count` zero-filled objects, aligned as their type wants it, or null: when the pool has no memory or
// the size does not fit 32 bits.
template <typename T>
T* pcalloc_objects(qn_pool_t* pool, uint32_t count = 1);

void* pcalloc_array(qn_pool_t* pool, uint32_t count, uint32_t size, uint32_t alignment);

template <typename T>
T* pcalloc_objects(qn_pool_t* pool, uint32_t count) {
  return static_cast<T*>(pcalloc_array(pool, count, sizeof(T), alignof(T)));
}

} // namespace qn

#endif // QN_CORE_POOL_H
