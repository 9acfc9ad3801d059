// Get, put and delete on an open store.
//
// The length of a value alone decides its size class, so a key moves to another entry and slot when its
// value changes class: it has no place of its own, only its present entry.
#include <search.h>

#include <cstdarg>
#include <cstring>

#include "core/heap.h"
#include "core/log_record.h"
#include "kvs/slots.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "quillcore/utility.h"

namespace qn {
namespace {

constexpr char kGet[] = "kvs_get";
constexpr char kPut[] = "kvs_put";
constexpr char kPutNew[] = "kvs_put_new";
constexpr char kUpdate[] = "kvs_update";
constexpr char kPutFmt[] = "kvs_put_fmt";
constexpr char kDelete[] = "kvs_delete";

constexpr Message kGetNoStore{QN_LOG_E, 506, kStoreModule, kGet, "db is null."};
constexpr Message kGetNoValuePtr{QN_LOG_E, 508, kStoreModule, kGet, "get key=%s, value ptr is NULL."};
constexpr Message kGetKey{QN_LOG_D, 509, kStoreModule, kGet, "key=%s"};
constexpr Message kGetNoLenPtr{QN_LOG_E, 510, kStoreModule, kGet, "get key=%s, value_len ptr is NULL."};
constexpr Message kGetNotFound{QN_LOG_D, 511, kStoreModule, kGet, "tfind not found key=%s."};
constexpr Message kGetTooLong{QN_LOG_E, 512, kStoreModule, kGet,
                              "get key=%s, item value len=%d greater than max=%d."};
constexpr Message kGetFound{QN_LOG_D, 513, kStoreModule, kGet,
                            "tfind success. key=%s,value_type=%d,value_index=%d, value_len=%d"};
constexpr Message kGetNoBlock{QN_LOG_E, 514, kStoreModule, kGet, "get key=%s,  malloc for value failed."};
constexpr Message kGetKeyTooLong{QN_LOG_E, 0, kStoreModule, kGet, "key=%s longer than max=%d."};

constexpr Message kPutTooLong{QN_LOG_W, 491, kStoreModule, kPut,
                              "value_len=%d greater than max=%d. dbfile=%s."};
constexpr Message kPutKey{QN_LOG_D, 492, kStoreModule, kPut, "key=%s"};
constexpr Message kPutNoType{QN_LOG_W, 0, kStoreModule, kPut, "value_len=%d not matched any value_type."};
constexpr Message kPutNoNode{QN_LOG_D, 470, kStoreModule, kPut,
                             "not found free node. value_len=%d, val_type=%d dbfile=%s."};
constexpr Message kPutKeyTooLong{QN_LOG_E, 0, kStoreModule, kPut, "key=%s longer than max=%d."};

constexpr Message kNodeFound{
    QN_LOG_D, 472, kStoreModule, kPutNew,
    "found free node. key=%s, key_index=%d, value_index=%d, value_len=%d, val_type=%d."};
constexpr Message kNewCopyFailed{
    QN_LOG_E, 473, kStoreModule, kPutNew,
    "memcpy_s failed, key=%s, key_index=%d, value_index=%d, value_len=%d, val_type=%d."};
constexpr Message kNewDone{
    QN_LOG_D, 474, kStoreModule, kPutNew,
    "add key success. key=%s, key_index=%d, value_index=%d, value_len=%d, val_type=%d."};

constexpr Message kInPlace{QN_LOG_D, 475, kStoreModule, kUpdate,
                           "update in-place, key=%s,value_type=%d,value_len=%d"};
constexpr Message kInPlaceCopyFailed{
    QN_LOG_E, 476, kStoreModule, kUpdate,
    "update in-place memcpy_s failed, key=%s,value_type=%d,value_len=%d"};
constexpr Message kNotInPlace{QN_LOG_D, 477, kStoreModule, kUpdate,
                              "update not-in-place, key=%s,value_type=%d,value_len=%d"};
constexpr Message kUpdated{QN_LOG_D, 478, kStoreModule, kUpdate,
                           "update success, key=%s,value_type=%d,value_len=%d"};
constexpr Message kNoBusyNode{
    QN_LOG_W, 471, kStoreModule, "mv_busy_node_to_free_list",
    "not found free node. key_index=%d, value_index=%d, value_len=%d,val_type=%d dbfile=%s."};

constexpr Message kFmtNoStore{QN_LOG_E, 494, kStoreModule, kPutFmt, "db is null."};
constexpr Message kFmtNoKey{QN_LOG_E, 495, kStoreModule, kPutFmt, "key is null."};
constexpr Message kFmtKey{QN_LOG_D, 496, kStoreModule, kPutFmt, "key=%s"};
constexpr Message kFmtNoBuffer{QN_LOG_E, 497, kStoreModule, kPutFmt, "malloc failed.key=%s, fmt=%s"};
constexpr Message kFmtFailed{QN_LOG_E, 498, kStoreModule, kPutFmt, "vsprintf_s failed.key=%s, fmt=%s"};

constexpr Message kDeleteNoStore{QN_LOG_E, 499, kStoreModule, kDelete, "db is null."};
constexpr Message kDeleteNoKey{QN_LOG_E, 500, kStoreModule, kDelete, "key is null."};
constexpr Message kDeleteKey{QN_LOG_D, 502, kStoreModule, kDelete, "key=%s"};
constexpr Message kDeleteNotFound{QN_LOG_E, 503, kStoreModule, kDelete, "tfind not found key=%s."};
constexpr Message kDeleted{QN_LOG_D, 504, kStoreModule, kDelete,
                           "delete success. key=%s,value_type=%d,value_index=%d, value_len=%d"};
constexpr Message kDeleteKeyTooLong{QN_LOG_E, 0, kStoreModule, kDelete, "key=%s longer than max=%d."};

constexpr Trace kTraceGet{kStoreModule, "qn_kvs_get", 507, kGet, 515, kGet};
constexpr Trace kTracePut{kStoreModule, "qn_kvs_put", 490, kPut, 493, kPut};
constexpr Trace kTraceDelete{kStoreModule, "qn_kvs_delete", 501, kDelete, 505, kDelete};

constexpr int kPrintedMax = 2046; // what the messages name as the limit
constexpr uint32_t kAlignment = 16;
constexpr size_t kFmtBufferSize = 2046;
constexpr size_t kFmtTextSize = QN_KVS_TEXT_MAX + 1;
constexpr uint8_t kMovedKeyLen = QN_KVS_KEY_MAX; // `key_len` of every entry that an update has moved

// A key is the first `len` bytes of its data, or less if a NUL comes first.
bool key_fits(const qn_str_t& key) {
  return key.len <= QN_KVS_KEY_MAX || strnlen(key.data, kKeyTextSize) <= QN_KVS_KEY_MAX;
}

void kvs_copy_key(const qn_str_t& key, char (&text)[kKeyTextSize]) {
  memset_s(text, kKeyTextSize, 0, kKeyTextSize);
  strncpy_s(text, kKeyTextSize, key.data, key.len);
}

kvs_key_entry_t* find_entry(const kvstore_t& store, const qn_str_t& key) {
  const size_t length = strnlen(key.data, key.len < QN_KVS_KEY_MAX ? key.len : QN_KVS_KEY_MAX);
  return kvs_index_find(store, key.data, length);
}

void mv_busy_node_to_free_list(kvstore_t& store, kvs_key_entry_t& entry, uint16_t value_len) {
  tdelete(&entry, &store.index_root, kvs_key_compare);
  entry.key_len = 0;
  const uint32_t key_index = entry.value_index() + kvs_value_types[entry.value_type].first_key_index;
  kvs_node_t* const node = take_busy_node(store, entry.value_type, key_index);
  if (node == nullptr) {
    QN_LOG(kNoBusyNode, key_index, entry.value_index(), value_len, entry.value_type, store.dbfile);
    return;
  }
  append_free_node(store, *node);
}

struct Value {
  const void* bytes;
  uint16_t len;
};

// The byte that marks an entry as busy. A key of length 0 leaves it free for the next open; a length
// that only a longer `data` behind a NUL can have must not become 0 by being cut.
uint8_t key_len_byte(uint32_t len) { return static_cast<uint8_t>(len < UINT8_MAX ? len : UINT8_MAX); }

enum class Index { kEnter, kLeaveToCaller };

// Takes a free slot of the class and fills in slot and entry. Returns the entry; null when the class is
// full or the copy fails, and then nothing has changed.
kvs_key_entry_t* kvs_put_new(kvstore_t& store, const qn_str_t& key, const kvs_value_type_t& type,
                             const Value& value, Index index) {
  kvs_node_t* const node = take_free_node(store, type.value_type);
  if (node == nullptr) return QN_FAIL(nullptr, kPutNoNode, value.len, type.value_type, store.dbfile);
  QN_LOG(kNodeFound, key.data, node->key_index, node->value_index, value.len, type.value_type);
  append_busy_node(store, *node);

  uint8_t* const slot = value_slot(store.db_addr, type.value_type, node->value_index);
  clear_slot(slot, type, value.len);
  int failed = 0;
  {
    const WriteGuard guard(store.rwlocks[type.value_type]);
    failed = fill_slot(slot, type, value.bytes, value.len);
  }
  if (failed != 0) {
    QN_LOG(kNewCopyFailed, key.data, node->key_index, node->value_index, value.len, type.value_type);
    take_busy_node(store, type.value_type, node->key_index);
    append_free_node(store, *node);
    return nullptr;
  }
  kvs_key_entry_t& entry = key_entry(store.db_addr, node->key_index);
  kvs_copy_key(key, entry.text);
  entry.key_len = key_len_byte(key.len);
  if (index == Index::kEnter) kvs_index_insert(store, entry);
  QN_LOG(kNewDone, key.data, node->key_index, node->value_index, value.len, type.value_type);
  return &entry;
}

int32_t put_new_key(kvstore_t& store, const qn_str_t& key, const kvs_value_type_t& type,
                    const Value& value) {
  if (kvs_put_new(store, key, type, value, Index::kEnter) == nullptr) return -1;
  kvs_commit(store);
  return 0;
}

int32_t update_in_place(kvstore_t& store, const kvs_key_entry_t& entry, const Value& value) {
  QN_LOG(kInPlace, entry.text, entry.value_type, value.len);
  const kvs_value_type_t& type = kvs_value_types[entry.value_type];
  uint8_t* const slot = slot_of(store, entry);
  int failed = 0;
  {
    const WriteGuard guard(store.rwlocks[entry.value_type]);
    clear_slot(slot, type, value.len);
    failed = fill_slot(slot, type, value.bytes, value.len);
  }
  if (failed != 0) return QN_FAIL(-1, kInPlaceCopyFailed, entry.text, entry.value_type, value.len);
  QN_LOG(kUpdated, entry.text, entry.value_type, value.len);
  kvs_commit(store);
  return 0;
}

// The new slot is taken before the old one is given back, so a full class leaves the key as it was. The
// old entry leaves the tree before the new one enters: the tree takes no second equal key.
int32_t update_not_in_place(kvstore_t& store, kvs_key_entry_t& old_entry, const kvs_value_type_t& type,
                            const Value& value) {
  QN_LOG(kNotInPlace, old_entry.text, type.value_type, value.len);
  const qn_str_t key = {kMovedKeyLen, old_entry.text};
  kvs_key_entry_t* entry = nullptr;
  {
    const SpinGuard guard(store.lock);
    entry = kvs_put_new(store, key, type, value, Index::kLeaveToCaller);
    if (entry == nullptr) return -1;
    mv_busy_node_to_free_list(store, old_entry, value.len);
    kvs_index_insert(store, *entry);
  }
  QN_LOG(kUpdated, entry->text, entry->value_type, value.len);
  kvs_commit(store);
  return 0;
}

int32_t put_locked(kvstore_t& store, const qn_str_t& key, const kvs_value_type_t& type,
                   const Value& value) {
  const MutexGuard guard(store.mutex);
  kvs_key_entry_t* const entry = find_entry(store, key);
  if (entry == nullptr) return put_new_key(store, key, type, value);
  if (entry->value_type == type.value_type) return update_in_place(store, *entry, value);
  return update_not_in_place(store, *entry, type, value);
}

} // namespace
} // namespace qn

