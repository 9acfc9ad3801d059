// Owners of heap memory.
#ifndef QN_CORE_HEAP_H
#define QN_CORE_HEAP_H

#include <quillcore/memory.h>

#include <memory>

namespace qn {

struct HeapFree {
  void operator()(void* ptr) const { qn_free(ptr); }
};

// qn_alloc() and qn_memalign() without the zeros, for a caller that fills the whole block itself.
void* alloc_unfilled(uint32_t size);
void* memalign_unfilled(uint32_t alignment, uint32_t size);

// Owns a zero-filled block from qn_alloc() that holds a T without constructor or destructor.
template <typename T>
using HeapPtr = std::unique_ptr<T, HeapFree>;

template <typename T>
HeapPtr<T> make_heap() {
  return HeapPtr<T>(static_cast<T*>(qn_alloc(sizeof(T))));
}

} // namespace qn

#endif // QN_CORE_HEAP_H
