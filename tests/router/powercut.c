// Changes of a store without end, each told when it is on disk, and the check of what a power cut left.
//
//   powercut run FILE SEED FIRST     changes FIRST, FIRST + 1, ...; "A n": number n is on disk
//   powercut verify FILE SEED ACKED  plays 1 to ACKED and compares; one more may be half done
//
// What change number n is follows from SEED and n. Even numbers put, move and delete keys of all classes;
// odd ones put whole values and delete them, under another name each time.
#include <inttypes.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#define WHOLE_VALUE_WITHOUT_MAIN
#define WHOLE_MAX 2000 // in the class where a value can lie across two pages of a file
#include "../../examples/whole_value.c"

#define KEYS 96
#define CLASSES 7
#define PUTS 3 // of a whole value, before its two keys are deleted, the older one first
#define ROUND (PUTS + 2)

static const struct {
  uint32_t len_min, len_max, keys; // two keys of the last class are a whole value's
} classes[CLASSES] = {{1, 30, 32},    {31, 62, 32},    {63, 126, 32},  {127, 254, 32},
                      {255, 510, 32}, {511, 1022, 32}, {1023, 2045, 6}};

enum kind { NEW, SAME, LONGER, SHORTER, GONE, WHOLE, WHOLE_GONE };
static const char* const kinds[] = {"new key", "update",      "longer class",     "shorter class",
                                    "delete",  "whole value", "whole value's key"};
typedef struct change {
  enum kind kind;
  unsigned key;
  uint32_t n, len;
} change_t;

static change_t model[KEYS]; // the last put of each key; its length is 0 where the key is absent
static uint32_t used[CLASSES];
static uint64_t seed, state;
static kvstore_t* store;

static uint32_t draw(void) { // splitmix64
  uint64_t z = (state += UINT64_C(0x9e3779b97f4a7c15));
  z = (z ^ (z >> 30)) * UINT64_C(0xbf58476d1ce4e5b9);
  z = (z ^ (z >> 27)) * UINT64_C(0x94d049bb133111eb);
  return (uint32_t)(z >> 32);
}

// The bytes that change number n puts.
static const uint8_t* bytes_of(uint32_t n, uint32_t len) {
  static uint8_t bytes[QN_KVS_VALUE_MAX];
  state = seed << 32 ^ n;
  for (uint32_t i = 0; i < len; i++) bytes[i] = (uint8_t)(1 + draw() % 255);
  return bytes;
}

static unsigned class_of(uint32_t len) {
  unsigned row = 0;
  while (len > classes[row].len_max) row++;
  return row;
}

static qn_str_t key_of(const change_t* change) {
  static char text[QN_KVS_KEY_MAX + 1];
  const uint32_t turn = change->n / 2;
  const int len = change->kind >= WHOLE ? snprintf(text, sizeof(text), "whole.%" PRIu32, turn / ROUND)
                                        : snprintf(text, sizeof(text), "cut.%02u", change->key);
  return (qn_str_t){(uint32_t)len, text};
}

// What change number n is; the model stands behind number n - 1.
static change_t plan(uint32_t n) {
  state = seed * 1000003 + n;
  change_t change = {GONE, draw() % KEYS, n, 0};
  if (n % 2 == 1) {
    change.kind = n / 2 % ROUND < PUTS ? WHOLE : WHOLE_GONE;
    change.len = change.kind == WHOLE ? 1 + draw() % WHOLE_MAX : 0;
    return change;
  }
  const uint32_t old_len = model[change.key].len, dice = draw() % 100;
  const unsigned old_class = class_of(old_len);
  if (old_len != 0 && dice < 10) return change;
  unsigned row = old_class;
  while (old_len == 0 || dice >= 60) {
    row = draw() % 3 == 0 ? CLASSES - 1 : draw() % CLASSES;
    if (used[row] < classes[row].keys || (old_len != 0 && row == old_class)) break;
  }
  change.len = classes[row].len_min + draw() % (classes[row].len_max - classes[row].len_min + 1);
  change.kind = old_len == 0 ? NEW : row == old_class ? SAME : row > old_class ? LONGER : SHORTER;
  return change;
}

static void apply(const change_t* change) {
  change_t* row = &model[change->key];
  if (change->kind >= WHOLE) return;
  if (row->len != 0) used[class_of(row->len)]--;
  *row = *change;
  if (row->len != 0) used[class_of(row->len)]++;
}

// Whether the whole value of that name is what number n put; 0 stands for none.
static int is_whole(const char* name, uint32_t n) {
  whole_t found;
  if (whole_get(store, name, &found) < 0) return n == 0;
  const uint32_t len = n != 0 ? plan(n).len : 0;
  return n != 0 && found.len == len && memcmp(found.bytes, bytes_of(n, len), len) == 0;
}

// Makes a change. The first one after a cut may have been made already. Returns 0, else the reason.
static int make(const change_t* change, int first) {
  qn_str_t key = key_of(change);
  if (change->kind == WHOLE) {
    if (first && is_whole(key.data, change->n)) return 0;
    return whole_put(store, key.data, bytes_of(change->n, change->len), change->len);
  }
  if (change->kind == WHOLE_GONE) { // of three puts the second one is the older that is left
    key.len += (uint32_t)sprintf(key.data + key.len, ".%d", change->n / 2 % ROUND == PUTS);
  }
  const int result =
      change->len == 0 ? qn_kvs_delete(store, &key)
                       : qn_kvs_put(store, &key, bytes_of(change->n, change->len), (uint16_t)change->len);
  const int reason = errno;
  if (result == 0) return reason;
  return first && change->len == 0 ? 0 : -1;
}

