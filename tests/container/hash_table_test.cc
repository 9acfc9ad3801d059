// The hash table: what a put gives back, who frees what, the order of a walk, the number of buckets.
#include <gtest/gtest.h>
#include <quillcore/container.h>
#include <quillcore/memory.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "core/log_gate.h"
#include "support/capture.h"

namespace {

int g_freed;

void count_free(void*) { g_freed++; }

void* as_value(uintptr_t number) { return reinterpret_cast<void*>(number); }

// The hash told plainly, one byte after the other.
uint32_t plain_hash(const std::string& key) {
  uint32_t hash = 0;
  for (const char byte : key) hash = hash * 33 + static_cast<uint8_t>(byte);
  return hash;
}

class HashTable : public testing::Test {
 protected:
  HashTable() {
    qn::log_gate_set_current(qn::make_gate(2, true, true, false, false));
    g_freed = 0;
  }
  ~HashTable() override {
    qn_table_free(&table_);
    qn::log_gate_set_current(qn::kGateOpen);
  }

  // The keys in the order of a walk.
  std::vector<std::string> walk() {
    std::vector<std::string> keys;
    qn_table_map(
        table_,
        [](const char* key, void**, void* out) {
          static_cast<std::vector<std::string>*>(out)->push_back(key);
          return 0;
        },
        &keys);
    return keys;
  }

