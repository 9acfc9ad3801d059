// Who may log what: the gates, the singleton with its permissions, the switches of a running process.
#include <gtest/gtest.h>
#include <quillcore/log.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "container/string_map.h"
#include "core/log.h"
#include "log/permission.h"
#include "platform/guards.h"
#include "support/capture.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

constexpr char kLive[] = "/tmp/quillnet/log/hubd_0.log.txt";
constexpr char kConfig[] = "/etc/quillnet/quillnet.conf";
constexpr uint32_t kHubd = 2;

// --- the fast gates against a plain reading of the rule ---

// What decides about records of relay, a role without keys of its own in the default tables. A null text
// means that the map has no such key.
struct Setting {
  const char *level, *default_level, *global, *default_global, *console, *trace;
  bool logid_on, biz_on; // of the records with logid 4711 and biz_name "walk"
};

bool is_on(const char* value) { return value != nullptr && strcmp(value, "on") == 0; }

bool rule_passes(const Setting& setting, uint32_t level, bool named) {
  if (level == QN_LOG_T) return is_on(setting.trace);
  if (level < QN_LOG_E || level > QN_LOG_D) return true;
  if (named && (setting.logid_on || setting.biz_on)) return true;
  const char* const value = setting.level != nullptr ? setting.level : setting.default_level;
  const size_t row = value != nullptr && *value != '\0' ? std::string("?GEWIDF").find(*value, 1) : 0;
  return is_on(setting.global != nullptr ? setting.global : setting.default_global) &&
         row != std::string::npos && level <= row;
}

// Puts a setting into the maps as they stand and derives the words anew, as every change does.
void apply(const Setting& setting) {
  const qn::MutexGuard guard(qn::permission_change_lock());
  const qn::PermissionMaps maps = qn::permission_maps();
  const auto set = [](qn_map_t* map, const char* key, const char* value) {
    value != nullptr ? qn_map_set(key, value, map) : qn_map_remove(key, map);
  };
  set(maps.configs, "log.relay.level", setting.level);
  set(maps.configs, "log.default.level", setting.default_level);
  set(maps.configs, "log.relay.console", setting.console);
  set(maps.configs, "log.relay.trace", setting.trace);
  set(maps.user_configs, "log.relay.global", setting.global);
  set(maps.user_configs, "log.default.global", setting.default_global);
  set(maps.user_configs, "log.relay.logid.4711", setting.logid_on ? "on" : nullptr);
  set(maps.user_configs, "log.relay.biz.walk", setting.biz_on ? "on" : nullptr);
  qn::log_gates_refresh();
}

int g_written;

bool reaches_writer(uint32_t level, uint32_t logid, const char* biz_name) {
  g_written = 0;
  qn_log_core_adpater(level, logid, "m", 1, 1, biz_name, "text");
  return g_written == 1;
}

int differences(const Setting& setting, StderrCapture& capture) {
  apply(setting);
  int found = 0;
  for (const uint32_t level : {1u, 2u, 3u, 4u, 5u, 6u, 64u}) {
    const bool passes = rule_passes(setting, level, true);
    found += reaches_writer(level, 4711, "walk") != passes;
    found += reaches_writer(level, 4712, "other") != rule_passes(setting, level, false);
    const bool asked = level >= QN_LOG_E && level <= QN_LOG_D;
    found += asked && qn_log_is_permitted("relay", 4711, "walk", level) != passes;
    capture.clear();
    qn_log_console_impl(level, 4711, "m", 1, "walk", "text");
    found += capture.text().empty() == (level <= QN_LOG_F && is_on(setting.console) && passes);
  }
  found += qn_log_console_is_on("relay") != is_on(setting.console);
  return found + (qn_log_trace_is_on("relay") != is_on(setting.trace));
}

TEST(Gates, SayWhatTheMapsSayForEveryCombination) {
  in_own_namespace([] {
    StderrCapture capture;
    qn_log_writer_ops ops = {[](qn_log_t*, uint32_t, const char*, size_t) { return g_written++; },
                             nullptr};
    qn_log_t log = {0, 5, &ops, nullptr, 1};
    qn::log_singleton_set(&log);
    ASSERT_EQ(0, qn_log_permit_init());

    // The role's and the default value; where there is one of the role's the other is not asked.
    const char* const levels[][2] = {{nullptr, nullptr}, {nullptr, "D"}, {nullptr, "E"}, {"Gx", "D"},
                                     {"Ex", "D"},        {"Wx", "D"},    {"Ix", "D"},    {"Dxyz", "D"},
                                     {"Fx", "D"},        {"w", "D"},     {"", "D"}};
    const char* const globals[][2] = {{nullptr, nullptr}, {nullptr, "on"}, {nullptr, "off"},
                                      {"on", "off"},      {"off", "on"},   {"On", "on"}};
    const char* const switches[] = {nullptr, "on", "off", "On"};
    int found = 0;
    for (const auto& [level, default_level] : levels) {
      for (const auto& [global, default_global] : globals) {
        for (int rest = 0; rest < 4 * 4 * 2 * 2; rest++) {
          found += differences({level, default_level, global, default_global, switches[rest % 4],
                                switches[rest / 4 % 4], rest / 16 % 2 != 0, rest / 32 != 0},
                               capture);
        }
      }
    }
    EXPECT_EQ(0, found);
    qn::log_singleton_set(nullptr);
    qn_log_permit_free();
  });
}

