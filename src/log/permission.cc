// The permission maps: loading, the rule, and the gate words that follow from them.
#include "log/permission.h"

#include <quillcore/container.h>

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/log_gate.h"
#include "core/log_record.h"
#include "log/permission_key.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"

namespace {

using qn::kOn;
using qn::Message;
using qn::MutexGuard;
using qn::PermissionKey;

constexpr char kModule[] = "log_permit";
constexpr char kUserInit[] = "qn_log_permit_user_configs_init";

constexpr Message kUsingDefault{QN_LOG_I, 0, kModule, "qn_log_permit_init",
                                "load configs from file=%s failed. using default."};
constexpr Message kDefaultFailed{QN_LOG_I, 0, kModule, "qn_log_permit_init",
                                 "load default configs failed."};
constexpr Message kDefaultRow{QN_LOG_I, 0, kModule, "add_default_configs", "key=%s,value=%s"};
constexpr Message kUserFailed{QN_LOG_I, 0, kModule, kUserInit, "create user configs failed."};
constexpr Message kUserStart{QN_LOG_I, 0, kModule, kUserInit, "start to add default log user configs."};
constexpr Message kUserEnd{QN_LOG_I, 0, kModule, kUserInit, "add default log user configs end."};
constexpr Message kReset{QN_LOG_I, 0, kModule, "qn_log_reset_permission", "reset log permission."};

constexpr char kConfigFile[] = "/etc/quillnet/quillnet.conf";
constexpr char kDefaultRole[] = "default";
constexpr uint32_t kFirstRole = 1;

struct DefaultRow {
  char key[20];
  char value[4];
};

constexpr DefaultRow kDefaultConfigs[] = {
    {"log.default.level", "W"}, {"log.arcd.level", "W"},  {"log.arcd.console", "on"},
    {"log.arcd.trace", "off"},  {"log.admd.level", "I"},  {"log.admd.console", "on"},
    {"log.admd.trace", "off"},  {"log.hubd.level", "I"},  {"log.hubd.console", "on"},
    {"log.hubd.trace", "off"},  {"log.leafd.level", "I"}, {"log.leafd.console", "on"},
    {"log.leafd.trace", "off"}, {"log.qntty.level", "I"}, {"log.qntty.console", "on"},
    {"log.qntty.trace", "off"},
};

// What is switched on to begin with.
constexpr char kDefaultUserConfigs[][20] = {
    "log.default.global", "log.hubd.global", "log.leafd.global",
    "log.arcd.global",    "log.admd.global", "log.qntty.global",
};

constinit pthread_mutex_t g_change_lock = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_mutex_t g_maps_lock = PTHREAD_MUTEX_INITIALIZER; // covers the two pointers
constinit qn_map_t* g_configs = nullptr;
constinit qn_map_t* g_user_configs = nullptr;

// Puts a map in the place of another, which is freed when neither a gate nor a change can be looking at
// it any more. The gates follow at once.
void replace_map(qn_map_t*& place, qn_map_t* map) {
  qn_map_t* old = nullptr;
  {
    const MutexGuard change(g_change_lock);
    {
      const MutexGuard guard(g_maps_lock);
      old = place;
      place = map;
    }
    qn::log_gates_refresh();
  }
  qn_map_free(old);
}

// --- the rule, under the lock of the maps ---

// The value of the role's key or, where that is absent, of the default role's. False for neither.
bool role_value(const char* role_name, const char* suffix, qn_map_t* map,
                char (&value)[QN_MAP_VALUE_SIZE]) {
  const PermissionKey key(role_name, suffix);
  if (!key.fits()) return false;
  if (qn::map_copy_value(key.text(), map, value)) return true;
  return qn::map_copy_value(PermissionKey(kDefaultRole, suffix).text(), map, value);
}

bool global_is_on(const char* role_name) {
  char value[QN_MAP_VALUE_SIZE];
  return role_value(role_name, qn::kKeyGlobal, g_user_configs, value) && strcmp(value, kOn) == 0;
}

// The row that the role's level value names; 0, which lets nothing pass, where there is none.
uint32_t level_row(const char* role_name) {
  char value[QN_MAP_VALUE_SIZE];
  return role_value(role_name, qn::kKeyLevel, g_configs, value) ? qn_log_level_from_name(value) : 0;
}

bool key_is_on(const PermissionKey& key, qn_map_t* map) {
  return key.fits() && qn_log_map_is_on(key.text(), map);
}

bool rule_permits(const char* role_name, uint32_t logid, const char* biz_name, uint32_t level) {
  const PermissionKey logid_key(role_name, static_cast<int32_t>(logid));
  if (key_is_on(logid_key, g_user_configs)) return true;
  if (biz_name != nullptr && key_is_on(PermissionKey(role_name, qn::kKeyBiz, biz_name), g_user_configs)) {
    return true;
  }
  return level <= level_row(role_name) && global_is_on(role_name);
}

// --- gate words ---

// What stands behind the key's front, or null if the key begins otherwise.
const char* behind(const char* key, const PermissionKey& front) {
  const size_t length = strlen(front.text());
  return strncmp(key, front.text(), length) == 0 ? key + length : nullptr;
}

qn::SingleBits singles_of(const char* role_name) {
  const PermissionKey logid_front(role_name, qn::kKeyLogid);
  const PermissionKey biz_front(role_name, qn::kKeyBiz);
  qn::SingleBits singles;
  qn::map_walk(g_user_configs, [&](const qn_map_node_t& node) {
    if (strcmp(node.value, kOn) != 0) return;
    if (const char* const logid = behind(node.key, logid_front)) {
      singles.add(static_cast<uint32_t>(strtol(logid, nullptr, 10)));
    } else if (const char* const biz_name = behind(node.key, biz_front)) {
      singles.add(biz_name);
    }
  });
  return singles;
}

uint32_t derive_word(const char* role_name, bool singles) {
  return qn::make_gate(level_row(role_name), global_is_on(role_name),
                       key_is_on(PermissionKey(role_name, qn::kKeyConsole), g_configs),
                       key_is_on(PermissionKey(role_name, qn::kKeyTrace), g_configs), singles);
}

bool exact_rule(uint32_t role, uint32_t logid, const char* biz_name, uint32_t level) {
  return qn_log_is_permitted(qn::qn_log_role_table[role].name, logid, biz_name, level);
}

// --- loading ---

void add_default_configs(qn_map_t* map) {
  for (const DefaultRow& row : kDefaultConfigs) {
    QN_PRINTLN(kDefaultRow, row.key, row.value);
    qn_map_set(row.key, row.value, map);
  }
}

int32_t configs_init() {
  qn_map_t* map = qn_conf_load(kConfigFile);
  replace_map(g_configs, map);
  if (map != nullptr) return 0;
  QN_PRINTLN(kUsingDefault, kConfigFile);
  map = qn_map_new();
  if (map == nullptr) return QN_FAIL_PRINTLN(-1, kDefaultFailed);
  add_default_configs(map);
  replace_map(g_configs, map);
  return 0;
}

int32_t user_configs_init() {
  qn_map_t* const map = qn_map_new();
  if (map == nullptr) {
    replace_map(g_user_configs, nullptr);
    replace_map(g_configs, nullptr);
    QN_PRINTLN(kUserFailed);
    return -1;
  }
  QN_PRINTLN(kUserStart);
  for (const char* const key : kDefaultUserConfigs) qn_map_set(key, kOn, map);
  replace_map(g_user_configs, map);
  QN_PRINTLN(kUserEnd);
  return 0;
}

} // namespace