  qn_table_t* table_ = _qn_table_new(0, nullptr, nullptr);
};

TEST_F(HashTable, HandsBackWhatItReplacesOrRemoves) {
  char key[] = "key";
  EXPECT_EQ(nullptr, _qn_table_put(table_, key, as_value(1), count_free));
  key[0] = 'K'; // the table has a copy
  EXPECT_EQ(as_value(1), _qn_table_put(table_, "key", as_value(2), count_free));
  EXPECT_EQ(1, qn_table_length(table_));
  EXPECT_EQ(as_value(2), qn_table_get(table_, "key"));
  EXPECT_EQ(nullptr, qn_table_get(table_, "Key"));
  EXPECT_EQ(nullptr, qn_table_remove(table_, "absent"));
  _qn_table_put(table_, "other", as_value(3), nullptr);
  EXPECT_EQ(as_value(2), qn_table_remove(table_, "key"));
  EXPECT_EQ(1, qn_table_length(table_));
  EXPECT_EQ(0, g_freed) << "what leaves the table is the caller's";

  _qn_table_put(table_, "lent", as_value(4), count_free);
  _qn_table_put(table_, "lent", as_value(4), nullptr);
  _qn_table_put(table_, "kept", as_value(4), nullptr);
  _qn_table_put(table_, "kept", as_value(5), count_free);
  // A value that lies in the table itself: its function may still look at it.
  _qn_table_put(table_, "place", nullptr, [](void* place) {
    if (*static_cast<void**>(place) == place) g_freed++;
  });
  qn_table_map(
      table_,
      [](const char* name, void** value, void*) -> int32_t {
        if (strcmp(name, "place") == 0) *value = value;
        return 0;
      },
      nullptr);
  qn_table_t* const same = table_;
  qn_table_free(&table_);
  EXPECT_EQ(same, table_) << "the caller's pointer is left alone";
  EXPECT_EQ(2, g_freed) << "the function given last, for the value stored last";
  table_ = nullptr;
}

TEST_F(HashTable, RefusesNullAndNegative) {
  EXPECT_EQ(nullptr, _qn_table_new(-1, nullptr, nullptr));
  EXPECT_EQ(nullptr, _qn_table_put(nullptr, "k", nullptr, nullptr));
  EXPECT_EQ(nullptr, _qn_table_put(table_, nullptr, nullptr, nullptr));
  EXPECT_EQ(nullptr, qn_table_get(nullptr, "k"));
  EXPECT_EQ(nullptr, qn_table_get(table_, nullptr));
  EXPECT_EQ(0, qn_table_length(nullptr));
  EXPECT_EQ(nullptr, qn_table_toarray(nullptr, nullptr));
  qn_table_map(nullptr, nullptr, nullptr);
  qn_table_print(nullptr, 1);
  qn_table_free(nullptr);
}

// The bucket count shows in the order of a walk: keys come by their hash modulo the count, the newest of
// a bucket first.
TEST(HashTableSize, FollowsTheHint) {
  const struct {
    int32_t hint;
    uint32_t buckets;
  } rows[] = {{0, 509},       {509, 509},        {1021, 509},    {1022, 1021},   {2053, 1021},
              {2054, 2053},   {4093, 2053},      {4094, 4093},   {8191, 4093},   {8192, 8191},
              {16381, 8191},  {16382, 16381},    {32771, 16381}, {32772, 32771}, {65521, 32771},
              {65522, 65521}, {INT32_MAX, 65521}};
  const StderrCapture capture;
  for (const auto& row : rows) {
    qn_table_t* table = _qn_table_new(row.hint, nullptr, nullptr);
    std::map<uint32_t, std::vector<std::string>> expected;
    for (int i = 0; i < 40; i++) {
      const std::string key = "interface.\xC3\xA4" + std::to_string(i * i * 7919);
      _qn_table_put(table, key.c_str(), as_value(1), nullptr);
      auto& bucket = expected[plain_hash(key) % row.buckets];
      bucket.insert(bucket.begin(), key);
    }
    std::vector<std::string> order;
    for (const auto& [bucket, keys] : expected) order.insert(order.end(), keys.begin(), keys.end());

    void** const array = qn_table_toarray(table, &table);
    for (size_t i = 0; i < order.size(); i++)
      EXPECT_EQ(order[i], static_cast<char*>(array[2 * i])) << row.hint;
    EXPECT_EQ(&table, array[2 * order.size()]);
    qn_free(array);
    qn_table_free(&table);
  }
}

TEST_F(HashTable, KeepsAChainWholeAndNewestFirst) {
  qn_table_t* table = _qn_table_new(
      0,
      // The caller's keys are in capitals, the stored ones are not: which comes first shows.
      [](const char* key, const char* stored) { return *key == *stored - 'a' + 'A' ? 0 : 1; },
      [](const char*) -> uint32_t { return 0xFFFFFFFFu; });
  std::swap(table, table_);
  qn_table_free(&table);
  char values[] = "d\0c\0b\0a";
  for (const char* key : {"a", "b", "c", "d"})
    EXPECT_EQ(nullptr, _qn_table_put(table_, key, values + 2 * ('d' - *key), count_free));
  EXPECT_EQ((std::vector<std::string>{"d", "c", "b", "a"}), walk());
  EXPECT_EQ(values + 4, _qn_table_put(table_, "B", values + 6, count_free));
  EXPECT_EQ((std::vector<std::string>{"d", "c", "b", "a"}), walk()) << "a replaced value moves nothing";
  EXPECT_EQ(values + 6, qn_table_remove(table_, "B"));
  EXPECT_EQ(nullptr, qn_table_remove(table_, "b"));
  EXPECT_EQ(values + 6, qn_table_get(table_, "A"));
  EXPECT_EQ(values, qn_table_get(table_, "D"));

  void** const array = qn_table_toarray(table_, this);
  const char* const keys[] = {"d", "c", "a"};
  for (size_t i = 0; i < 3; i++) {
    EXPECT_STREQ(keys[i], static_cast<char*>(array[2 * i]));
    EXPECT_STREQ(keys[i], static_cast<char*>(array[2 * i + 1]));
  }
  EXPECT_EQ(this, array[6]);
  qn_free(array);

  StderrCapture capture;
  qn::log_gate_set_current(qn::kGateOpen);
  qn_table_print(table_, 1);
  std::string printed;
  for (const Record& record : capture.records(404)) printed += record.text;
  EXPECT_EQ("[d] = d[c] = c[a] = a", printed);
  qn_table_map(
      table_,
      [](const char*, void** value, void* closure) -> int32_t {
        *value = closure;
        return -1; // is ignored
      },
      this);
  for (const char* key : {"A", "C", "D"}) EXPECT_EQ(this, qn_table_remove(table_, key));
  EXPECT_EQ(0, qn_table_length(table_));
  void** const empty = qn_table_toarray(table_, this);
  EXPECT_EQ(this, empty[0]);
  qn_free(empty);
  qn_table_free(&table_);
  table_ = nullptr;
  EXPECT_EQ(0, g_freed) << "values that left by a put or a removal are the caller's";
}

TEST_F(HashTable, PrintsOnTheConsole) {
  qn::log_gate_set_current(qn::kGateOpen);
  char text[] = "value";
  _qn_table_put(table_, "key", text, nullptr);
  const StderrCapture capture;
  qn_table_print(table_, 1);
  qn_table_print(table_, 0);
  ASSERT_EQ((std::vector<uint32_t>{404, 405}), capture.logids());
  EXPECT_EQ("[key] = value", capture.records(404)[0].text);
  char pointer[64];
  snprintf(pointer, sizeof(pointer), "[key] = %p\n\n", static_cast<void*>(text));
  const std::string printed = capture.text();
  EXPECT_TRUE(printed.ends_with(pointer)) << "its own line feed and the record's";
  EXPECT_NE(std::string::npos, printed.find(" [0404] [I] [qn_table] [qn_table_print] [key] = value\n\n"));
}

TEST_F(HashTable, MayBeUsedByManyThreads) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; thread++) {
    threads.emplace_back([this, thread] {
      for (uintptr_t i = 0; i < 2000; i++) {
        const std::string key = std::to_string(thread) + "." + std::to_string(i % 50);
        _qn_table_put(table_, key.c_str(), as_value(i), nullptr);
        EXPECT_EQ(as_value(i), qn_table_get(table_, key.c_str()));
        EXPECT_GE(qn_table_length(table_), 1);
        if (i % 3 == 0) {
          EXPECT_EQ(as_value(i), qn_table_remove(table_, key.c_str()));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

} // namespace