// --- tables, files and switches ---

using Config = qn_log_permit_config_t;

int32_t change(const Config& config) { return qn_log_set_log_permit_config(&config); }

size_t count_of(const std::string& text) {
  const std::string log = read_file(kLive);
  size_t count = 0;
  for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at++) count++;
  return count;
}

// Whether a record with these marks reaches the live file.
bool is_logged(uint32_t level, uint32_t logid, const char* biz_name) {
  const size_t before = count_of("probe");
  qn_log_core_adpater(level, logid, "test", 1, 1, biz_name, "probe");
  return count_of("probe") == before + 1;
}

bool is_printed(StderrCapture& capture) {
  capture.clear();
  qn_log_console_impl(QN_LOG_G, 1, "m", 1, "b", "x");
  return !capture.text().empty();
}

void with_singleton(const std::function<void(StderrCapture&)>& body) {
  in_own_namespace([&] {
    StderrCapture capture;
    EXPECT_EQ(0, qn_log_new_singleton_instance(0, kHubd, 0));
    body(capture);
    qn_log_free_singleton_instance();
  });
}

TEST(Permission, ComesFromAFileOrElseFromTheDefaultTables) {
  const struct {
    const char* file; // null for none
    std::vector<const char*> roles;
    uint32_t level; // the last that passes
    bool console;
  } rows[] = {
      {nullptr, {"hubd", "leafd", "admd", "qntty"}, QN_LOG_I, true},
      {nullptr, {"arcd"}, QN_LOG_W, true},
      {nullptr, {"relay", "arc_tty", "lib_call", "nw_lib_call", "nil"}, QN_LOG_W, false},
      {"log.hubd.level=D\nlog.hubd.console=on\n", {"hubd"}, QN_LOG_D, true},
      {"log.hubd.level=D\nlog.hubd.console=on\n", {"leafd"}, 0, false},
      {"log.hubd.level=W\nlog.default.level=E\n", {"relay"}, QN_LOG_E, false},
      {"", {"hubd"}, 0, false},
  };
  for (const auto& row : rows) {
    in_own_namespace([&row] {
      if (row.file != nullptr) write_file(kConfig, row.file);
      StderrCapture capture;
      EXPECT_EQ(0, qn_log_permit_init());
      for (const char* const role : row.roles) {
        for (uint32_t level = QN_LOG_E; level <= QN_LOG_D; level++)
          EXPECT_EQ(level <= row.level, qn_log_is_permitted(role, 1, "b", level)) << role << level;
        EXPECT_EQ(row.console, qn_log_console_is_on(role)) << role;
        EXPECT_FALSE(qn_log_trace_is_on(role)) << role;
      }
      const std::vector<Record> records = capture.records();
      const auto is_row = [](const Record& record) { return record.biz_name == "add_default_configs"; };
      EXPECT_EQ(row.file == nullptr ? 16 : 0, std::ranges::count_if(records, is_row));
      qn_log_permit_free();
    });
  }
}

TEST(Permission, ASingleSwitchOpensOneCallSite) {
  with_singleton([](StderrCapture&) {
    Config config = {"hubd", "", "on", 77, "", "", "", 0, QN_LOG_PERMIT_LOGID};
    EXPECT_EQ(0, change(config));
    EXPECT_TRUE(is_logged(QN_LOG_D, 77, "b"));
    EXPECT_FALSE(is_logged(QN_LOG_D, 78, "b"));
    EXPECT_FALSE(is_logged(QN_LOG_T, 77, "b")) << "trace has a gate of its own";
    config.logid = -1; // the key of a logid is signed, whatever a line shows
    EXPECT_EQ(0, change(config));
    EXPECT_TRUE(is_logged(QN_LOG_D, UINT32_MAX, "b"));

    config.mask = QN_LOG_PERMIT_BIZ;
    memset(config.biz_name, 'b', 63 - strlen("log.hubd.biz."));
    EXPECT_EQ(0, change(config));
    EXPECT_TRUE(is_logged(QN_LOG_D, 1, config.biz_name));
    config.biz_name[strlen(config.biz_name)] = 'b';
    EXPECT_EQ(-1, change(config));
    EXPECT_FALSE(is_logged(QN_LOG_D, 1, config.biz_name));

    const Config unnamed = {"hubd", "", "on", 0, "", "", "", 0, QN_LOG_PERMIT_BIZ};
    EXPECT_FALSE(is_logged(QN_LOG_D, 1, ""));
    EXPECT_EQ(0, change(unnamed));
    EXPECT_TRUE(is_logged(QN_LOG_D, 1, ""));

    const Config off = {"hubd", "", "off", 77, "", "", "", 0, QN_LOG_PERMIT_LOGID};
    EXPECT_EQ(0, change(off));
    EXPECT_FALSE(is_logged(QN_LOG_D, 77, "b"));
    EXPECT_EQ(-1, change(off)) << "it is not on";
  });
}