int32_t qn_kvs_get(kvstore_t* store, const qn_str_t* key, void** value, uint16_t* value_len) {
  using namespace qn;
  if (store == nullptr) return QN_FAIL_CONSOLE(-1, kGetNoStore);
  trace_enter(kTraceGet);
  if (value == nullptr) return QN_FAIL(-1, kGetNoValuePtr, key->data);
  QN_LOG(kGetKey, key->data);
  if (value_len == nullptr) return QN_FAIL(-1, kGetNoLenPtr, key->data);
  if (!key_fits(*key)) return QN_FAIL(-1, kGetKeyTooLong, key->data, QN_KVS_KEY_MAX);

  const MutexGuard guard(store->mutex);
  const kvs_key_entry_t* const entry = find_entry(*store, *key);
  if (entry == nullptr) {
    QN_LOG(kGetNotFound, key->data); // an answer like another, and as fast
    return -1;
  }
  const uint8_t* const slot = slot_of(*store, *entry);
  const uint16_t length = read_value_len(slot);
  if (length > QN_KVS_VALUE_MAX) return QN_FAIL(-1, kGetTooLong, key->data, length, kPrintedMax);
  QN_LOG(kGetFound, key->data, entry->value_type, entry->value_index(), length);
  *value = memalign_unfilled(kAlignment, length);
  if (*value == nullptr) {
    QN_LOG(kGetNoBlock, key->data);
    *value_len = 0;
    return -1;
  }
  memcpy_s(*value, length, slot + kValueLenSize, length);
  *value_len = length;
  trace_leave(kTraceGet);
  return 0;
}

