// Reading key and value text into a map.
#ifndef QN_CONTAINER_CONFIG_H
#define QN_CONTAINER_CONFIG_H

#include <quillcore/container.h>

// Reads and parses a file, without the records that frame qn_conf_load(). Returns a map or null.
qn_map_t* qn_conf_load_configs_from_file(const char* path);

// Parses a terminated text, which it changes. Returns a map, which may be empty; null when memory is
// short.
qn_map_t* qn_map_parse(char* text);

#endif // QN_CONTAINER_CONFIG_H
