// The hash table: what a put gives back, who frees what, the order of a walk, the number of buckets.
#include <gtest/gtest.h>
#include <quillcore/container.h>
#include <quillcore/memory.h>

#include <climits>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/gate.h"

namespace {

int g_freed;

void count_free(void*) { g_freed++; }

// "key=value " for each pair, in the order of a walk.
std::string list(qn_table_t* table) {
  std::string pairs;
  void** const array = qn_table_toarray(table, table);
  for (void** at = array; *at != table; at += 2) {
    pairs += std::string(static_cast<char*>(at[0])) + "=";
    pairs += std::string(at[1] != nullptr ? static_cast<char*>(at[1]) : "") + " ";
  }
  qn_free(array);
  return pairs;
}

// The bucket count shows in the order of a walk: keys come by their hash modulo the count, the newest of
// a bucket first.
void expect_buckets(int32_t hint, uint32_t count) {
  qn_table_t* table = _qn_table_new(hint, nullptr, nullptr);
  std::map<uint32_t, std::string> buckets;
  for (int i = 0; i < 40; i++) {
    // The first two have the same hash.
    const std::string key =
        i < 2 ? (i == 0 ? "ab" : "bA") : "intf.\xC3\xA4" + std::to_string(i * i * 7919);
    _qn_table_put(table, key.c_str(), nullptr, nullptr);
    uint32_t hash = 0;
    for (const char byte : key) hash = hash * 33 + static_cast<uint8_t>(byte);
    buckets[hash % count].insert(0, key + "= ");
  }
  std::string order;
  for (const auto& bucket : buckets) order += bucket.second;
  EXPECT_EQ(order, list(table)) << hint;
  qn_table_free(&table);
}

TEST(HashTable, HasAsManyBucketsAsTheHintSays) {
  const GateAt quiet(0);
  const int32_t primes[] = {509, 509, 1021, 2053, 4093, 8191, 16381, 32771, 65521};
  for (size_t i = 1; i < std::size(primes); i++) {
    expect_buckets(primes[i], static_cast<uint32_t>(primes[i - 1]));
    expect_buckets(primes[i] + 1, static_cast<uint32_t>(primes[i]));
  }
  expect_buckets(INT32_MAX, 65521);
  EXPECT_EQ(nullptr, _qn_table_new(-1, nullptr, nullptr));
}

TEST(HashTable, KeepsAChainNewestFirstAndGivesBackWhatLeavesIt) {
  const GateAt informed(QN_LOG_I);
  const StderrCapture capture;
  qn_table_t* table = _qn_table_new(
      0,
      // The caller's keys are in capitals, the stored ones are not: which comes first shows.
      [](const char* key, const char* stored) { return *key == *stored - 'a' + 'A' ? 0 : 1; },
      [](const char*) -> uint32_t { return 0xFFFFFFFFu; });
  char text[] = "text";
  char key[] = "a";
  for (; *key <= 'd'; ++*key) EXPECT_EQ(nullptr, _qn_table_put(table, key, key, count_free));
  EXPECT_EQ("d=e c=e b=e a=e ", list(table)) << "of the table's own copies";
  EXPECT_EQ(key, _qn_table_put(table, "B", text, count_free));
  EXPECT_EQ(key, _qn_table_put(table, "A", nullptr, nullptr));
  EXPECT_EQ(key, qn_table_remove(table, "C"));
  EXPECT_EQ(nullptr, qn_table_remove(table, "C"));
  EXPECT_EQ("d=e b=text a= ", list(table)) << "a replaced value moves nothing";
  EXPECT_EQ(3, qn_table_length(table));
  EXPECT_EQ(text, qn_table_get(table, "B"));
  EXPECT_EQ(nullptr, qn_table_get(table, nullptr));
  EXPECT_EQ(nullptr, qn_table_get(nullptr, "B"));

  qn_table_print(table, 2);
  qn_table_print(table, 0);
  const std::vector<uint32_t> printed = {404, 404, 404, 405, 405, 405};
  EXPECT_EQ(printed, capture.logids());
  EXPECT_NE(std::string::npos, capture.text().find(" [b] = text\n\n")) << "two line feeds";
  EXPECT_EQ("[a] = (null)", capture.records(404).at(2).text);
  EXPECT_EQ(0, g_freed) << "what leaves the table is the caller's";

  // A value that lies in the table itself: its function may still look at it.
  _qn_table_put(table, "z", nullptr,
                [](void* place) { g_freed += *static_cast<void**>(place) == place; });
  const auto place = [](const char* name, void** value, void*) -> int32_t {
    if (*name == 'z') *value = value;
    return 0;
  };
  qn_table_map(table, place, nullptr);
  const qn_table_t* const same = table;
  qn_table_free(&table);
  EXPECT_EQ(same, table) << "the caller's pointer is left alone";
  EXPECT_EQ(3, g_freed) << "d, b and z: the function given last, for the value stored last";
}

TEST(HashTable, MayBeUsedByManyThreads) {
  const GateAt quiet(0);
  qn_table_t* table = _qn_table_new(0, nullptr, nullptr);
  const auto work = [table](char name) {
    for (int i = 0; i < 2000; i++) {
      const std::string key = name + std::to_string(i % 50);
      _qn_table_put(table, key.c_str(), &g_freed, nullptr);
      EXPECT_EQ(&g_freed, qn_table_get(table, key.c_str()));
      EXPECT_EQ(&g_freed, qn_table_remove(table, key.c_str()));
    }
  };
  std::thread other(work, 'a');
  work('b');
  other.join();
  EXPECT_EQ(0, qn_table_length(table));
  qn_table_free(&table);
}

} // namespace
