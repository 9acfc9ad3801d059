// Bulk requests over one connection, one at a time.
#include "bulk.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "settings.h"

static settings_t first, second; // too large for a stack

static int64_t now_us(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

// The time since `start_us`, spread over one request for each line of the file.
static int64_t per_request_us(int64_t start_us) {
  return first.count != 0 ? (now_us() - start_us) / (int64_t)first.count : 0;
}

static void print_refusal(const char* key, const hub_answer_t* answer) {
  const char* text;
  const uint32_t code = hub_error(answer, &text);
  printf("  %s: refused, msg_err=%u, code %" PRIu32 ": %s\n", key, answer->msg_err, code, text);
}

int bulk_load(hub_client_t* client, const char* path) {
  if (settings_load(&first, path) != 0) return EXIT_USAGE;

  size_t acked = 0;
  int64_t slowest_us = 0;
  const int64_t start_us = now_us();
  for (size_t i = 0; i < first.count; i++) {
    const setting_t* row = &first.rows[i];
    hub_answer_t answer;
    const int64_t before_us = now_us();
    const hub_result_t result = hub_put(client, row->key, row->value, row->value_len, &answer);
    const int64_t took_us = now_us() - before_us;
    if (took_us > slowest_us) slowest_us = took_us;

    if (result == HUB_DONE) acked++;
    if (result == HUB_REFUSED) print_refusal(row->key, &answer);
    if (result == HUB_NO_ANSWER) {
      printf("  %s: no answer\n", row->key);
      break;
    }
  }
  printf("%zu of %zu puts acknowledged, %" PRId64 " us per request, slowest %" PRId64 " us\n", acked,
         first.count, per_request_us(start_us), slowest_us);
  return acked == first.count ? EXIT_HELD : EXIT_NOT_HELD;
}

static int is_value(const hub_answer_t* answer, const setting_t* row) {
  return answer->body_len == row->value_len && memcmp(answer->body, row->value, row->value_len) == 0;
}

// An empty value can be put, but a get of it is refused: the store's file knows the key and the length 0.
static int is_known_as_empty(hub_result_t result, const hub_answer_t* answer) {
  const char* text;
  return result == HUB_REFUSED && hub_error(answer, &text) == HUB_ERR_NO_VALUE;
}

// Returns not 0 if `result` and `answer` of a get are what a store that holds `row` gives.
static int is_held(hub_result_t result, const hub_answer_t* answer, const setting_t* row) {
  if (row->value_len == 0) return is_known_as_empty(result, answer);
  return result == HUB_DONE && is_value(answer, row);
}

static void print_difference(hub_result_t result, const hub_answer_t* answer, const setting_t* row) {
  if (result == HUB_NO_ANSWER) {
    printf("  %s: no answer\n", row->key);
    return;
  }
  if (result == HUB_REFUSED) {
    print_refusal(row->key, answer);
    return;
  }
  size_t same = 0;
  while (same < row->value_len && same < answer->body_len &&
         answer->body[same] == (uint8_t)row->value[same]) {
    same++;
  }
  printf("  %s: %zu bytes expected, %" PRIu32 " came, the first %zu are the same\n", row->key,
         row->value_len, answer->body_len, same);
}

int bulk_verify(hub_client_t* client, const char* path) {
  if (settings_load(&first, path) != 0) return EXIT_USAGE;

  size_t same = 0;
  size_t empty = 0;
  size_t different = 0;
  const int64_t start_us = now_us();
  for (size_t i = 0; i < first.count; i++) {
    const setting_t* row = &first.rows[i];
    hub_answer_t answer;
    const hub_result_t result = hub_get(client, row->key, &answer);
    if (!is_held(result, &answer, row)) {
      print_difference(result, &answer, row);
      different++;
    } else if (row->value_len == 0) {
      empty++;
    } else {
      same++;
    }
    if (result == HUB_NO_ANSWER) return EXIT_NO_ANSWER;
  }
  printf("%zu values the same, %zu empty, %zu different, %" PRId64 " us per request\n", same, empty,
         different, per_request_us(start_us));
  return different == 0 ? EXIT_HELD : EXIT_NOT_HELD;
}

// Loads both files of a series and makes sure that they fit each other.
static int load_series(const char* path, const char* other) {
  if (settings_load(&first, path) != 0 || settings_load(&second, other) != 0) return -1;

  int fits = first.count == second.count && first.count != 0;
  for (size_t i = 0; fits && i < first.count; i++) {
    fits = strcmp(first.rows[i].key, second.rows[i].key) == 0 &&
           first.rows[i].value_len == second.rows[i].value_len;
  }
  if (fits) return 0;
  fprintf(stderr, "hubctl: the two files of a series differ in keys or lengths\n");
  return -1;
}

// The n-th put of the series, counted from 0.
static const setting_t* series_put(size_t n) {
  const size_t round = n / first.count;
  return round % 2 == 0 ? &first.rows[n % first.count] : &second.rows[n % first.count];
}

int bulk_series(hub_client_t* client, size_t count, size_t tell_after, const char* path,
                const char* other) {
  if (load_series(path, other) != 0) return EXIT_USAGE;

  size_t acked = 0;
  hub_result_t result = HUB_DONE;
  while (acked < count) {
    const setting_t* put = series_put(acked);
    hub_answer_t answer;
    result = hub_put(client, put->key, put->value, put->value_len, &answer);
    if (result == HUB_REFUSED) print_refusal(put->key, &answer);
    if (result != HUB_DONE) break;

    acked++;
    if (acked != tell_after) continue;
    puts("running");
    fflush(stdout); // somebody waits for this line
  }
  printf("%zu of %zu puts acknowledged\n", acked, count);
  if (result == HUB_NO_ANSWER) return EXIT_NO_ANSWER;
  return result == HUB_DONE ? EXIT_HELD : EXIT_NOT_HELD;
}

// Returns not 0 if `answer` has the first bytes of `now` and the last bytes of `before`.
static int is_cut(const hub_answer_t* answer, const setting_t* now, const setting_t* before) {
  if (answer->body_len != now->value_len) return 0;
  size_t i = 0;
  while (i < now->value_len && answer->body[i] == (uint8_t)now->value[i]) i++;
  return memcmp(answer->body + i, before->value + i, now->value_len - i) == 0;
}

// Returns what became of the put that was under way, null if it is nothing that may be.
static const char* fate(hub_result_t result, const hub_answer_t* answer, const setting_t* now,
                        const setting_t* before) {
  if (is_held(result, answer, now)) return "was made";
  if (is_held(result, answer, before)) return "was not made";
  if (result == HUB_DONE && is_cut(answer, now, before)) return "was cut short";
  return NULL;
}

int bulk_verify_series(hub_client_t* client, size_t acked, const char* path, const char* other) {
  if (load_series(path, other) != 0) return EXIT_USAGE;

  const size_t under_way = acked % first.count;
  const char* what = NULL;
  size_t same = 0;
  size_t different = 0;
  for (size_t i = 0; i < first.count; i++) {
    // The last acknowledged put of this key; what was there before the series if there was none.
    const size_t rounds = acked / first.count + (i < under_way ? 1 : 0);
    const setting_t* want = rounds > 0 ? series_put((rounds - 1) * first.count + i) : &second.rows[i];

    hub_answer_t answer;
    const hub_result_t result = hub_get(client, want->key, &answer);
    if (result == HUB_NO_ANSWER) {
      print_difference(result, &answer, want);
      return EXIT_NO_ANSWER;
    }
    if (i == under_way) what = fate(result, &answer, series_put(acked), want);
    if (i == under_way ? what != NULL : is_held(result, &answer, want)) {
      same += i != under_way;
      continue;
    }
    print_difference(result, &answer, want);
    different++;
  }
  printf("%zu values as acknowledged, %zu different, put %zu %s\n", same, different, acked + 1,
         what != NULL ? what : "left something else");
  return different == 0 ? EXIT_HELD : EXIT_NOT_HELD;
}
