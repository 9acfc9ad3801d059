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
constexpr Trace kTraceBuild{kStoreModule, "qn_kvs_build_indexs", 468, "build_indexs",
                            469,          "build_indexs"};

// Eight bytes of a key text as a number that orders as the bytes do.
uint64_t load_ordered(const char* text) {
  uint64_t word = 0;
  memcpy(&word, text, sizeof(word));
  return std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
}

// Makes a damaged entry what the format says it is, so that no lookup is led out of the image and equal
// texts are equal bytes.
void mend_busy_entry(kvs_key_entry_t& entry, const kvs_value_type_t& type, uint32_t key_index) {
  const size_t length = strnlen(entry.text, kKeyTextSize - 1);
  memset(entry.text + length, 0, kKeyTextSize - length);
  entry.value_type = type.value_type;
  entry.set_value_index(static_cast<uint16_t>(key_index - type.first_key_index));
}

kvs_node_t* make_node(kvstore_t& store, const kvs_value_type_t& type, uint32_t key_index) {
  kvs_node_t* const node = pcalloc_object<kvs_node_t>(store.pool);
  if (node == nullptr) {
    const int error = errno;
    QN_LOG(kNodeFailed, error, ErrorText(error).text());
    return nullptr;
  }
  node->value_type = type.value_type;
  node->key_index = static_cast<uint16_t>(key_index);
  node->value_index = static_cast<uint16_t>(key_index - type.first_key_index);
  return node;
}

// A slot without a node cannot be handed out until the next open; a busy key without one stays readable.
void index_key(kvstore_t& store, const kvs_value_type_t& type, uint32_t key_index) {
  kvs_key_entry_t& entry = key_entry(store.db_addr, key_index);
  kvs_node_t* const node = make_node(store, type, key_index);
  if (entry.key_len == 0) {
    if (node != nullptr) list_append(store.lists[type.value_type].head, node->link);
    entry.value_type = type.value_type;
    entry.set_value_index(static_cast<uint16_t>(key_index - type.first_key_index));
    return;
  }
  mend_busy_entry(entry, type, key_index);
  if (node != nullptr) list_append(store.lists[kBusyList].head, node->link);
  kvs_index_insert(store, entry);
}

} // namespace

// Texts are zero-padded to their full width, so four words decide as strncmp() would.
int kvs_key_compare(const void* left, const void* right) {
  const char* const left_text = static_cast<const kvs_key_entry_t*>(left)->text;
  const char* const right_text = static_cast<const kvs_key_entry_t*>(right)->text;
  for (size_t i = 0; i < kKeyTextSize; i += sizeof(uint64_t)) {
    const uint64_t left_word = load_ordered(left_text + i);
    const uint64_t right_word = load_ordered(right_text + i);
    if (left_word != right_word) return left_word < right_word ? -1 : 1;
  }
  return 0;
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
