// Who may log what: two maps, the rule over them, and the switches of a running process.
//
// `configs` holds levels, console and trace switches; it comes from the configuration file or from a
// default table. `user_configs` holds global switches and the switches of single logids and biz_names; it
// never comes from a file. After every change the gate words are derived from both by the rule, so the
// gates of most records never come here.
//
// Locks. The change lock makes changes one at a time; gates never want it, so a change may allocate and
// log to the files. Nothing is printed under it: whoever forks takes it, and standard error may be
// blocked. The lock of the maps covers the two pointers, for gates that do have to look; nothing is
// allocated or logged under it.
#ifndef QN_LOG_PERMISSION_H
#define QN_LOG_PERMISSION_H

#include <pthread.h>
#include <quillcore/log.h>

#include <cstdint>

#include "container/string_map.h"

// Loads the maps in place of those that are there. Returns 0; -1 when a map could not be made, and then
// what is left refuses all that it must decide.
int32_t qn_log_permit_init();

// Forgets all changes and loads the maps anew. Returns as qn_log_permit_init().
int32_t qn_log_reset_permission();

// Gives the maps up: every look-up says no from then on.
void qn_log_permit_free();

// The rule for levels 2 to 5, by a plain walk of the maps.
bool qn_log_is_permitted(const char* role_name, uint32_t logid, const char* biz_name, uint32_t level);
bool qn_log_console_is_on(const char* role_name);
bool qn_log_trace_is_on(const char* role_name);

// Row of the level table whose name the text begins with, 0 if none.
uint32_t qn_log_level_from_name(const char* text);

// Whether the map holds the key with exactly the value "on".
bool qn_log_map_is_on(const char* key, qn_map_t* map);

namespace qn {

pthread_mutex_t& permission_change_lock();

// The maps as they are, null where there is none.
struct PermissionMaps {
  qn_map_t* configs;
  qn_map_t* user_configs;
};

// For the holder of the change lock: the maps, and a new derivation of the gate words of all roles, and
// of the process's instance, from them.
PermissionMaps permission_maps();
void log_gates_refresh();

// For the calls around a fork: the lock of the maps and each map's own.
void permission_maps_each_lock(int (*call)(pthread_mutex_t*));

} // namespace qn

#endif // QN_LOG_PERMISSION_H
