// Records of the heap; blocks of a pool: their limits, what is used again and when.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/capture.h"
#include "support/owners.h"

namespace {

constexpr uint32_t kHeadSize = 7 * sizeof(void*), kBlockHeaderSize = 4 * sizeof(void*);

TEST(Heap, TellsOfEachBlock) {
  const StderrCapture capture;
  EXPECT_EQ(nullptr, qn_alloc(0)) << "of which nothing is told";
  EXPECT_EQ(nullptr, qn_memalign(16, 0));
  EXPECT_EQ(nullptr, qn_memalign(24, 8)) << "not a power of two";
  qn_free(qn_memalign(64, 100));
  qn_free(qn_alloc(1));
  EXPECT_EQ((std::vector<uint32_t>{526, 525, 523}), capture.logids());
  EXPECT_EQ(std::string("memalign alignment=24, size=8 failed. errno=(22,") + strerror(EINVAL) + ")",
            capture.records(526)[0].text);
  EXPECT_EQ("memalign alignment=64, size=100 success.", capture.records(525)[0].text);
}

class Pool : public testing::Test {
 protected:
  void make(uint32_t block_size) { pool_.reset(qn_pool_create(block_size)); }
  char* take(uint32_t size) const { return static_cast<char*>(qn_palloc(pool_.get(), size)); }
  size_t told(uint32_t logid) const { return capture_.records(logid).size(); }

  StderrCapture capture_;
  PoolPtr pool_{qn_pool_create_default()};
};

TEST_F(Pool, ServesUpToMaxFromBlocksAndMoreFromTheHeap) {
  const struct {
    uint32_t block_size, max;
  } rows[] = {{1024, 1024 - kHeadSize}, {1023, 1023 - kHeadSize}, {32768, 4095}};
  for (const auto& row : rows) {
    if (row.block_size != 1024) make(row.block_size);
    capture_.clear();
    EXPECT_EQ(-1, qn_pfree(pool_.get(), take(row.max)));
    take(0);
    EXPECT_EQ(row.block_size % 4 != 0, told(525)) << "no room where alignment leads past the end";
    char* const large = take(row.max + 1);
    EXPECT_EQ(0, qn_pfree(pool_.get(), large));
    EXPECT_EQ(-1, qn_pfree(pool_.get(), large)) << "released already";
  }
  constexpr uint32_t kSmallest = kHeadSize + 2 * sizeof(void*);
  EXPECT_EQ(nullptr, qn_pool_create(kSmallest - 1)) << "no room for the record of a large block";
  make(kSmallest);
  EXPECT_EQ(nullptr, qn_service_inject_instance(pool_.get(), {}, UINT32_MAX / 2, nullptr)) << "wraps";
}

TEST_F(Pool, ReusesOneOfTheFirstFiveLargeRecords) {
  std::vector<void*> large;
  for (int i = 0; i < 6; i++) large.push_back(take(2000));
  for (const size_t made : {6u, 7u}) {
    void*& block = large[7 - made]; // the fifth from the newest, then the sixth
    EXPECT_EQ(0, qn_pfree(pool_.get(), block));
    block = take(2000);
    ASSERT_EQ(made, told(415));
  }
}

// Fills one block after the other so that every request misses all blocks on the search path. The head
// leaves the path with the sixth counted miss; a request that only the head has room for shows it.
TEST_F(Pool, ABlockLeavesTheSearchPathAtItsSixthMiss) {
  constexpr uint32_t kBlock = 256;
  constexpr uint32_t kBig = kBlock - kHeadSize; // fills a head but for nothing, a later block but for 24
  for (const int added : {6, 7}) {
    make(kBlock);
    const char* const head = take(kBig - 16);
    for (int i = 0; i < added; i++) take(kBig);
    // The first added block makes no counted miss: the head had no successor then.
    const char* const small = take(16);
    EXPECT_EQ(added == 6, small == head + kBig - 16);
  }
}

TEST_F(Pool, ResetKeepsTheBlocksAndGivesUpLargeOnes) {
  char *const first = take(900), *const second = take(900);
  take(5000);
  qn_pool_reset(pool_.get());
  EXPECT_EQ(first, take(900));
  EXPECT_EQ(second + kHeadSize - kBlockHeaderSize, take(900)) << "all blocks start alike then";
  EXPECT_EQ(1u, told(525));
}

} // namespace
