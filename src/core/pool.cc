// Memory pool: a chain of equal-sized blocks with a cursor each, and a list of large heap blocks.
//
// Every block starts with its header; the first one continues it with the pool's own three fields. A
// search for room starts at `current`, which moves towards the tail past blocks that have missed too
// often. After a reset nothing moves it, however many blocks are full, so the pool also remembers where
// the last search ended, and which sizes need not look at what lies before: the place that is found is
// the same.
#include "core/pool.h"

#include <malloc.h>

#include <cstddef>
#include <cstdlib>

#include "core/log_record.h"
#include "platform/bounded_string.h"

namespace {

struct PoolBlock {
  uint8_t* last; // first byte not yet handed out
  uint8_t* end;  // one past the last byte
  PoolBlock* next;
  uint32_t failed; // new blocks added while this one was searched and had a successor
};

struct qn_pool_large_t {
  qn_pool_large_t* next;
  void* alloc; // null when the record is free for reuse
};

// In front of the head, in the same block of the heap.
struct alignas(16) SearchHint {
  PoolBlock* start; // the block where the last search ended
  uint32_t missed;  // no block from `current` up to `start` has room for this size or a larger one
};

} // namespace

struct qn_pool {
  PoolBlock block;
  uint32_t max; // largest request served from blocks
  PoolBlock* current;
  qn_pool_large_t* large;
};

namespace {

using qn::Message;

constexpr Message kBlockFailed{QN_LOG_D, 414, "mempool", "palloc_block", "qn_memalign failed. psize=%d"};
constexpr Message kNoFreeRecord{QN_LOG_D, 415, "mempool", "alloc_large",
                                "not found exist large block.size=%d"};

constexpr uint32_t kBlockAlignment = 16;
constexpr uint32_t kPoolAlignment = 4;
constexpr uint32_t kMaxCap = 4095;
constexpr uint32_t kDefaultBlockSize = 1024;
constexpr uint32_t kMissesKept = 4; // a block with more misses before this one is left behind
constexpr uint32_t kLargeRecordsSearched = 5;

static_assert(sizeof(qn_pool) <= 64);
static_assert(sizeof(PoolBlock) == 4 * sizeof(void*) && sizeof(PoolBlock) % alignof(void*) == 0);
static_assert(sizeof(qn_pool) == 7 * sizeof(void*));

uint8_t* align_up(uint8_t* ptr, uint32_t alignment) {
  const uintptr_t mask = alignment - 1;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): one operation less on the shortest path there is
  return reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(ptr) + mask) & ~mask);
}

// Hands out bytes of the block, or false when it has no room. Alignment may carry the cursor past `end`;
// what is left is negative then, and less than any size.
inline bool block_carve(PoolBlock& block, uint32_t size, uint32_t alignment, void** result) {
  uint8_t* const start = align_up(block.last, alignment);
  if (block.end - start < static_cast<ptrdiff_t>(size)) return false;
  block.last = start + size;
  *result = start;
  return true;
}

SearchHint& hint_of(const qn_pool& pool) {
  return reinterpret_cast<SearchHint*>(const_cast<qn_pool*>(&pool))[-1];
}

PoolBlock& start_of_search(const qn_pool& pool, uint32_t size) {
  const SearchHint& hint = hint_of(pool);
  return size < hint.missed ? *pool.current : *hint.start;
}

// The least size that the block has no room for, whatever its alignment.
uint32_t size_missed(const PoolBlock& block) {
  const ptrdiff_t room = block.end - align_up(block.last, kPoolAlignment);
  return room < 0 ? 0 : static_cast<uint32_t>(room) + 1;
}

// Counts a miss for every block on the search path that has a successor, moves `current` behind the last
// of them that missed too often, and returns the tail. The walk goes on past a block that qualifies: a
// later one decides, also over blocks with a low count in between.
PoolBlock* count_misses(qn_pool& pool) {
  PoolBlock* block = pool.current;
  for (; block->next != nullptr; block = block->next) {
    if (block->failed++ > kMissesKept) pool.current = block->next;
  }
  return block;
}

void* palloc_block(qn_pool& pool, uint32_t size, uint32_t alignment, uint32_t missed) {
  const uint32_t block_size = static_cast<uint32_t>(pool.block.end - reinterpret_cast<uint8_t*>(&pool));
  PoolBlock* const block = static_cast<PoolBlock*>(qn_memalign(kBlockAlignment, block_size));
  if (block == nullptr) {
    const int error = errno;
    QN_LOG(kBlockFailed, block_size);
    errno = error;
    return nullptr;
  }
  uint8_t* const start = reinterpret_cast<uint8_t*>(block);
  uint8_t* const result = align_up(start + sizeof(PoolBlock), alignment);
  block->end = start + block_size;
  block->last = result + size;

  count_misses(pool)->next = block;
  hint_of(pool) = {block, missed};
  return result;
}

