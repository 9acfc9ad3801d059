// Small blocks from a pool and from the heap.
#include <quillcore/memory.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <memory_resource>
#include <string>

#include "bench_support.h"

#if __has_include(<obstack.h>)
#define HAVE_OBSTACK
#include <obstack.h>
#define obstack_chunk_alloc malloc
#define obstack_chunk_free free
#endif
#ifdef HAVE_APR
#include <apr_general.h>
#include <apr_pools.h>
#endif
#ifdef HAVE_TALLOC
extern "C" {
#include <talloc.h>
}
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr uint32_t kPoolSize = 32768;
constexpr uint32_t kFilled = 32000; // bytes of each block that a batch takes; headers stay out
constexpr uint32_t kBlocksMax = 64;
constexpr uint32_t kHeapSize = 64;

// The limit: the same contract, a cursor in memory that moves in multiples of 4, and a call only where a
// block is full. A fresh one clears its blocks as ours does.
class Bump {
 public:
  ~Bump() {
    for (Block* block = first_; block != nullptr;) {
      Block* const next = block->next;
      free(block);
      block = next;
    }
  }
  void* allocate(uint32_t size) {
    const uintptr_t start = (block_->last + 3u) & ~uintptr_t{3};
    if (start + size > block_->end) return allocate_from_next(size);
    block_->last = start + size;
    return reinterpret_cast<void*>(start);
  }
  void reset() { enter(first_); }

 private:
  struct Block {
    uintptr_t last;
    uintptr_t end;
    Block* next;
  };
  static Block* make_block() {
    auto* const block = static_cast<Block*>(calloc(1, kPoolSize));
    bench::must(block != nullptr, "calloc");
    block->end = reinterpret_cast<uintptr_t>(block) + kPoolSize;
    return block;
  }
  void enter(Block* block) {
    block_ = block;
    block_->last = reinterpret_cast<uintptr_t>(block_ + 1);
  }
  __attribute__((noinline)) void* allocate_from_next(uint32_t size) {
    if (block_->next == nullptr) block_->next = make_block();
    enter(block_->next);
    return allocate(size);
  }

  Block* first_ = make_block();
  Block* block_ = (enter(first_), first_);
};

class Ours {
 public:
  ~Ours() { qn_pool_free(pool_); }
  void* allocate(uint32_t size) { return qn_palloc(pool_, size); }
  void reset() { qn_pool_reset(pool_); }

 private:
  qn_pool_t* pool_ = qn_pool_create(kPoolSize);
};

// Through the interface of all memory resources, as a container reaches it.
class Monotonic {
 public:
  void* allocate(uint32_t size) { return interface_->allocate(size, 4); }
  void reset() { resource_.release(); }

 private:
  std::unique_ptr<uint8_t[]> block_ = std::make_unique<uint8_t[]>(kPoolSize);
  std::pmr::monotonic_buffer_resource resource_{block_.get(), kPoolSize};
  std::pmr::memory_resource* volatile interface_ =
      &resource_; // the compiler shall not see what is behind it
};

#ifdef HAVE_OBSTACK
class Obstack {
 public:
  Obstack() {
    obstack_begin(&stack_, kPoolSize);
    first_ = obstack_alloc(&stack_, 0);
  }
  ~Obstack() { obstack_free(&stack_, nullptr); }
  void* allocate(uint32_t size) { return obstack_alloc(&stack_, size); }
  void reset() { obstack_free(&stack_, first_); }

 private:
  obstack stack_;
  void* first_;
};
#endif

class Malloc {
 public:
  void* allocate(uint32_t size) { return blocks_[count_++] = malloc(size); }
  void reset() {
    while (count_ > 0) free(blocks_[--count_]);
  }

 private:
  std::array<void*, kBlocksMax * kFilled / 16> blocks_;
  size_t count_ = 0;
};

#ifdef HAVE_APR
class Apr {
 public:
  Apr() { bench::must(apr_pool_create(&pool_, nullptr) == APR_SUCCESS, "apr_pool_create"); }
  ~Apr() { apr_pool_destroy(pool_); }
  void* allocate(uint32_t size) { return apr_palloc(pool_, size); }
  void reset() { apr_pool_clear(pool_); }

