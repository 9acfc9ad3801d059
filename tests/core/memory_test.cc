// Records of the heap; blocks of a pool: their limits, what is used again and when.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
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
  qn_pool_reset(pool_.get());
  EXPECT_EQ(-1, qn_pfree(pool_.get(), large[5])) << "it is gone";
}

// The search told plainly: from `current` on, the first block with room for the request.
struct PlainPool {
  struct Block {
    char* start;
    uint32_t used, failed;
  };

  // Where the request is served from; null when that takes another block.
  char* place(uint32_t size) {
    for (size_t i = current; i < blocks.size(); i++) {
      const uint32_t at = (blocks[i].used + 3) / 4 * 4;
      if (at + size > block_size) continue;
      blocks[i].used = at + size;
      return blocks[i].start + at;
    }
    for (size_t i = current; i + 1 < blocks.size(); i++) {
      if (blocks[i].failed++ > 4) current = i + 1;
    }
    return nullptr;
  }

  uint32_t block_size;
  std::vector<Block> blocks;
  size_t current = 0;
};

TEST_F(Pool, ServesFromWhereAPlainSearchFindsRoom) {
  make(250);
  PlainPool plain{250, {{reinterpret_cast<char*>(pool_.get()), kHeadSize, 0}}};
  std::minstd_rand random(1);
  for (int i = 0; i < 20000; i++) {
    const uint32_t limit = random() % 3 != 0 ? 20 : 250 - kHeadSize + 1;
    const uint32_t size = static_cast<uint32_t>(random() % limit);
    char *const expected = plain.place(size), *const got = take(size);
    if (expected == nullptr) plain.blocks.push_back({got - kBlockHeaderSize, kBlockHeaderSize + size, 0});
    if (expected != nullptr) ASSERT_EQ(expected, got) << i;
    if (random() % 1000 != 0) continue;
    qn_pool_reset(pool_.get());
    for (PlainPool::Block& block : plain.blocks) block = {block.start, kHeadSize, 0};
    plain.current = 0;
  }
  EXPECT_EQ(plain.blocks.size() - 1, told(525));
}

} // namespace