// Rooms only shrink, so what has been missed stays missed until a reset.
void* palloc_small_slow(qn_pool& pool, uint32_t size, uint32_t alignment) {
  uint32_t missed = size < hint_of(pool).missed ? 0 : hint_of(pool).missed;
  void* result = nullptr;
  for (PoolBlock* block = &start_of_search(pool, size); block != nullptr; block = block->next) {
    if (block_carve(*block, size, alignment, &result)) {
      hint_of(pool) = {block, missed};
      return result;
    }
    const uint32_t least = size_missed(*block);
    if (missed < least) missed = least;
  }
  return palloc_block(pool, size, alignment, missed);
}

inline void* palloc_small(qn_pool& pool, uint32_t size, uint32_t alignment) {
  void* result = nullptr;
  return block_carve(start_of_search(pool, size), size, alignment, &result)
             ? result
             : palloc_small_slow(pool, size, alignment);
}

// A free record among the first few, so that the search stays short however long the list is.
qn_pool_large_t* find_free_record(const qn_pool& pool) {
  uint32_t searched = 0;
  for (qn_pool_large_t* record = pool.large; record != nullptr && searched < kLargeRecordsSearched;
       record = record->next, searched++) {
    if (record->alloc == nullptr) return record;
  }
  return nullptr;
}

__attribute__((noinline)) void* alloc_large(qn_pool& pool, uint32_t size) {
  void* const alloc = qn_alloc(size);
  if (alloc == nullptr) return nullptr;

  qn_pool_large_t* record = find_free_record(pool);
  if (record == nullptr) {
    QN_LOG(kNoFreeRecord, size);
    record = static_cast<qn_pool_large_t*>(
        palloc_small(pool, sizeof(qn_pool_large_t), alignof(qn_pool_large_t)));
    if (record == nullptr) {
      free(alloc);
      return nullptr;
    }
    record->next = pool.large;
    pool.large = record;
  }
  record->alloc = alloc;
  return alloc;
}

void free_large_blocks(const qn_pool& pool) {
  for (const qn_pool_large_t* record = pool.large; record != nullptr; record = record->next) {
    free(record->alloc);
  }
}

} // namespace

void* qn::palloc_aligned(qn_pool_t* pool, uint32_t size, uint32_t alignment) {
  return size <= pool->max ? palloc_small(*pool, size, alignment) : alloc_large(*pool, size);
}

qn_pool_t* qn_pool_create(uint32_t block_size) {
  if (block_size < sizeof(qn_pool) + sizeof(qn_pool_large_t)) return nullptr;
  size_t size = 0;
  if (__builtin_add_overflow(sizeof(SearchHint), block_size, &size)) return nullptr;
  void* const memory = memalign(kBlockAlignment, size);
  if (memory == nullptr) return nullptr;

  qn_pool* const pool = reinterpret_cast<qn_pool*>(static_cast<SearchHint*>(memory) + 1);
  uint8_t* const start = reinterpret_cast<uint8_t*>(pool);
  const uint32_t room = block_size - static_cast<uint32_t>(sizeof(qn_pool));
  pool->block = {start + sizeof(qn_pool), start + block_size, nullptr, 0};
  pool->max = room < kMaxCap ? room : kMaxCap;
  pool->current = &pool->block;
  pool->large = nullptr;
  hint_of(*pool) = {&pool->block, 0};
  return pool;
}

qn_pool_t* qn_pool_create_default(void) { return qn_pool_create(kDefaultBlockSize); }

void qn_pool_free(qn_pool_t* pool) {
  free_large_blocks(*pool);
  for (PoolBlock* block = pool->block.next; block != nullptr;) {
    PoolBlock* const next = block->next;
    free(block);
    block = next;
  }
  free(&hint_of(*pool));
}

void qn_pool_reset(qn_pool_t* pool) {
  free_large_blocks(*pool);
  for (PoolBlock* block = &pool->block; block != nullptr; block = block->next) {
    block->failed = 0;
    // Later blocks have the shorter header and give up the difference, so that all start alike.
    block->last = reinterpret_cast<uint8_t*>(block) + sizeof(qn_pool);
  }
  pool->large = nullptr;
  pool->current = &pool->block;
  hint_of(*pool) = {&pool->block, 0};
}

void* qn_palloc(qn_pool_t* pool, uint32_t size) { return qn::palloc_aligned(pool, size, kPoolAlignment); }

void* qn_pcalloc(qn_pool_t* pool, uint32_t size) {
  void* const result = qn_palloc(pool, size);
  if (result != nullptr) memset_s(result, size, 0, size);
  return result;
}

int32_t qn_pfree(qn_pool_t* pool, void* ptr) {
  if (ptr == nullptr) return -1;
  for (qn_pool_large_t* record = pool->large; record != nullptr; record = record->next) {
    if (record->alloc != ptr) continue;
    free(ptr);
    record->alloc = nullptr;
    return 0;
  }
  return -1;
}
