// One store under several threads, on keys of their own and on shared ones.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "support/temp_dir.h"

namespace {

constexpr int kThreads = 4;
constexpr int kSharedKeys = 3; // with the threads' own ones, one less than the longest class holds
constexpr int kSteps = 150;

// A value that shows whether it is whole: its first byte tells its length and all others.
std::string value_of(int number) {
  constexpr size_t kLengths[] = {1, 30, 31, 100, 500, 1022, 2044};
  return std::string(kLengths[number % 7], static_cast<char>('A' + number % 7));
}

bool is_whole(const std::string& value) { return value == value_of(value[0] - 'A'); }

std::string shared_key(int number) { return "shared" + std::to_string(number % kSharedKeys); }

void work(const OpenStore& store, int id, std::atomic<bool>* start) {
  const std::string own = "own" + std::to_string(id);
  while (!start->load()) std::this_thread::yield();
  for (int i = 0; i < kSteps; i++) {
    const std::string value = value_of(i + id);
    EXPECT_EQ(0, i % 2 == 0 ? store.put(own, value) : store.put_text(own, value));
    EXPECT_EQ((Reading{Reading::kValue, value}), store.get(own));
    if (i % 5 == 4) {
      EXPECT_EQ(0, store.remove(own));
      EXPECT_EQ(Reading::kNothing, store.get(own).kind);
    }
    const std::string shared = shared_key(i + id);
    EXPECT_EQ(0, store.put(shared, value_of(i)));
    const Reading reading = store.get(shared_key(i));
    EXPECT_TRUE(reading.kind == Reading::kNothing ||
                (reading.kind == Reading::kValue && is_whole(reading.value)))
        << reading;
    if (i % 7 == 6) store.remove(shared); // another thread may have been first
  }
  EXPECT_EQ(0, store.put(own, value_of(id)));
}

TEST(StoreThreads, ShareAStore) {
  const GateAt quiet(0);
  const TempDir dir;
  const std::string path = dir.file("store");
  {
    const OpenStore store(path);
    ASSERT_EQ(0, store.result());
    std::atomic<bool> start{false};
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; id++) threads.emplace_back(work, std::cref(store), id, &start);
    start = true;
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < kSharedKeys; i++) EXPECT_EQ(0, store.put(shared_key(i), value_of(i)));
  }
  const StoreModel file(read_file(path));
  EXPECT_EQ(uint32_t{kThreads + kSharedKeys}, file.busy_entries()) << "no entry is lost or there twice";
  for (int id = 0; id < kThreads; id++)
    EXPECT_EQ((Reading{Reading::kValue, value_of(id)}), file.get("own" + std::to_string(id)));
}

} // namespace