static int run(uint32_t first) {
  for (uint32_t n = 1;; n++) {
    const change_t change = plan(n);
    const int reason = n < first ? 0 : make(&change, n == first);
    if (reason != 0) return printf("STOPPED at %" PRIu32 ": %s, %d\n", n, kinds[change.kind], reason);
    apply(&change);
    if (n >= first && (printf("A %" PRIu32 "\n", n) < 0 || fflush(stdout) != 0)) return 1;
    tcdrain(STDOUT_FILENO); // the line has left the machine before the next change begins
  }
}

// Returns the length of a key's value, -1 for an absent key.
static int read_key(qn_str_t key, uint8_t* bytes) {
  static char untouched;
  void* value = &untouched;
  uint16_t len = 0;
  if (qn_kvs_get(store, &key, &value, &len) != 0) return value == &untouched ? -1 : 0;
  memcpy(bytes, value, len);
  qn_free(value);
  return len;
}

static int is_value(const change_t* put, int len, const uint8_t* bytes) {
  if (put->len == 0) return len == -1;
  return len == (int)put->len && memcmp(bytes, bytes_of(put->n, put->len), put->len) == 0;
}

// What became of the change that was under way, as store.h has it; null for what may not be.
static const char* fate(const change_t* change, int len, const uint8_t* bytes) {
  const change_t* old = &model[change->key];
  if (is_value(change, len, bytes)) return "made";
  if (is_value(old, len, bytes)) return "not made";
  if (len == -1) return change->kind == LONGER ? "between two classes" : NULL;
  if (change->kind != SAME && change->kind != GONE) return "torn: what its slot held";
  if (change->kind != SAME || len != (int)change->len) return NULL;
  uint8_t mixed[QN_KVS_VALUE_MAX] = {0};
  memcpy(mixed, bytes_of(old->n, old->len), old->len);
  const uint8_t* new_bytes = bytes_of(change->n, change->len);
  int same = 0;
  while (bytes[same] == new_bytes[same]) same++; // they differ
  return memcmp(bytes + same, mixed + same, (size_t)(len - same)) == 0 ? "torn: new, then old" : NULL;
}

// The put whose whole value is there after change number n; 0 for none.
static uint32_t whole_after(uint32_t n) {
  const uint32_t phase = n / 2 % ROUND;
  return phase < PUTS ? n : phase == PUTS ? n - 2 : 0;
}

// What became of a change of a whole value: it must be whole, the new one or the one before, if there was
// one.
static const char* whole_fate(const change_t* change) {
  static uint8_t bytes[QN_KVS_VALUE_MAX];
  whole_t ignored;
  qn_str_t key = key_of(change);
  const uint32_t after = whole_after(change->n);
  const uint32_t before = change->n / 2 % ROUND == 0 ? 0 : whole_after(change->n - 2);
  if (is_whole(key.data, after)) return after != before ? "made" : "the newer key stays";
  if (!is_whole(key.data, before)) return NULL;
  for (int which = 0; which < 2; which++) {
    if (whole_read(store, key.data, which, &ignored)) continue;
    const int more = sprintf(key.data + key.len, ".%d", which);
    if (read_key((qn_str_t){key.len + (uint32_t)more, key.data}, bytes) >= 0)
      return "key torn, value whole";
    key.data[key.len] = '\0';
  }
  return "not made";
}

static int verify(uint32_t acked) {
  static uint8_t bytes[QN_KVS_VALUE_MAX];
  for (uint32_t n = 1; n <= acked; n++) {
    const change_t change = plan(n);
    apply(&change);
  }
  const change_t change = plan(acked + 1), last = plan(acked - (acked % 2 == 0));
  const int is_apart = change.kind < WHOLE; // from the whole value, which is as the last change left it
  const char* what = is_apart ? NULL : whole_fate(&change);
  unsigned held = 0, bad = is_apart && !is_whole(key_of(&last).data, whole_after(last.n));
  for (unsigned key = 0; key < KEYS; key++) {
    const int len = read_key(key_of(&(change_t){.key = key}), bytes);
    if (is_apart && key == change.key) {
      what = fate(&change, len, bytes);
    } else if (is_value(&model[key], len, bytes)) {
      held += model[key].len != 0;
    } else {
      printf("  cut.%02u: %d bytes, not the %" PRIu32 " of change %" PRIu32 "\n", key, len,
             model[key].len, model[key].n);
      bad++;
    }
  }
  bad += what == NULL;
  printf("VERDICT %s acked=%" PRIu32 " held=%u bad=%u under_way=%s: %s\n", bad == 0 ? "good" : "BAD",
         acked, held, bad, kinds[change.kind], what != NULL ? what : "what may not be");
  return bad != 0;
}

int main(int argc, char** argv) {
  qn_pool_t* pool = qn_pool_create_default(); // until the process ends
  if (argc != 5 || qn_log_new_singleton_instance(0x80, QN_LOG_ROLE_NIL, 1) != 0) return 2;
  if (pool == NULL || qn_kvs_open(&store, pool, argv[2]) != 0) return puts("STOPPED at the open");
  seed = strtoull(argv[3], NULL, 10);
  const uint32_t number = (uint32_t)strtoul(argv[4], NULL, 10);
  return strcmp(argv[1], "run") == 0 ? run(number) : verify(number);
}
