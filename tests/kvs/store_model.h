// The store's rules told a second time and as plainly as possible: no tree, no links, no locks, only the
// bytes that the file must hold after each step. The real store is held against it, by tests and by the
// fuzz target.
#ifndef TESTS_KVS_STORE_MODEL_H
#define TESTS_KVS_STORE_MODEL_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <string>
#include <string_view>

#include "kvs/open_store.h"

struct SizeClass {
  uint32_t slot_size;
  uint32_t first_slot; // offset in the file
  uint32_t first_key;
  uint32_t key_count;
};

constexpr SizeClass kSizeClasses[] = {
    {32, 26624, 0, 32},    {64, 27648, 32, 32},    {128, 29696, 64, 32},  {256, 33792, 96, 32},
    {512, 41984, 128, 32}, {1024, 58368, 160, 32}, {2048, 91136, 192, 8},
};

class StoreModel {
 public:
  static constexpr size_t kFileSize = 131072;
  static constexpr uint32_t kKeys = 200;
  static constexpr size_t kValueMax = 2045;

  // The store of a file that was just created.
  StoreModel() { load(std::string("qnkv8deea96c7bc2b089429s\x01").append(kFileSize - 25, '\0')); }

  // The store of a file that an open takes.
  explicit StoreModel(std::string_view image) { load(image); }

  void load(std::string_view image) {
    image_ = image;
    reopen();
  }

  static bool takes(const std::string& file) {
    return file.size() >= kFileSize && file.starts_with("qnkv8deea96c7bc2b089429s\x01");
  }

  static uint32_t class_of_value(size_t length) { // which is not above kValueMax
    uint32_t type = 0;
    while (length > kSizeClasses[type].slot_size - 2) type++;
    return type;
  }

  static uint32_t entry_offset(uint32_t key_index) { return 10240 + 36 * key_index; }
  static uint32_t slot_offset(uint32_t key_index) {
    const SizeClass& type = kSizeClasses[class_of_key(key_index)];
    return type.first_slot + type.slot_size * (key_index - type.first_key);
  }

  const std::string& image() const { return image_; }
  uint32_t busy_entries() const {
    uint32_t count = 0;
    for (uint32_t i = 0; i < kKeys; i++) count += image_[entry_offset(i) + 32] != 0;
    return count;
  }
  // What stands in the text field of an entry, free or busy.
  std::string entry_text(uint32_t key_index) const {
    return image_.substr(entry_offset(key_index), 32).c_str();
  }

  void reopen() {
    index_.clear();
    for (auto& list : free_) list.clear();
    for (uint32_t i = 0; i < kKeys; i++) {
      const uint32_t type = class_of_key(i);
      char* const entry = &image_[entry_offset(i)];
      entry[33] = static_cast<char>(type);
      entry[34] = static_cast<char>(i - kSizeClasses[type].first_key);
      entry[35] = 0;
      if (entry[32] == 0) {
        free_[type].push_back(i);
        continue;
      }
      entry[31] = 0;
      write_text(i, entry_text(i));
      index_.emplace(entry_text(i), i); // of two equal texts the first one stays
    }
  }

  int32_t put(const StoreKey& key, const std::string& value) {
    if (!key.fits() || value.size() > kValueMax) return -1;
    const uint32_t type = class_of_value(value.size());
    const auto known = index_.find(key.text());
    if (known != index_.end() && class_of_key(known->second) == type) {
      write_value(known->second, value);
      return 0;
    }
    if (free_[type].empty()) return -1;
    const uint32_t taken = free_[type].front();
    free_[type].pop_front();
    write_value(taken, value);
    write_text(taken, key.text());
    const uint32_t key_len = known != index_.end() ? 31 : std::min(key.len, 255u);
    image_[entry_offset(taken) + 32] = static_cast<char>(key_len);
    if (known != index_.end()) release(known->second);
    index_[key.text()] = taken;
    return 0;
  }

  int32_t put_text(const StoreKey& key, const std::string& text) {
    return text.size() < kValueMax ? put(key, text) : -1;
  }

  Reading get(const StoreKey& key) const {
    const auto known = key.fits() ? index_.find(key.text()) : index_.end();
    if (known == index_.end()) return {Reading::kNothing, ""};
    const uint32_t slot = slot_offset(known->second);
    const uint32_t length = byte(slot) + 256 * byte(slot + 1);
    if (length > kValueMax) return {Reading::kNothing, ""};
    if (length == 0) return {Reading::kEmpty, ""};
    // A damaged length can be longer than its slot; the bytes behind the slot come with it then.
    return {Reading::kValue, image_.substr(slot + 2, length)};
  }

  int32_t remove(const StoreKey& key) {
    const auto known = key.fits() ? index_.find(key.text()) : index_.end();
    if (known == index_.end()) return -1;
    release(known->second);
    index_.erase(known);
    return 0;
  }

 private:
  static uint32_t class_of_key(uint32_t key_index) { return std::min(key_index / 32, 6u); }

  uint32_t byte(uint32_t offset) const { return static_cast<unsigned char>(image_[offset]); }

  void write_text(uint32_t key_index, std::string text) {
    text.resize(32);
    image_.replace(entry_offset(key_index), 32, text);
  }

  void write_value(uint32_t key_index, const std::string& value) {
    std::string slot = {static_cast<char>(value.size()), static_cast<char>(value.size() >> 8)};
    slot += value;
    slot.resize(kSizeClasses[class_of_key(key_index)].slot_size);
    image_.replace(slot_offset(key_index), slot.size(), slot);
  }

  // Only the busy mark goes; text and value stay until the next use.
  void release(uint32_t key_index) {
    image_[entry_offset(key_index) + 32] = 0;
    free_[class_of_key(key_index)].push_back(key_index);
  }

  std::string image_;
  std::map<std::string, uint32_t> index_;
  std::deque<uint32_t> free_[std::size(kSizeClasses)];
};

#endif // TESTS_KVS_STORE_MODEL_H
