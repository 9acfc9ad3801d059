// Owners of the library's objects, for tests that end half way.
#ifndef TESTS_SUPPORT_OWNERS_H
#define TESTS_SUPPORT_OWNERS_H

#include <quillcore/quillcore.h>

#include <memory>

template <auto free_object>
struct FreeBy {
  template <typename T>
  void operator()(T* object) const {
    free_object(object);
  }
};

using CyclePtr = std::unique_ptr<qn_cycle_t, FreeBy<qn_cycle_free>>;
using MapPtr = std::unique_ptr<qn_map_t, FreeBy<qn_map_free>>;
using PoolPtr = std::unique_ptr<qn_pool_t, FreeBy<qn_pool_free>>;

#endif // TESTS_SUPPORT_OWNERS_H
