// Heap wrappers and pool: sizes at their limits, what is released when, what is logged.
#include <gtest/gtest.h>
#include <quillcore/memory.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "support/capture.h"

namespace {

struct PoolFree {
  void operator()(qn_pool_t* pool) const { qn_pool_free(pool); }
};
using Pool = std::unique_ptr<qn_pool_t, PoolFree>;

constexpr uint32_t kHeadSize = 7 * sizeof(void*);
constexpr uint32_t kBlockHeaderSize = 4 * sizeof(void*);

bool all_zero(const void* bytes, size_t size) {
  const std::vector<unsigned char> zeros(size, 0);
  return memcmp(bytes, zeros.data(), size) == 0;
}

uintptr_t address(const void* ptr) { return reinterpret_cast<uintptr_t>(ptr); }

TEST(Heap, GivesZeroFilledMemoryAndLogsIt) {
  const StderrCapture capture;
  void* const plain = qn_alloc(32);
  void* const aligned = qn_memalign(64, 100);
  ASSERT_TRUE(plain != nullptr && aligned != nullptr);
  EXPECT_TRUE(all_zero(plain, 32) && all_zero(aligned, 100));
  EXPECT_EQ(0u, address(aligned) % 64);

  char text[64];
  snprintf(text, sizeof(text), "malloc ptr=%p, size=32 success.", plain);
  const std::vector<Record> records = capture.records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ((Record{records[0].stamp, 523, "D", "alloc", "memalloc", text}), records[0]);
  EXPECT_EQ((Record{records[1].stamp, 525, "D", "alloc", "memalign",
                    "memalign alignment=64, size=100 success."}),
            records[1]);
  qn_free(plain);
  qn_free(aligned);
}

TEST(Heap, RefusesWhatItCannotServe) {
  const StderrCapture capture;
  EXPECT_EQ(nullptr, qn_alloc(0));
  EXPECT_EQ(nullptr, qn_memalign(16, 0));
  EXPECT_EQ(nullptr, qn_strdup("text", UINT32_MAX));
  EXPECT_EQ(nullptr, qn_strdup(nullptr, 4));
  EXPECT_EQ("", capture.text());

  EXPECT_EQ(nullptr, qn_memalign(24, 8)) << "not a power of two";
  const std::vector<Record> records = capture.records(526);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(std::string("memalign alignment=24, size=8 failed. errno=(22,") + strerror(EINVAL) + ")",
            records[0].text);
  EXPECT_EQ("E", records[0].level);
}

TEST(Heap, ReallocCopiesTheSmallerSizeAndZeroesTheRest) {
  const StderrCapture capture;
  char* block = static_cast<char*>(qn_realloc(nullptr, 4, 99));
  ASSERT_NE(nullptr, block);
  memcpy(block, "abcd", 4);
  block = static_cast<char*>(qn_realloc(block, 8, 4));
  EXPECT_EQ(0, memcmp(block, "abcd\0\0\0\0", 8));
  block = static_cast<char*>(qn_realloc(block, 2, 8));
  EXPECT_EQ(0, memcmp(block, "ab", 2));
  EXPECT_EQ(nullptr, qn_realloc(block, 0, 2)) << "the leak checker sees whether the old block went";
}

TEST(Heap, StrdupReadsNoFurtherThanTheLength) {
  const StderrCapture capture;
  const char unterminated[3] = {'a', 'b', 'c'};
  const struct {
    const char* source;
    uint32_t length;
    const char* copy;
  } rows[] = {{unterminated, 3, "abc"}, {"abc", 9, "abc"}, {"abc", 2, "ab"}, {"abc", 0, ""}};
  for (const auto& row : rows) {
    char* const copy = qn_strdup(row.source, row.length);
    EXPECT_STREQ(row.copy, copy);
    qn_free(copy);
  }
}

TEST(Pool, ServesUpToMaxFromBlocksAndMoreFromTheHeap) {
  const StderrCapture capture;
  const struct {
    uint32_t block_size, max;
  } rows[] = {{1024, 1024 - kHeadSize}, {kHeadSize + 4095, 4095}, {32768, 4095}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.block_size);
    const Pool pool(qn_pool_create(row.block_size));
    void* const small = qn_palloc(pool.get(), row.max);
    void* const large = qn_palloc(pool.get(), row.max + 1);
    ASSERT_TRUE(small != nullptr && large != nullptr);
    EXPECT_EQ(-1, qn_pfree(pool.get(), small));
    EXPECT_EQ(0, qn_pfree(pool.get(), large));
    EXPECT_EQ(-1, qn_pfree(pool.get(), large)) << "released already";
    EXPECT_EQ(-1, qn_pfree(pool.get(), nullptr));
  }
  EXPECT_EQ(nullptr, qn_pool_create(kHeadSize)) << "no room for a record of a large block";
}