uint32_t qn_log_level_from_name(const char* text) {
  for (uint32_t row = 0; row < qn::kLogLevelCount; row++) {
    const qn::LogName& level = qn::qn_log_level_table[row];
    if (level.length != 0 && strncmp(text, level.name, level.length) == 0) return row;
  }
  return 0;
}

bool qn_log_map_is_on(const char* key, qn_map_t* map) {
  char value[QN_MAP_VALUE_SIZE];
  return qn::map_copy_value(key, map, value) && strcmp(value, kOn) == 0;
}

bool qn_log_is_permitted(const char* role_name, uint32_t logid, const char* biz_name, uint32_t level) {
  const MutexGuard guard(g_maps_lock);
  return rule_permits(role_name, logid, biz_name, level);
}

bool qn_log_console_is_on(const char* role_name) {
  const MutexGuard guard(g_maps_lock);
  return key_is_on(PermissionKey(role_name, qn::kKeyConsole), g_configs);
}

bool qn_log_trace_is_on(const char* role_name) {
  const MutexGuard guard(g_maps_lock);
  return key_is_on(PermissionKey(role_name, qn::kKeyTrace), g_configs);
}

int32_t qn_log_permit_init() { return configs_init() != 0 ? -1 : user_configs_init(); }

void qn_log_permit_free() {
  replace_map(g_configs, nullptr);
  replace_map(g_user_configs, nullptr);
}

int32_t qn_log_reset_permission() {
  qn_log_permit_free();
  QN_PRINTLN(kReset);
  return qn_log_permit_init();
}

namespace qn {

// A record that passes a gate at this moment meets the old or the new state of each role.
void log_gates_refresh() {
  log_gate_set_exact_rule(exact_rule);
  for (uint32_t role = kFirstRole; role < kRoleCount; role++) {
    const char* const role_name = qn_log_role_table[role].name;
    const SingleBits singles = singles_of(role_name);
    log_gate_set_filter(role, singles);
    log_gate_set_role(role, derive_word(role_name, singles.any()));
  }
  const qn_log_t* const log = qn_log_singleton_get();
  log_gate_set_current(log != nullptr ? log_gate_of_role(log->role) : kGateOpen);
}

pthread_mutex_t& permission_change_lock() { return g_change_lock; }

PermissionMaps permission_maps() { return {g_configs, g_user_configs}; }

void permission_maps_each_lock(int (*call)(pthread_mutex_t*)) {
  call(&g_maps_lock);
  if (g_configs != nullptr) call(&g_configs->lock);
  if (g_user_configs != nullptr) call(&g_user_configs->lock);
}

} // namespace qn
