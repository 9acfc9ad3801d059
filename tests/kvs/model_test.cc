// Long random lives of a store, held against the model after every step: result, reading and all bytes of
// the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "support/temp_dir.h"

namespace {

bool file_holds(const std::string& path, const std::string& bytes) {
  std::string found(bytes.size() + 1, '\0');
  std::ifstream in(path, std::ios::binary);
  in.read(found.data(), static_cast<std::streamsize>(found.size()));
  return in.gcount() == static_cast<std::streamsize>(bytes.size()) && found.starts_with(bytes);
}

// What a life must have met, or the test has shown less than it says.
struct Met {
  int full, moved, move_refused, emptied, refused, lost_empty_key;
};

class Life {
 public:
  Life(const std::string& path, uint32_t seed)
      : path_(path), random_(seed), store_(new OpenStore(path)) {}

  // One step. Phases of mostly putting and mostly deleting make classes full and empty again.
  void step(int number, Met* met) {
    const bool filling = number / 250 % 2 == 0;
    const int choice = pick(100);
    const StoreKey key = pick_key();
    if (choice == 0) {
      reopen(key, met);
    } else if (choice < (filling ? 75 : 35)) {
      put(key, met);
    } else if (choice < 85) {
      EXPECT_EQ(model_.remove(key), store_->remove(key));
    }
    EXPECT_EQ(model_.get(key), store_->get(key));
    EXPECT_TRUE(file_holds(path_, model_.image()));
  }

 private:
  int pick(int count) { return static_cast<int>(random_() % static_cast<uint32_t>(count)); }

  StoreKey pick_key() {
    const int choice = pick(250);
    const std::string number = std::to_string(choice % 10);
    if (choice < 10) return "";
    if (choice < 15) return std::string(30, 'k') + number; // they differ in the last byte alone
    if (choice < 20) return std::string(32, 'k');
    if (choice < 25) return {std::string(40, 'c'), 31}; // cut by its length
    if (choice < 30) return {"short" + number, 300u};   // ended by its NUL
    return "key" + std::to_string(choice);
  }

  std::string pick_value() {
    constexpr size_t kLimits[] = {0,   30,  31,  62,   63,   126,  127,  254,
                                  255, 510, 511, 1022, 1023, 2044, 2045, 2046};
    const size_t length = pick(2) == 0 ? kLimits[pick(16)] : static_cast<size_t>(pick(3000));
    std::string value(length, '\0');
    for (char& byte : value) byte = static_cast<char>(random_());
    return value;
  }

  void put(const StoreKey& key, Met* met) {
    std::string value = pick_value();
    const bool is_text = pick(4) == 0;
    if (is_text) std::replace(value.begin(), value.end(), '\0', '0');
    const Reading before = model_.get(key);
    const int32_t expected = is_text ? model_.put_text(key, value) : model_.put(key, value);
    EXPECT_EQ(expected, is_text ? store_->put_text(key, value) : store_->put(key, value));

    const bool allowed = key.fits() && value.size() <= (is_text ? 2044 : 2045);
    const bool present = before.kind != Reading::kNothing;
    if (!allowed) met->refused++;
    if (allowed && expected != 0) (present ? met->move_refused : met->full)++;
    if (expected != 0) return;
    met->moved += present && StoreModel::class_of_value(before.value.size()) !=
                                 StoreModel::class_of_value(value.size());
    met->emptied += value.empty();
  }

  void reopen(const StoreKey& key, Met* met) {
    const bool had_empty_key = model_.get("").kind != Reading::kNothing;
    model_.reopen();
    store_.reset();
    store_.reset(new OpenStore(path_));
    ASSERT_EQ(0, store_->result());
    met->lost_empty_key += had_empty_key && model_.get("").kind == Reading::kNothing;
    for (uint32_t i = 0; i < 250; i++) {
      const std::string name = "key" + std::to_string(i);
      EXPECT_EQ(model_.get(name), store_->get(name));
    }
    EXPECT_EQ(model_.get(key), store_->get(key));
  }

  std::string path_;
  std::mt19937 random_;
  StoreModel model_;
  std::unique_ptr<OpenStore> store_;
};

TEST(StoreModelled, DoesWhatTheModelDoes) {
  const QuietLog quiet;
  Met met = {};
  for (const uint32_t seed : {1u, 20u, 300u, 4000u}) {
    const TempDir dir;
    Life life(dir.file("store"), seed);
    for (int i = 0; i < 1000 && !HasFailure(); i++) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(i));
      life.step(i, &met);
    }
  }
  for (const int count : {met.full, met.moved, met.move_refused, met.emptied, met.refused})
    EXPECT_LT(20, count);
  EXPECT_LT(0, met.lost_empty_key);
}

} // namespace
