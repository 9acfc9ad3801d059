// An open store with its pool, and its operations in terms of std::string.
#ifndef TESTS_KVS_OPEN_STORE_H
#define TESTS_KVS_OPEN_STORE_H

#include <quillcore/store.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

#include "support/gate.h"
#include "support/owners.h"

// A key as callers pass it: the first `len` bytes of `data`, or less if a NUL comes first.
struct StoreKey {
  StoreKey(const char* text) : StoreKey(std::string(text)) {}
  StoreKey(const std::string& text) : StoreKey(text, static_cast<uint32_t>(text.size())) {}
  StoreKey(const std::string& data_, uint32_t len_) : data(data_), len(len_) {}

  std::string text() const { return data.substr(0, std::min<size_t>(len, strlen(data.c_str()))); }
  bool fits() const { return text().size() <= 31; }
  // As the store takes it; valid as long as this.
  qn_str_t c_key() const { return {len, const_cast<char*>(data.c_str())}; }

  std::string data;
  uint32_t len;
};

// What a get gave.
struct Reading {
  enum Kind {
    kValue,   // 0 and a value
    kNothing, // -1, nothing written
    kEmpty,   // -1, null and length 0
    kBroken   // what no contract allows
  };
  Kind kind;
  std::string value;

  bool operator==(const Reading&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Reading& reading) {
  return out << "kind " << reading.kind << ", " << reading.value.size() << " bytes: " << reading.value;
}

class OpenStore {
 public:
  explicit OpenStore(const std::string& path, uint32_t pool_size = 16384)
      : path_(path), pool_(qn_pool_create(pool_size)) {
    open();
  }
  ~OpenStore() { close(); }
  OpenStore(const OpenStore&) = delete;
  OpenStore& operator=(const OpenStore&) = delete;

  int32_t open() { return result_ = qn_kvs_open(&store_, pool_.get(), path_.c_str()); }
  void close() {
    qn_kvs_close(store_);
    store_ = nullptr;
  }
  int32_t result() const { return result_; } // of the last open
  kvstore_t* get() const { return store_; }
  qn_pool_t* pool() const { return pool_.get(); }

  int32_t put(const StoreKey& key, const std::string& value) const {
    const qn_str_t c_key = key.c_key();
    return qn_kvs_put(store_, &c_key, value.data(), static_cast<uint16_t>(value.size()));
  }
  int32_t put_text(const StoreKey& key, const std::string& text) const {
    const qn_str_t c_key = key.c_key();
    return qn_kvs_put_fmt(store_, &c_key, "%s", text.c_str());
  }
  int32_t remove(const StoreKey& key) const {
    const qn_str_t c_key = key.c_key();
    return qn_kvs_delete(store_, &c_key);
  }
  Reading get(const StoreKey& key) const {
    const qn_str_t c_key = key.c_key();
    char untouched = 0;
    void* block = &untouched;
    uint16_t length = 12345;
    const int32_t result = qn_kvs_get(store_, &c_key, &block, &length);
    if (result == -1 && block == &untouched && length == 12345) return {Reading::kNothing, ""};
    if (result == -1 && block == nullptr && length == 0) return {Reading::kEmpty, ""};
    if (result != 0 || reinterpret_cast<uintptr_t>(block) % 16 != 0) return {Reading::kBroken, ""};
    Reading reading{Reading::kValue, {static_cast<const char*>(block), length}};
    qn_free(block);
    return reading;
  }

 private:
  const std::string path_;
  const PoolPtr pool_;
  kvstore_t* store_ = nullptr;
  int32_t result_ = -1;
};

#endif // TESTS_KVS_OPEN_STORE_H
