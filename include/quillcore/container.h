// Containers: a small map of short texts, and the reader of configuration files that fills it.
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
// memory is short. It needs 32768 bytes of stack beside the log's and may run on any thread.
QN_API qn_map_t* qn_conf_load(const char* path);

QN_END_DECLS

#endif // QUILLCORE_CONTAINER_H
