// Reader of settings files: nothing is trimmed, so what is loaded can be compared byte for byte.
#include "settings.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// Returns null, or what is wrong with the line.
static const char* add_line(settings_t* settings, const char* line, size_t line_len) {
  if (strlen(line) != line_len) return "a NUL byte";

  const char* equals = strchr(line, '=');
  if (equals == NULL) return "no '='";
  const size_t key_len = (size_t)(equals - line);
  const size_t value_len = line_len - key_len - 1;
  if (key_len < 1 || key_len > QN_KVS_KEY_MAX) return "a key has 1 to 31 bytes";
  if (value_len > QN_KVS_VALUE_MAX) return "a value has at most 2045 bytes";
  if (settings->count == SETTINGS_MAX) return "more lines than a store has keys";

  setting_t* row = &settings->rows[settings->count];
  memcpy(row->key, line, key_len);
  row->key[key_len] = '\0';
  memcpy(row->value, equals + 1, value_len + 1);
  row->value_len = value_len;
  for (size_t i = 0; i < settings->count; i++) {
    if (strcmp(settings->rows[i].key, row->key) == 0) return "the key is there already";
  }
  settings->count++;
  return NULL;
}

static int read_lines(settings_t* settings, FILE* file, const char* path) {
  char* line = NULL;
  size_t line_size = 0;
  size_t number = 0;
  const char* wrong = NULL;

  ssize_t len;
  while (wrong == NULL && (len = getline(&line, &line_size, file)) >= 0) {
    number++;
    if (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
    if (len == 0 || line[0] == '#') continue;
    wrong = add_line(settings, line, (size_t)len);
  }
  free(line);
  if (wrong == NULL && ferror(file)) wrong = "read error";
  if (wrong == NULL) return 0;

  fprintf(stderr, "%s:%zu: %s\n", path, number, wrong);
  return -1;
}

int settings_load(settings_t* settings, const char* path) {
  settings->count = 0;
  FILE* file = fopen(path, "re");
  if (file == NULL) {
    fprintf(stderr, "%s: cannot be opened\n", path);
    return -1;
  }
  const int result = read_lines(settings, file, path);
  fclose(file);
  return result;
}
