// The tree index over the busy keys, and its building at open.
#include <search.h>

#include <cerrno>
#include <cstring>

#include "core/log_record.h"
#include "core/pool.h"
#include "kvs/kvstore.h"
#include "platform/error_text.h"

namespace qn {
namespace {

constexpr Message kNodeFailed{QN_LOG_W, 466, kStoreModule, "insert_into_free_list",
                              "create node from pool failed.  errno=(%d, %s)"};
constexpr Message kInsertFailed{QN_LOG_E, 467, kStoreModule, "tsearch", "insert index failed. key=%s."};
constexpr Message kMended{QN_LOG_W, 0, kStoreModule, "build_indexs",
                          "mended damaged entry. key_index=%d, value_type=%d, dbfile=%s."};
constexpr Trace kTraceBuild{kStoreModule, "qn_kvs_build_indexs", 468, "build_indexs",
                            469,          "build_indexs"};

constexpr size_t kWordSize = sizeof(uint64_t);
constexpr size_t kWordCount = kKeyTextSize / kWordSize;

// Eight bytes as a number that orders as they do.
uint64_t load_ordered(const char* text) {
  uint64_t word = 0;
  memcpy(&word, text, sizeof(word));
  return std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
}

// A key text as numbers that order as its bytes do, zeros behind its end.
struct KeyWords {
  uint64_t word[kWordCount] = {};
};

// Not by way of a copy with zeros: words that are read back from bytes just written make the processor
// wait.
KeyWords words_of(const char* text, size_t length) {
  KeyWords key;
  const size_t whole = length / kWordSize, rest = length % kWordSize;
  for (size_t i = 0; i < whole; i++) key.word[i] = load_ordered(text + kWordSize * i);
  if (rest == 0) return key;
  uint64_t last = 0;
  if (whole > 0) {
    // With the end of the word before in front, which is shifted out.
    last = load_ordered(text + length - kWordSize);
  } else {
    for (size_t i = 0; i < rest; i++) last = last << 8 | static_cast<uint8_t>(text[i]);
  }
  key.word[whole] = last << 8 * (kWordSize - rest);
  return key;
}

// As strncmp() on the texts.
template <typename Left>
int compare_words(Left left_word, const void* right) {
  const char* const right_text = static_cast<const kvs_key_entry_t*>(right)->text;
  for (size_t i = 0; i < kWordCount; i++) {
    const uint64_t left = left_word(i), word = load_ordered(right_text + kWordSize * i);
    if (left != word) return left < word ? -1 : 1;
  }
  return 0;
}

int compare_wanted(const void* wanted, const void* entry) {
  const KeyWords& words = *static_cast<const KeyWords*>(wanted);
  return compare_words([&](size_t i) { return words.word[i]; }, entry);
}

// The two below make an entry what the format says it is, so that no lookup is led out of the image and
// equal texts are equal bytes. They return whether it was damaged.

// A free entry of a new file has no place yet.
bool mend_place(kvs_key_entry_t& entry, uint8_t value_type, uint16_t value_index) {
  if (entry.value_type == value_type && entry.value_index() == value_index) return false;
  const bool is_new = entry.key_len == 0 && entry.value_type == 0 && entry.value_index() == 0;
  entry.value_type = value_type;
  entry.set_value_index(value_index);
  return !is_new;
}

bool mend_text(kvs_key_entry_t& entry) {
  static constexpr char kZeros[kKeyTextSize] = {};
  const size_t length = strnlen(entry.text, kKeyTextSize - 1);
  if (memcmp(entry.text + length, kZeros, kKeyTextSize - length) == 0) return false;
  memset(entry.text + length, 0, kKeyTextSize - length);
  return true;
}

kvs_node_t* make_node(kvstore_t& store, const kvs_value_type_t& type, uint32_t key_index) {
  kvs_node_t* const node = pcalloc_object<kvs_node_t>(store.pool);
  if (node == nullptr) return QN_FAIL(nullptr, kNodeFailed, QN_ERRNO);
  node->value_type = type.value_type;
  node->key_index = static_cast<uint16_t>(key_index);
  node->value_index = static_cast<uint16_t>(key_index - type.first_key_index);
  return node;
}

// A slot without a node cannot be handed out until the next open; a busy key without one stays readable.
void index_key(kvstore_t& store, const kvs_value_type_t& type, uint32_t key_index) {
  kvs_key_entry_t& entry = key_entry(store.db_addr, key_index);
  kvs_node_t* const node = make_node(store, type, key_index);
  const bool is_busy = entry.key_len != 0;
  if (node != nullptr) list_append(store.lists[is_busy ? kBusyList : type.value_type].head, node->link);
  bool is_damaged =
      mend_place(entry, type.value_type, static_cast<uint16_t>(key_index - type.first_key_index));
  if (is_busy && mend_text(entry)) is_damaged = true;
  if (is_damaged) QN_LOG(kMended, key_index, type.value_type, store.dbfile);
  if (is_busy) kvs_index_insert(store, entry);
}

} // namespace

// Texts are zero-padded to their full width, so their words decide.
int kvs_key_compare(const void* left, const void* right) {
  const char* const text = static_cast<const kvs_key_entry_t*>(left)->text;
  return compare_words([&](size_t i) { return load_ordered(text + kWordSize * i); }, right);
}

kvs_key_entry_t* kvs_index_find(const kvstore_t& store, const char* text, size_t length) {
  const KeyWords wanted = words_of(text, length);
  void* const found = tfind(&wanted, &store.index_root, compare_wanted);
  return found != nullptr ? *static_cast<kvs_key_entry_t**>(found) : nullptr;
}

void kvs_index_insert(kvstore_t& store, kvs_key_entry_t& entry) {
  if (tsearch(&entry, &store.index_root, kvs_key_compare) == nullptr) QN_LOG(kInsertFailed, entry.text);
}

void qn_kvs_build_indexs(kvstore_t& store) {
  const TraceScope trace(kTraceBuild);
  uint32_t key_index = 0;
  for (const kvs_value_type_t& type : kvs_value_types) {
    for (uint32_t i = 0; i < type.slot_count; i++) index_key(store, type, key_index++);
  }
  kvs_commit(store);
}

} // namespace qn