// Each step tells what it sets and, behind that, why it cannot.
TEST(Permission, StepsRunOneByOneAndSayWhatTheyDo) {
  const Config whole = {"hubd", "D", "on", 7, "b", "on", "on", 0, 0};
  const Config wrong = {"hubd", "D", "ON", 7, "b", "yes", "", 0, 0};
  Config no_level = whole, no_permit = whole, no_console = whole, no_role = whole, long_name = whole;
  memset(no_level.level, 'x', sizeof(no_level.level));
  memset(no_permit.permit, 'x', sizeof(no_permit.permit));
  memset(no_console.console_permit, 'x', sizeof(no_console.console_permit));
  memset(no_role.role, 'r', sizeof(no_role.role));
  memset(long_name.biz_name, 'b', sizeof(long_name.biz_name) - 1);
  const struct {
    Config config;
    uint32_t mask;
    int32_t result;
    std::string said;
  } rows[] = {
      {whole, 0, 0, ""},
      {whole, 32, 0, ""},
      {whole, 31, 0, "I level,I biz_name,I logid,I console,I trace,"},
      {wrong, 31, -1,
       "I level,I biz_name,E biz_name,I logid,E logid,I console,E console,I trace,E trace,"},
      {long_name, 3, -1, "I level,I biz_name,E biz_name,"},
      {no_level, 31, -1, "I biz_name,I logid,I console,I trace,"},
      {no_permit, 31, -1, "I level,I console,I trace,"},
      {no_console, 31, -1, "I level,I biz_name,I logid,I trace,"},
      {no_role, 31, -1, ""},
  };
  with_singleton([&](StderrCapture& capture) {
    for (const auto& row : rows) {
      capture.clear();
      const size_t failed = count_of("[qn_log_set_log_permit_config] config failed.");
      Config config = row.config;
      config.mask = row.mask;
      EXPECT_EQ(row.result, change(config)) << row.said;
      std::string said;
      for (const Record& record : capture.records()) {
        if (record.module == "log_permit") said += record.level + " " + record.biz_name.substr(26) + ",";
      }
      EXPECT_EQ(row.said, said);
      EXPECT_EQ(failed + (row.result != 0), count_of("[qn_log_set_log_permit_config] config failed."));
    }
    EXPECT_EQ(-1, qn_log_set_log_permit_config(nullptr));
  });
}

TEST(Permission, AChangeIsInForceAtOnceAndAResetForgetsIt) {
  const std::string allocated = "[0523] [D]";
  with_singleton([&](StderrCapture& capture) {
    // The node of a new switch is allocated behind the change of the level, the maps' nodes behind the
    // file.
    EXPECT_EQ(0, change({"hubd", "D", "on", 7, "", "off", "on", 0, 1 + 4 + 8 + 16}));
    const size_t of_the_switch = count_of(allocated);
    EXPECT_GE(of_the_switch, 1u);
    EXPECT_FALSE(is_printed(capture));
    EXPECT_TRUE(is_logged(QN_LOG_T, 1, "b"));
    EXPECT_EQ(0, change({"hubd", "W", "on", 8, "", "on", "off", 0, 1 + 4 + 8 + 16}));
    EXPECT_EQ(of_the_switch, count_of(allocated));
    EXPECT_TRUE(is_printed(capture));
    EXPECT_FALSE(is_logged(QN_LOG_T, 1, "b"));

    const Config reset = {"hubd", "D", "", 0, "", "", "", 1, QN_LOG_PERMIT_LEVEL};
    capture.clear();
    EXPECT_EQ(0, change(reset));
    EXPECT_EQ("qn_log_reset_permission", capture.records().at(0).biz_name);
    EXPECT_FALSE(is_logged(QN_LOG_D, 7, "b"));
    EXPECT_TRUE(is_logged(QN_LOG_I, 1, "b"));
    write_file(kConfig, "log.hubd.level=D\n");
    EXPECT_EQ(0, change(reset));
    EXPECT_TRUE(is_logged(QN_LOG_D, 1, "b"));

    EXPECT_EQ(0, qn_log_new_singleton_instance(0, 3, 0)) << "as a reset, and the role stays";
    EXPECT_EQ(kHubd, qn::qn_log_singleton_get()->role);
    EXPECT_GT(count_of(allocated), of_the_switch);

    qn_log_free_singleton_instance();
    capture.clear();
    qn_log_core_adpater(QN_LOG_T, 9, "m", 1, 1, "b", "ungated again");
    EXPECT_EQ((std::vector<uint32_t>{9}), capture.logids());
    EXPECT_EQ(-1, change({"hubd", "D", "", 0, "", "", "", 0, 1})) << "no permissions";
    EXPECT_EQ(-1, qn_log_new_singleton_instance(7, kHubd, 0));
  });
}

} // namespace
