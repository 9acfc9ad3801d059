// The string map: order, limits on both sides, removal, threads.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "container/string_map.h"
#include "core/log_gate.h"
#include "support/capture.h"

namespace {

struct MapFree {
  void operator()(qn_map_t* map) const { qn_map_free(map); }
};
using Map = std::unique_ptr<qn_map_t, MapFree>;

class StringMap : public testing::Test {
 protected:
  StringMap() { qn::log_gate_set_current(qn::make_gate(2, true, true, false, false)); }
  ~StringMap() override { qn::log_gate_set_current(qn::kGateOpen); }

  // The keys in list order.
  std::string order() const {
    std::string keys;
    qn::map_walk(map_.get(), [&](const qn_map_node_t& node) { keys += node.key; });
    return keys;
  }

  Map map_{qn_map_new()};
};

TEST_F(StringMap, PutsLaterNodesDirectlyBehindTheHead) {
  for (const char* key : {"a", "b", "c", "d"}) EXPECT_EQ(0, qn_map_set(key, key, map_.get()));
  EXPECT_EQ("adcb", order());
  EXPECT_EQ(0, qn_map_set("c", "new", map_.get()));
  EXPECT_EQ("adcb", order()) << "an update keeps its place";
  EXPECT_EQ(0, qn_map_remove("c", map_.get()));
  EXPECT_EQ(0, qn_map_remove("a", map_.get()));
  EXPECT_EQ("db", order()) << "the second node is the head now";
  EXPECT_EQ(0, qn_map_set("e", "e", map_.get()));
  EXPECT_EQ("deb", order());
  EXPECT_EQ(-1, qn_map_remove("a", map_.get()));
  EXPECT_EQ(-2, qn_map_remove("a", nullptr));
  EXPECT_EQ(nullptr, qn_map_get("a", map_.get()));
  EXPECT_EQ(nullptr, qn_map_get("a", nullptr));
}

TEST_F(StringMap, HoldsItsLimitsOnBothSides) {
  const std::string key63(63, 'k'), key64(64, 'k');
  EXPECT_EQ(0, qn_map_set(key63.c_str(), "v", map_.get()));
  EXPECT_EQ(-1, qn_map_set(key64.c_str(), "v", map_.get()));
  EXPECT_STREQ("v", qn_map_get(key63.c_str(), map_.get()));
  EXPECT_EQ(nullptr, qn_map_get(key64.c_str(), map_.get())) << "differs behind what fits";

  const std::string value254(254, 'v'), value255(255, 'v'), value256(256, 'v');
  EXPECT_EQ(-1, qn_map_set("new", value256.c_str(), map_.get()));
  EXPECT_EQ(key63, order()) << "a failed insertion adds nothing";
  EXPECT_EQ(0, qn_map_set("new", value255.c_str(), map_.get()));
  EXPECT_EQ(value255, qn_map_get("new", map_.get()));
  EXPECT_EQ(0, qn_map_set("new", value254.c_str(), map_.get()));
  EXPECT_EQ(value254, qn_map_get("new", map_.get()));
  EXPECT_EQ(-1, qn_map_set("new", value255.c_str(), map_.get())) << "an update takes one byte less";
  EXPECT_STREQ("", qn_map_get("new", map_.get())) << "and loses the old value";
}

TEST_F(StringMap, MayBeUsedByManyThreads) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; thread++) {
    threads.emplace_back([this, thread] {
      const std::string own = "own" + std::to_string(thread);
      char value[QN_MAP_VALUE_SIZE];
      for (int i = 0; i < 500; i++) {
        EXPECT_EQ(0, qn_map_set(own.c_str(), std::to_string(i).c_str(), map_.get()));
        EXPECT_TRUE(qn::map_copy_value(own.c_str(), map_.get(), value));
        EXPECT_EQ(std::to_string(i), value);
        if (i % 7 == 0) {
          EXPECT_EQ(0, qn_map_remove(own.c_str(), map_.get()));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

} // namespace
