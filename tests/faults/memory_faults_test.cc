// Heap wrappers, pool, cycle and handler tables.
#include <gtest/gtest.h>
#include <quillcore/context.h>
#include <quillcore/service.h>

#include <cerrno>

#include "core/heap.h"
#include "faults/table.h"

namespace {

// Result 1 for an object, 0 for null.
template <typename Owner>
struct Made : Operation {
  explicit Made(typename Owner::pointer (*made)()) : call(made) { undisturbed = {1}; }
  int64_t run() override {
    owner.reset(call());
    return owner != nullptr;
  }

  typename Owner::pointer (*call)();
  Owner owner;
};

struct CycleFree {
  void operator()(qn_cycle_t* cycle) const { qn_cycle_free(cycle); }
};

using Heap = Made<qn::HeapPtr<void>>;
using Pool = Made<PoolPtr>;
using Cycle = Made<std::unique_ptr<qn_cycle_t, CycleFree>>;

using PoolCall = void* (*)(qn_pool_t* pool);

struct FullPool : Operation {
  explicit FullPool(PoolCall made) : call(made) {
    undisturbed = {1};
    exhaust(pool.get());
  }
  int64_t run() override { return call(pool.get()) != nullptr; }
  void check(const Outcome&) override { EXPECT_NE(nullptr, call(pool.get())) << "the pool serves again"; }

  PoolCall call;
  PoolPtr pool{qn_pool_create_default()};
};

struct ErrorMsg : Operation {
  int64_t run() override { return qn_service_make_error_msg(7, &body, &len, "%s", "text"); }
  void check(const Outcome& seen) override {
    EXPECT_EQ(seen.result == 0, body != this);
    EXPECT_EQ(seen.result == 0 ? 9u : 77u, len);
    if (seen.result == 0) qn_free(body);
  }

  void* body = this;
  uint32_t len = 77;
};

// The old block is gone in every case.
void* move_block() { return qn_realloc(qn_memalign(16, 8), 64, 8); }

Make heap(void* (*call)()) { return make<Heap>(call); }
Make full_pool(PoolCall call) { return make<FullPool>(call); }

qn_api_entry_t g_rows[] = {{1, 2, nullptr, nullptr}};

} // namespace

std::vector<Row> memory_rows() {
  const Make alloc = heap([] { return qn_alloc(32); });
  const Make strdup = heap([]() -> void* { return qn_strdup("text", 4); });
  const Make align = heap([] { return qn_memalign(64, 32); });
  const Make small = full_pool([](qn_pool_t* pool) { return qn_palloc(pool, 64); });
  const Make cleared = full_pool([](qn_pool_t* pool) { return qn_pcalloc(pool, 64); });
  const Make large = full_pool([](qn_pool_t* pool) { return qn_palloc(pool, 4096); });
  const Make apis = full_pool([](qn_pool_t* pool) -> void* { return qn_apis_new(pool, 1, g_rows); });
  const Make inject = full_pool(
      [](qn_pool_t* pool) -> void* { return qn_service_inject_instance(pool, g_rows, 1, pool); });
  return {
      {"alloc", alloc, "malloc", ENOMEM, {{0, {524}}}},
      {"strdup", strdup, "malloc", ENOMEM, {{0, {524}}}},
      {"realloc", heap(move_block), "malloc", ENOMEM, {{0, {524}}}},
      {"memalign", align, "posix_memalign", ENOMEM, {{0, {526}}}},
      {"pool_create", make<Pool>(qn_pool_create_default), "memalign", ENOMEM, {{0}}},
      {"palloc", small, "posix_memalign", ENOMEM, {{0, {526, 414}}}},
      {"pcalloc", cleared, "posix_memalign", ENOMEM, {{0, {526, 414}}}},
      {"palloc_large", large, "malloc", ENOMEM, {{0, {524}}}},
      {"palloc_large", large, "posix_memalign", ENOMEM, {{0, {526, 414}}}}, // no room for its record
      {"apis_new", apis, "posix_memalign", ENOMEM, {{0, {526, 414}}}},
      {"inject_instance", inject, "posix_memalign", ENOMEM, {{0, {526, 414}}}},
      {"cycle_new", make<Cycle>(qn_cycle_new), "memalign", ENOMEM, {{0, {519}}}},
      {"make_error_msg", make<ErrorMsg>(), "malloc", ENOMEM, {{-4, {524}}}},
  };
}