 private:
  apr_pool_t* pool_;
};
#endif

#ifdef HAVE_TALLOC
class Talloc {
 public:
  ~Talloc() { talloc_free(pool_); }
  void* allocate(uint32_t size) { return talloc_size(pool_, size); }
  void reset() { talloc_free_children(pool_); }

 private:
  // Every block has a header of its own, which is at most 112 bytes long. What one does not hold comes
  // from the heap.
  void* pool_ = talloc_pool(nullptr, kFilled + kFilled / 16 * 112);
};
#endif

template <typename Pool>
void take(Pool& pool, uint32_t size, uint32_t count) {
  for (uint32_t i = 0; i < count; i++) benchmark::DoNotOptimize(pool.allocate(size));
}

// Fills a pool that has its blocks and takes everything back. The time is that of one request.
template <typename Pool>
void measure_after_reset(benchmark::State& state, uint32_t size, uint32_t count) {
  const auto pool = std::make_unique<Pool>();
  for (uint32_t i = 0; i < count; i++) bench::must(pool->allocate(size) != nullptr, "allocate");
  pool->reset();
  while (state.KeepRunningBatch(count)) {
    take(*pool, size, count);
    pool->reset();
  }
}

// Makes a pool, fills it and frees it.
template <typename Pool>
void measure_fresh(benchmark::State& state, uint32_t size, uint32_t count) {
  while (state.KeepRunningBatch(count)) {
    const auto pool = std::make_unique<Pool>();
    take(*pool, size, count);
    pool->reset();
  }
}

template <typename Pool>
void add_pool(const std::string& who) {
  for (const uint32_t size : {16u, 64u, 256u}) {
    for (const uint32_t blocks : {1u, 8u, kBlocksMax}) {
      const uint32_t count = blocks * (kFilled / size);
      const std::string operation =
          "palloc " + std::to_string(size) + ", blocks " + std::to_string(blocks);
      bench::add(operation + ", reset", who, [size, count](benchmark::State& state) {
        measure_after_reset<Pool>(state, size, count);
      });
      bench::add(operation + ", fresh", who,
                 [size, count](benchmark::State& state) { measure_fresh<Pool>(state, size, count); });
    }
  }
}

template <typename Allocate, typename Free>
void add_heap(const std::string& who, Allocate allocate, Free release) {
  bench::add("alloc and free", who, [allocate, release](benchmark::State& state) {
    uint32_t size = kHeapSize;
    for (auto _ : state) {
      benchmark::DoNotOptimize(size);
      void* block = allocate(size);
      benchmark::DoNotOptimize(block);
      release(block);
    }
  });
}

} // namespace

void bench::register_all() {
  add_pool<Bump>("limit");
  add_pool<Ours>("ours");
  add_pool<Monotonic>("std::pmr");
  add_pool<Malloc>("malloc, free");

  // Lambdas, so that each call goes straight to its function and not through a pointer.
  const auto heap_free = [](void* block) { free(block); };
  add_heap(
      "limit", [](uint32_t size) { return malloc(size); }, heap_free);
  add_heap(
      "ours", [](uint32_t size) { return qn_alloc(size); }, [](void* block) { qn_free(block); });
  add_heap(
      "calloc", [](uint32_t size) { return calloc(1, size); }, heap_free);

#ifdef HAVE_OBSTACK
  add_pool<Obstack>("obstack");
#endif
#ifdef HAVE_APR
  must(apr_initialize() == APR_SUCCESS, "apr_initialize");
  add_pool<Apr>("apr");
#endif
#ifdef HAVE_TALLOC
  add_pool<Talloc>("talloc");
  add_heap(
      "talloc_zero", [](uint32_t size) { return talloc_zero_size(nullptr, size); },
      [](void* block) { talloc_free(block); });
#endif
#ifdef HAVE_GLIB
  add_heap(
      "g_malloc0", [](uint32_t size) { return g_malloc0(size); }, [](void* block) { g_free(block); });
#endif
}
