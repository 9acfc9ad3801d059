// A settings file: lines of key=value, blank lines, and lines that begin with '#'.
#ifndef SETTINGS_H
#define SETTINGS_H

#include <quillcore/store.h>
#include <stddef.h>

#define SETTINGS_MAX 200

typedef struct setting {
  char key[QN_KVS_KEY_MAX + 1];
  char value[QN_KVS_VALUE_MAX + 1]; // all that follows the first '=', byte for byte; terminated
  size_t value_len;
} setting_t;

typedef struct settings {
  size_t count;
  setting_t rows[SETTINGS_MAX]; // in the order of the file
} settings_t;

// Reads the file at `path`. Returns 0; -1 if it cannot be read or has a wrong line (told on standard
// error), and `settings` is not to be used then.
int settings_load(settings_t* settings, const char* path);

#endif // SETTINGS_H
