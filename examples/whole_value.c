// A value that is whole after a power cut: two keys of one size class, written in turn, each with a
// sequence number and a CRC-32. docs/whole-values.md tells why.
//   cc -o whole_value whole_value.c $(pkg-config --cflags --libs quillcore)
//   ./whole_value FILE [TEXT] stores TEXT, if there is one, and prints what is stored then
#include <errno.h>
#include <quillcore/quillcore.h>
#include <stdio.h>
#include <string.h>

#ifndef WHOLE_MAX
#define WHOLE_MAX 1000 // bytes of a value; decides the size class, so it never changes
#endif
typedef struct whole { // stored at its full size, so that each put stays in its place
  uint32_t crc;        // of the key and of all that follows here
  uint32_t sequence, len;
  uint8_t bytes[WHOLE_MAX];
} whole_t;
_Static_assert(sizeof(whole_t) <= QN_KVS_VALUE_MAX, "a store takes no more");
static uint32_t whole_crc(const char* key, const whole_t* record) {
  const size_t key_len = strlen(key), skip = sizeof(record->crc);
  uint32_t crc = UINT32_MAX; // the CRC-32 of zlib and of Ethernet
  for (size_t i = 0; i < key_len + sizeof(*record) - skip; i++) {
    crc ^= (uint8_t)(i < key_len ? key[i] : ((const char*)record)[i - key_len + skip]);
    for (int bit = 0; bit < 8; bit++) crc = crc >> 1 ^ (0xedb88320 & -(crc & 1));
  }
  return ~crc;
}

// Reads NAME.0 or NAME.1. Returns whether it is there and whole.
static int whole_read(kvstore_t* store, const char* name, int which, whole_t* record) {
  char text[QN_KVS_KEY_MAX + 1];
  const qn_str_t key = {(uint32_t)snprintf(text, sizeof(text), "%s.%d", name, which), text};
  void* value = NULL;
  uint16_t len = 0;
  const int got = qn_kvs_get(store, &key, &value, &len) == 0 && len == sizeof(*record);
  if (got) memcpy(record, value, len);
  qn_free(value);
  return got && record->len <= WHOLE_MAX && record->crc == whole_crc(text, record);
}

// Reads the newer whole one of the two; behind UINT32_MAX comes 0. Returns which it is, -1 for none.
static int whole_get(kvstore_t* store, const char* name, whole_t* newest) {
  whole_t other;
  const int first = whole_read(store, name, 0, newest), second = whole_read(store, name, 1, &other);
  if (!second || (first && (int32_t)(newest->sequence - other.sequence) > 0)) return first ? 0 : -1;
  *newest = other;
  return 1;
}

// Returns 0 when it is on disk, else errno's reason; the value before it stays then, up to a restart.
static int whole_put(kvstore_t* store, const char* name, const void* value, size_t len) {
  whole_t now, next = {.len = (uint32_t)len};
  if (len > WHOLE_MAX || strlen(name) > QN_KVS_KEY_MAX - 2) return EINVAL;
  const int newest = whole_get(store, name, &now);
  char text[QN_KVS_KEY_MAX + 1]; // the older one's, the broken one's, or the first
  const qn_str_t key = {(uint32_t)snprintf(text, sizeof(text), "%s.%d", name, newest == 0), text};
  next.sequence = newest < 0 ? 1 : now.sequence + 1;
  memcpy(next.bytes, value, len);
  next.crc = whole_crc(text, &next);
  if (qn_kvs_put(store, &key, &next, sizeof(next)) != 0) return ENOSPC; // its class is full
  const int reason = errno;
  // What only memory has is broken there, too: the next put then comes here again, not to the other one.
  if (reason != 0) next.crc = ~next.crc, qn_kvs_put(store, &key, &next, sizeof(next));
  return reason;
}

#ifndef WHOLE_VALUE_WITHOUT_MAIN
int main(int argc, char** argv) {
  kvstore_t* store;
  whole_t found = {0};
  qn_pool_t* pool = qn_pool_create_default(); // until the process ends
  if (argc < 2 || pool == NULL || qn_log_new_singleton_instance(0x80, QN_LOG_ROLE_NIL, 1) != 0) return 2;
  if (qn_kvs_open(&store, pool, argv[1]) != 0) return 2;
  const int reason = argc > 2 ? whole_put(store, "text", argv[2], strlen(argv[2])) : 0;
  if (reason != 0) fprintf(stderr, "not stored: %s\n", strerror(reason));
  if (whole_get(store, "text", &found) >= 0) printf("%.*s\n", (int)found.len, (char*)found.bytes);
  qn_kvs_close(store);
  return reason != 0;
}
#endif