TEST(Pool, AlignsToFourAndTakesNoMoreThanThat) {
  const Pool pool(qn_pool_create_default());
  const uintptr_t first = address(qn_palloc(pool.get(), 1));
  EXPECT_EQ(0u, first % 4);
  EXPECT_EQ(first + 4, address(qn_palloc(pool.get(), 1)));
  EXPECT_EQ(first + 8, address(qn_palloc(pool.get(), 0)));
  EXPECT_EQ(first + 8, address(qn_palloc(pool.get(), 4)));
  void* const zeroed = qn_pcalloc(pool.get(), 100);
  EXPECT_TRUE(all_zero(zeroed, 100));
}

// Alignment can carry the cursor past the end of a block whose size is no multiple of four.
TEST(Pool, AlignedCursorBehindTheEndMeansNoRoom) {
  const StderrCapture capture;
  const Pool pool(qn_pool_create(1023));
  const uintptr_t first = address(qn_palloc(pool.get(), 1023 - kHeadSize));
  const uintptr_t second = address(qn_palloc(pool.get(), 0));
  EXPECT_TRUE(second < first || second > first - kHeadSize + 1023) << "from a second block";
  EXPECT_EQ(1u, capture.records(525).size());
}

TEST(Pool, ReusesOneOfTheFirstFiveLargeRecords) {
  const StderrCapture capture;
  const Pool pool(qn_pool_create_default());
  std::vector<void*> large;
  for (int i = 0; i < 6; i++) large.push_back(qn_palloc(pool.get(), 2000));
  EXPECT_EQ(6u, capture.records(415).size());

  capture.records();
  EXPECT_EQ(0, qn_pfree(pool.get(), large[1])) << "the fifth from the head: newer records come first";
  large[1] = qn_palloc(pool.get(), 2000);
  EXPECT_EQ(6u, capture.records(415).size()) << "its record was reused";

  EXPECT_EQ(0, qn_pfree(pool.get(), large[0])) << "the sixth from the head";
  large[0] = qn_palloc(pool.get(), 2000);
  ASSERT_EQ(7u, capture.records(415).size()) << "its record is out of reach";
  EXPECT_EQ("not found exist large block.size=2000", capture.records(415)[0].text);
  EXPECT_EQ("D", capture.records(415)[0].level);
}

// Fills one block after the other so that every request misses all blocks on the search path. The head
// leaves the path with the sixth counted miss; a request that only the head has room for shows it.
TEST(Pool, ABlockLeavesTheSearchPathAtItsSixthMiss) {
  constexpr uint32_t kBlock = 256;
  constexpr uint32_t kBig = kBlock - kHeadSize; // fills a head but for nothing, a later block but for 24
  for (int blocks_added = 6; blocks_added <= 8; blocks_added++) {
    SCOPED_TRACE(blocks_added);
    const StderrCapture capture;
    const Pool pool(qn_pool_create(kBlock));
    const uintptr_t head = address(pool.get());
    ASSERT_EQ(head + kHeadSize, address(qn_palloc(pool.get(), kBig - 16)));
    for (int i = 0; i < blocks_added; i++) qn_palloc(pool.get(), kBig);
    // The first added block makes no counted miss: the head had no successor then.
    const uintptr_t small = address(qn_palloc(pool.get(), 16));
    const bool from_head = small > head && small < head + kBlock;
    EXPECT_EQ(blocks_added - 1 < 6, from_head);
  }
}

TEST(Pool, ResetKeepsTheBlocksAndGivesUpLargeOnes) {
  const StderrCapture capture;
  const Pool pool(qn_pool_create_default());
  void* const first = qn_palloc(pool.get(), 900);
  const uintptr_t second = address(qn_palloc(pool.get(), 900));
  qn_palloc(pool.get(), 5000);
  const size_t made = capture.records(525).size();

  qn_pool_reset(pool.get());
  EXPECT_EQ(first, qn_palloc(pool.get(), 900));
  EXPECT_EQ(second + kHeadSize - kBlockHeaderSize, address(qn_palloc(pool.get(), 900)))
      << "a later block starts behind the size of the pool's head after a reset";
  EXPECT_EQ(made, capture.records(525).size()) << "no block was added";
}

} // namespace
