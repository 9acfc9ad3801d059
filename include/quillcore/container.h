// Containers: a small map of short texts, the reader of configuration files that fills it, a hash table.
//
// A configuration file is plain text of at most 32767 bytes; what follows is not read. An entry is a key,
// a "=" and a value; white space around either is dropped, inside it stays. A key reaches from the first
// byte that is not white space to the next "=", across line feeds. A value begins at the first byte
// behind the "=" that is not white space, across line feeds too, and reaches to the end of that line; it
// may hold further "=". There are no comments, sections, quotes or escapes: a line that is meant as a
// comment becomes the front part of the next key.
//
// With white space before the "=" or the line's end counted in, a key has at most 63 bytes and a value at
// most 255. An entry that breaks a limit, or a rest without "=", ends the reading: what stands before it
// is in the map, with one more entry whose value is empty.
//
// Of several entries with one key the last is found, unless the first of them is the first entry of the
// file, which then wins.
#ifndef QUILLCORE_CONTAINER_H
#define QUILLCORE_CONTAINER_H

#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

typedef struct qn_map qn_map_t; // opaque

// Finds the value of `key`.
// Returns a text of at most 255 bytes, borrowed from the map until it is freed; null for an absent key, a
// null key and a null map. Any thread may call it.
QN_API const char* qn_map_get(const char* key, qn_map_t* map);

// Releases a map and its texts; no other thread may use it by then. Null is ignored.
QN_API void qn_map_free(qn_map_t* map);

// Reads the configuration file at `path`. The caller frees the map with qn_map_free().
// Returns a map, which may be empty; null when the file cannot be opened or read, `path` is null or
// memory is short. Whatever the gates say it prints two lines on standard error, three when it fails; one
// more (633) asks the console gate. For a null `path` it prints nothing. It needs 32768 bytes of stack
// beside the log's and may run on any thread.
QN_API qn_map_t* qn_conf_load(const char* path);

// Hash table from texts to pointers. The number of buckets is chosen at creation and never changes: a
// prime between 509 and 65521, from 509 for a hint of up to 1021 keys on, and below the hint for larger
// ones.
//
// The table owns its copies of the keys and does not own the values. It has a mutex of its own, which is
// not recursive: a `hash`, `cmp` or apply function must not call put, get, remove or map on its table.
// Any thread may call the functions below unless they say otherwise.
typedef struct qn_table qn_table_t; // opaque

// Compares the caller's key with a stored one: 0 if they are equal.
typedef int (*qn_table_cmp_t)(const char* key, const char* stored_key);
typedef uint32_t (*qn_table_hash_t)(const char* key);
typedef void (*qn_table_free_t)(void* value);
// Called with a stored key and the place of its value, which it may replace; the result is ignored.
typedef int (*qn_table_apply_t)(const char* key, void** value, void* closure);

// Makes a table; null functions stand for strcmp() and a hash of the bytes. Keys are texts whatever the
// functions are. The caller ends it with qn_table_free().
// Returns null for a negative hint and when memory is short.
QN_API qn_table_t* _qn_table_new(int32_t hint, qn_table_cmp_t cmp, qn_table_hash_t hash);

// Stores `value` under a copy of `key`. `free_fn`, or null, takes the place of the one given before; it
// is called by qn_table_free() only. Returns the value that the key had before, which is the caller's;
// null when the key was new, for a null table or key and when memory is short, the table being unchanged
// then.
QN_API void* _qn_table_put(qn_table_t* table, const char* key, void* value, qn_table_free_t free_fn);

// Returns the value of `key`; null when it is absent and for a null table or key.
QN_API void* qn_table_get(qn_table_t* table, const char* key);

// Takes `key` out of the table. Neither may be null.
// Returns its value, which is the caller's; null when it is absent.
QN_API void* qn_table_remove(qn_table_t* table, const char* key);

// Returns the number of keys; 0 for a null table.
QN_API int32_t qn_table_length(qn_table_t* table);

// Calls `apply` for each key under the table's mutex. It must not change which keys there are.
// A null table is ignored.
QN_API void qn_table_map(qn_table_t* table, qn_table_apply_t apply, void* closure);

// Lists the table as key, value, key, value, ... and `end` behind the last pair. The keys are the table's
// own and live as long as they are in it. No other thread may change the table meanwhile.
// Returns a block of 2 * length + 1 pointers for qn_free(); null for a null table, when the size does not
// fit 32 bits and when memory is short.
QN_API void** qn_table_toarray(qn_table_t* table, void* end);

// Prints each pair on the console as a record of level I: values as texts (404) with `as_text` not 0,
// else as pointers (405). No other thread may change the table meanwhile.
QN_API void qn_table_print(qn_table_t* table, int32_t as_text);

// Releases a table, calling each value's `free_fn`; no other thread may use it by then. `*table` keeps
// its value and must not be used again. A null argument or table is ignored.
QN_API void qn_table_free(qn_table_t** table);

QN_END_DECLS

#endif // QUILLCORE_CONTAINER_H
