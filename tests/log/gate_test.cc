// The fast gates against a plain reading of the rule, over every combination of what decides.
#include <gtest/gtest.h>
#include <quillcore/log.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "container/string_map.h"
#include "core/log.h"
#include "core/log_gate.h"
#include "log/permission.h"
#include "platform/guards.h"
#include "support/capture.h"
#include "support/own_namespace.h"

namespace {

constexpr uint32_t kRole = 5; // relay: it has no key of its own in the default tables
constexpr uint32_t kLogid = 4711;
constexpr char kBizName[] = "walk";

int g_written;

int32_t count_write(qn_log_t*, uint32_t, const char*, size_t) {
  g_written++;
  return 0;
}

// One combination. A text that is absent means that the map has no such key.
struct Setting {
  std::optional<std::string> role_level, default_level, console, trace, role_global, default_global;
  bool logid_on, biz_on;
};

// The rule, told from the setting and not from the maps.
bool rule_passes(const Setting& setting, uint32_t level) {
  if (level == QN_LOG_T) return setting.trace == "on";
  if (level < QN_LOG_E || level > QN_LOG_D) return true;
  if (setting.logid_on || setting.biz_on) return true;
  const auto& global = setting.role_global ? setting.role_global : setting.default_global;
  const auto& value = setting.role_level ? setting.role_level : setting.default_level;
  const std::string order = "?GEWIDF";
  size_t row = 0;
  if (value && !value->empty() && order.find(value->front(), 1) != std::string::npos) {
    row = order.find(value->front(), 1);
  }
  return global == "on" && level <= row;
}

void set_or_remove(const char* key, const std::optional<std::string>& value, qn_map_t* map) {
  if (value) {
    qn_map_set(key, value->c_str(), map);
  } else {
    qn_map_remove(key, map);
  }
}

// Puts a setting into the maps as they stand and derives the words anew, as every change does.
void apply(const Setting& setting) {
  const qn::MutexGuard guard(qn::permission_change_lock());
  const qn::PermissionMaps maps = qn::permission_maps();
  set_or_remove("log.relay.level", setting.role_level, maps.configs);
  set_or_remove("log.default.level", setting.default_level, maps.configs);
  set_or_remove("log.relay.console", setting.console, maps.configs);
  set_or_remove("log.relay.trace", setting.trace, maps.configs);
  set_or_remove("log.relay.global", setting.role_global, maps.user_configs);
  set_or_remove("log.default.global", setting.default_global, maps.user_configs);
  const auto single = [](bool on) { return on ? std::optional<std::string>("on") : std::nullopt; };
  set_or_remove("log.relay.logid.4711", single(setting.logid_on), maps.user_configs);
  set_or_remove("log.relay.biz.walk", single(setting.biz_on), maps.user_configs);
  qn::log_gates_refresh();
}

bool reaches_writer(uint32_t level, uint32_t logid, const char* biz_name) {
  g_written = 0;
  qn_log_core_adpater(level, logid, "m", 1, 1, biz_name, "text");
  return g_written == 1;
}

int g_differences;

void compare(const Setting& setting, StderrCapture& capture) {
  apply(setting);
  Setting elsewhere = setting; // another call site, which the single switches do not name
  elsewhere.logid_on = elsewhere.biz_on = false;
  for (const uint32_t level : {1u, 2u, 3u, 4u, 5u, 6u, 64u}) {
    const bool passes = rule_passes(setting, level);
    g_differences += reaches_writer(level, kLogid, kBizName) != passes;
    g_differences += reaches_writer(level, kLogid + 1, "other") != rule_passes(elsewhere, level);
    if (level >= 2 && level <= 5) {
      g_differences += qn_log_is_permitted("relay", kLogid, kBizName, level) != passes;
    }
    capture.clear();
    qn_log_console_impl(level, kLogid, "m", 1, kBizName, "text");
    const bool printed = !capture.text().empty();
    g_differences += printed != (level <= 6 && setting.console == "on" && passes);
  }
}

TEST(Gates, SayWhatTheMapsSayForEveryCombination) {
  in_own_namespace([] {
    StderrCapture capture;
    qn_log_writer_ops ops = {count_write, nullptr};
    qn_log_t log = {0, kRole, &ops, nullptr, 1};
    qn::log_singleton_set(&log);
    ASSERT_EQ(0, qn_log_permit_init());

    using Text = std::optional<std::string>;
    const Text levels[] = {std::nullopt, "G", "E", "W", "I", "Dxyz", "F", "w", ""};
    const Text switches[] = {std::nullopt, "on", "off", "On"};
    int combinations = 0;
    for (const Text& level : levels) {
      for (const Text& default_level : {Text(), Text("D"), Text("E")}) {
        if (level && default_level != Text("D")) continue; // the default is not asked then
        for (const Text& global : switches) {
          for (const Text& default_global : {Text(), Text("on"), Text("off")}) {
            if (global && default_global != Text("on")) continue;
            for (const Text& console : switches) {
              for (const Text& trace : switches) {
                for (const bool logid_on : {false, true}) {
                  for (const bool biz_on : {false, true}) {
                    compare(
                        {level, default_level, console, trace, global, default_global, logid_on, biz_on},
                        capture);
                    combinations++;
                  }
                }
              }
            }
          }
        }
      }
    }
    EXPECT_EQ(0, g_differences);
    EXPECT_EQ((8 + 3) * (3 + 3) * 4 * 4 * 2 * 2, combinations);
    qn::log_singleton_set(nullptr);
    qn_log_permit_free();
    capture.release();
  });
}

} // namespace