int32_t qn_kvs_put(kvstore_t* store, const qn_str_t* key, const void* value, uint16_t value_len) {
  using namespace qn;
  trace_enter(kTracePut);
  if (value_len > QN_KVS_VALUE_MAX)
    return QN_FAIL(-1, kPutTooLong, value_len, kPrintedMax, store->dbfile);
  QN_LOG(kPutKey, key->data);
  qn_utils_dump_hex(value, value_len, 1);
  const kvs_value_type_t* const type = value_type_for_length(value_len);
  if (type == nullptr) return QN_FAIL(-1, kPutNoType, value_len);
  int32_t result = -1;
  if (key_fits(*key)) {
    result = put_locked(*store, *key, *type, {value, value_len});
  } else {
    QN_LOG(kPutKeyTooLong, key->data, QN_KVS_KEY_MAX);
  }
  trace_leave(kTracePut);
  return result;
}

int32_t qn_kvs_put_fmt(kvstore_t* store, const qn_str_t* key, const char* fmt, ...) {
  using namespace qn;
  if (store == nullptr) return QN_FAIL(-1, kFmtNoStore);
  if (key == nullptr) return QN_FAIL(-1, kFmtNoKey);
  QN_LOG(kFmtKey, key->data);
  if (fmt == nullptr) return QN_FAIL(-1, kFmtFailed, key->data, "-");
  HeapPtr<char> text(static_cast<char*>(qn_alloc(kFmtBufferSize)));
  if (!text) return QN_FAIL(-1, kFmtNoBuffer, key->data, fmt);
  va_list args;
  va_start(args, fmt);
  const int length = vsprintf_s(text.get(), kFmtTextSize, fmt, args);
  va_end(args);
  if (length < 0) return QN_FAIL(-1, kFmtFailed, key->data, fmt);
  const uint16_t value_len = static_cast<uint16_t>(strnlen(text.get(), kFmtTextSize));
  const int32_t result = qn_kvs_put(store, key, text.get(), value_len);
  const ErrnoKept reason;
  text.reset();
  return result;
}

int32_t qn_kvs_delete(kvstore_t* store, const qn_str_t* key) {
  using namespace qn;
  if (store == nullptr) return QN_FAIL_CONSOLE(-1, kDeleteNoStore);
  if (key == nullptr) return QN_FAIL_CONSOLE(-1, kDeleteNoKey);
  trace_enter(kTraceDelete);
  QN_LOG(kDeleteKey, key->data);
  if (!key_fits(*key)) return QN_FAIL(-1, kDeleteKeyTooLong, key->data, QN_KVS_KEY_MAX);

  const MutexGuard guard(store->mutex);
  kvs_key_entry_t* const entry = find_entry(*store, *key);
  if (entry == nullptr) return QN_FAIL(-1, kDeleteNotFound, key->data);
  const uint16_t value_len = read_value_len(slot_of(*store, *entry));
  {
    const SpinGuard lock(store->lock);
    mv_busy_node_to_free_list(*store, *entry, value_len);
  }
  kvs_commit(*store);
  const ErrnoKept reason;
  QN_LOG(kDeleted, entry->text, entry->value_type, entry->value_index(), value_len);
  trace_leave(kTraceDelete);
  return 0;
}
