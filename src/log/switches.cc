// Changing permissions while the process runs.
#include <quillcore/log.h>

#include <cstdint>
#include <cstring>

#include "core/log_record.h"
#include "log/permission.h"
#include "log/permission_key.h"
#include "platform/guards.h"

namespace {

using qn::kOff;
using qn::kOn;
using qn::Message;
using qn::PermissionKey;
using qn::PermissionMaps;

using Config = qn_log_permit_config_t;

constexpr char kModule[] = "log_permit";
constexpr char kLogid[] = "qn_log_set_permission_for_logid";
constexpr char kBizName[] = "qn_log_set_permission_for_biz_name";
constexpr char kConsole[] = "qn_log_set_permission_for_console";
constexpr char kTrace[] = "qn_log_set_permission_for_trace";
constexpr char kLevel[] = "qn_log_set_permission_for_level";

constexpr Message kSetLogid{QN_LOG_I, 0, kModule, kLogid, "set log role=%s logid=%d."};
constexpr Message kLogidPermit{QN_LOG_E, 0, kModule, kLogid, "permit error. set log role=%s logid=%d."};
constexpr Message kLogidKey{QN_LOG_E, 0, kModule, kLogid, "snprintf_s failed. set log role=%s logid=%d."};
constexpr Message kSetBizName{QN_LOG_I, 0, kModule, kBizName, "set log role=%s biz_name=%s permit=%s."};
constexpr Message kBizNamePermit{QN_LOG_E, 0, kModule, kBizName,
                                 "permit error. set log role=%s biz_name=%s permit=%s failed."};
constexpr Message kBizNameKey{QN_LOG_E, 0, kModule, kBizName,
                              "snprintf_s failed. set log role=%s biz_name=%s permit=%s."};
constexpr Message kSetConsole{QN_LOG_I, 0, kModule, kConsole, "set log role=%s console_permit=%s."};
constexpr Message kConsolePermit{QN_LOG_E, 0, kModule, kConsole,
                                 "permit error. set log role=%s console_permit=%s."};
constexpr Message kConsoleKey{QN_LOG_E, 0, kModule, kConsole,
                              "snprintf_s failed. set log role=%s console_permit=%s."};
constexpr Message kSetTrace{QN_LOG_I, 0, kModule, kTrace, "set log role=%s trace_permit=%s."};
constexpr Message kTracePermit{QN_LOG_E, 0, kModule, kTrace,
                               "permit error. set log role=%s trace_permit=%s."};
constexpr Message kTraceKey{QN_LOG_E, 0, kModule, kTrace,
                            "snprintf_s failed. set log role=%s trace_permit=%s."};
constexpr Message kSetLevel{QN_LOG_I, 0, kModule, kLevel, "set log role=%s level=%s."};
constexpr Message kLevelKey{QN_LOG_E, 0, kModule, kLevel, "snprintf_s failed. set log role=%s level=%s."};
constexpr Message kConfigFailed{QN_LOG_E, 0, kModule, "qn_log_set_log_permit_config", "config failed."};

bool is_on_or_off(const char* text) { return strcmp(text, kOn) == 0 || strcmp(text, kOff) == 0; }

template <size_t size>
bool is_terminated(const char (&text)[size]) {
  return strnlen(text, size) < size;
}

// One change, in force when it returns. What a step has to say it has said before.
template <typename Change>
int32_t change_maps(Change change) {
  const qn::MutexGuard guard(qn::permission_change_lock());
  const int32_t result = change(qn::permission_maps());
  qn::log_gates_refresh();
  return result;
}

int32_t set_value(const PermissionKey& key, const char* value, qn_map_t* PermissionMaps::*map) {
  return change_maps([&](const PermissionMaps& maps) {
    return maps.*map != nullptr ? qn_map_set(key.text(), value, maps.*map) : -1;
  });
}

// "off" takes a single switch away; taking away what was not on is a failure.
int32_t switch_single(const PermissionKey& key, const char* permit) {
  if (strcmp(permit, kOn) == 0) return set_value(key, kOn, &PermissionMaps::user_configs);
  return change_maps(
      [&](const PermissionMaps& maps) { return qn_map_remove(key.text(), maps.user_configs); });
}

int32_t qn_log_set_permission_for_level(const Config& config) {
  QN_PRINTLN(kSetLevel, config.role, config.level);
  const PermissionKey key(config.role, qn::kKeyLevel);
  if (!key.fits()) return QN_FAIL_PRINTLN(-1, kLevelKey, config.role, config.level);
  return set_value(key, config.level, &PermissionMaps::configs);
}

int32_t qn_log_set_permission_for_biz_name(const Config& config) {
  QN_PRINTLN(kSetBizName, config.role, config.biz_name, config.permit);
  const PermissionKey key(config.role, qn::kKeyBiz, config.biz_name);
  if (!key.fits()) return QN_FAIL_PRINTLN(-1, kBizNameKey, config.role, config.biz_name, config.permit);
  if (!is_on_or_off(config.permit))
    return QN_FAIL_PRINTLN(-1, kBizNamePermit, config.role, config.biz_name, config.permit);
  return switch_single(key, config.permit);
}

int32_t qn_log_set_permission_for_logid(const Config& config) {
  QN_PRINTLN(kSetLogid, config.role, config.logid);
  const PermissionKey key(config.role, config.logid);
  if (!key.fits()) return QN_FAIL_PRINTLN(-1, kLogidKey, config.role, config.logid);
  if (!is_on_or_off(config.permit)) return QN_FAIL_PRINTLN(-1, kLogidPermit, config.role, config.logid);
  return switch_single(key, config.permit);
}

int32_t qn_log_set_permission_for_console(const Config& config) {
  QN_PRINTLN(kSetConsole, config.role, config.console_permit);
  const PermissionKey key(config.role, qn::kKeyConsole);
  if (!key.fits()) return QN_FAIL_PRINTLN(-1, kConsoleKey, config.role, config.console_permit);
  if (!is_on_or_off(config.console_permit))
    return QN_FAIL_PRINTLN(-1, kConsolePermit, config.role, config.console_permit);
  return set_value(key, config.console_permit, &PermissionMaps::configs);
}

int32_t qn_log_set_permission_for_trace(const Config& config) {
  QN_PRINTLN(kSetTrace, config.role, config.trace_permit);
  const PermissionKey key(config.role, qn::kKeyTrace);
  if (!key.fits()) return QN_FAIL_PRINTLN(-1, kTraceKey, config.role, config.trace_permit);
  if (!is_on_or_off(config.trace_permit))
    return QN_FAIL_PRINTLN(-1, kTracePermit, config.role, config.trace_permit);
  return set_value(key, config.trace_permit, &PermissionMaps::configs);
}

// A step reads its own texts and the role; what stands in the others is nobody's business.
constexpr struct {
  uint32_t bit;
  int32_t (*set)(const Config& config);
  bool (*texts_end)(const Config& config);
} kSteps[] = {
    {QN_LOG_PERMIT_LEVEL, qn_log_set_permission_for_level,
     [](const Config& config) { return is_terminated(config.level); }},
    {QN_LOG_PERMIT_BIZ, qn_log_set_permission_for_biz_name,
     [](const Config& config) { return is_terminated(config.biz_name) && is_terminated(config.permit); }},
    {QN_LOG_PERMIT_LOGID, qn_log_set_permission_for_logid,
     [](const Config& config) { return is_terminated(config.permit); }},
    {QN_LOG_PERMIT_CONSOLE, qn_log_set_permission_for_console,
     [](const Config& config) { return is_terminated(config.console_permit); }},
    {QN_LOG_PERMIT_TRACE, qn_log_set_permission_for_trace,
     [](const Config& config) { return is_terminated(config.trace_permit); }},
};

// A failed step does not stop the later ones, and what one has changed is in force when the next begins.
int32_t run_steps(const Config& config) {
  int32_t result = 0;
  for (const auto& step : kSteps) {
    if ((config.mask & step.bit) == 0) continue;
    const bool readable = is_terminated(config.role) && step.texts_end(config);
    result |= readable ? step.set(config) : -1;
  }
  return result;
}

} // namespace

int32_t qn_log_set_log_permit_config(const qn_log_permit_config_t* config) {
  if (config != nullptr && config->reset != 0) return qn_log_reset_permission();
  if (config != nullptr && run_steps(*config) == 0) return 0;
  QN_LOG(kConfigFailed);
  return -1;
}
