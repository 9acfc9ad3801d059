// The singleton, its permissions and the switches of a running process.
#include <gtest/gtest.h>
#include <quillcore/log.h>
#include <quillcore/memory.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/log.h"
#include "support/capture.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

constexpr char kLive[] = "/tmp/quillnet/log/hubd_0.log.txt";
constexpr char kConfig[] = "/etc/quillnet/quillnet.conf";
constexpr uint32_t kHubd = 2;

struct Change {
  qn_log_permit_config_t config = {};

  Change(const char* role, uint32_t mask) {
    snprintf(config.role, sizeof(config.role), "%s", role);
    config.mask = mask;
  }
  Change& level(const char* text) { return put(config.level, text); }
  Change& permit(const char* text) { return put(config.permit, text); }
  Change& logid(int32_t number) {
    config.logid = number;
    return *this;
  }
  Change& biz(const std::string& text) { return put(config.biz_name, text.c_str()); }
  Change& console(const char* text) { return put(config.console_permit, text); }
  Change& trace(const char* text) { return put(config.trace_permit, text); }
  int32_t apply() const { return qn_log_set_log_permit_config(&config); }

 private:
  template <size_t size>
  Change& put(char (&field)[size], const char* text) {
    snprintf(field, size, "%s", text);
    return *this;
  }
};

// Whether a record with these marks reaches the live file.
bool is_logged(uint32_t level, uint32_t logid, const char* biz_name) {
  static int count = 0;
  const std::string text = "probe " + std::to_string(++count) + ".";
  qn_log_core_adpater(level, logid, "test", 1, 1, biz_name, "%s", text.c_str());
  return read_file(kLive).find(text) != std::string::npos;
}

void with_singleton(const std::function<void(StderrCapture&)>& body) {
  in_own_namespace([&] {
    StderrCapture capture;
    EXPECT_EQ(0, qn_log_new_singleton_instance(0, kHubd, 0));
    body(capture);
    qn_log_free_singleton_instance();
    capture.release();
  });
}

TEST(Permission, DefaultTablesHoldWhereNoFileCanBeRead) {
  with_singleton([](StderrCapture& capture) {
    const std::vector<Record> records = capture.records();
    std::vector<std::string> rows;
    for (const Record& record : records) {
      if (record.biz_name == "add_default_configs") rows.push_back(record.level + " " + record.text);
    }
    ASSERT_EQ(16u, rows.size());
    EXPECT_EQ("I key=log.default.level,value=W", rows[0]);
    EXPECT_EQ("I key=log.qntty.trace,value=off", rows[15]);
    EXPECT_EQ("add default log user configs end.", records.back().text);
    EXPECT_TRUE(is_logged(QN_LOG_I, 1, "b"));
    EXPECT_FALSE(is_logged(QN_LOG_D, 1, "b"));
    EXPECT_FALSE(is_logged(QN_LOG_T, 1, "b"));
  });
}

TEST(Permission, AFileReplacesTheDefaultsCompletely) {
  const struct {
    const char* text;
    bool warning, debug, console;
  } rows[] = {
      {"log.hubd.level=D\nlog.hubd.console=on\n", true, true, true},
      {"log.hubd.level=W\n", true, false, false},
      {"log.default.level=E\n", false, false, false},
      {"", false, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    in_own_namespace([&] {
      write_file(kConfig, row.text);
      StderrCapture capture;
      EXPECT_EQ(0, qn_log_new_singleton_instance(0, kHubd, 0));
      EXPECT_EQ(row.warning, is_logged(QN_LOG_W, 1, "b"));
      EXPECT_EQ(row.debug, is_logged(QN_LOG_D, 1, "b"));
      capture.clear();
      qn_log_console_impl(QN_LOG_G, 1, "m", 1, "b", "x");
      EXPECT_EQ(row.console, !capture.text().empty());
      qn_log_free_singleton_instance();
      capture.release();
    });
  }
}

TEST(Permission, ASingleSwitchOpensOneCallSite) {
  with_singleton([](StderrCapture&) {
    EXPECT_EQ(0, Change("hubd", QN_LOG_PERMIT_LOGID).logid(77).permit("on").apply());
    EXPECT_TRUE(is_logged(QN_LOG_D, 77, "b"));
    EXPECT_FALSE(is_logged(QN_LOG_D, 78, "b"));
    EXPECT_FALSE(is_logged(QN_LOG_T, 77, "b")) << "trace has a gate of its own";
    EXPECT_EQ(0, Change("hubd", QN_LOG_PERMIT_LOGID).logid(77).permit("off").apply());
    EXPECT_FALSE(is_logged(QN_LOG_D, 77, "b"));

    // The key of a logid is signed, whatever a line shows.
    EXPECT_EQ(0, Change("hubd", QN_LOG_PERMIT_LOGID).logid(-1).permit("on").apply());
    EXPECT_TRUE(is_logged(QN_LOG_D, UINT32_MAX, "b"));

    const std::string longest(63 - strlen("log.hubd.biz."), 'b');
    EXPECT_EQ(0, Change("hubd", QN_LOG_PERMIT_BIZ).biz(longest).permit("on").apply());
    EXPECT_TRUE(is_logged(QN_LOG_D, 1, longest.c_str()));
    EXPECT_FALSE(is_logged(QN_LOG_D, 1, (longest + "b").c_str()));
    EXPECT_EQ(-1, Change("hubd", QN_LOG_PERMIT_BIZ).biz(longest + "b").permit("on").apply());
  });
}

TEST(Permission, EachStepSaysWhatItDoesAndWhyItFails) {
  const std::string long_biz(60, 'b');
  const struct {
    Change change;
    int32_t result;
    std::vector<std::string> texts;
  } rows[] = {
      {Change("hubd", 1).level("D"), 0, {"I set log role=hubd level=D."}},
      {Change("hubd", 8).console("off"), 0, {"I set log role=hubd console_permit=off."}},
      {Change("hubd", 16).trace("on"), 0, {"I set log role=hubd trace_permit=on."}},
      {Change("hubd", 8).console("yes"),
       -1,
       {"I set log role=hubd console_permit=yes.",
        "E permit error. set log role=hubd console_permit=yes."}},
      {Change("hubd", 16).trace("ON"),
       -1,
       {"I set log role=hubd trace_permit=ON.", "E permit error. set log role=hubd trace_permit=ON."}},
      {Change("hubd", 4).logid(5).permit("x"),
       -1,
       {"I set log role=hubd logid=5.", "E permit error. set log role=hubd logid=5."}},
      {Change("hubd", 2).biz("b").permit("x"),
       -1,
       {"I set log role=hubd biz_name=b permit=x.",
        "E permit error. set log role=hubd biz_name=b permit=x failed."}},
      {Change("hubd", 2).biz(long_biz).permit("on"),
       -1,
       {"I set log role=hubd biz_name=" + long_biz + " permit=on.",
        "E snprintf_s failed. set log role=hubd biz_name=" + long_biz + " permit=on."}},
      {Change("hubd", 6).biz("b").logid(5).permit("off"),
       -1,
       {"I set log role=hubd biz_name=b permit=off.", "I set log role=hubd logid=5."}},
      {Change("hubd", 31).level("I").biz("b").logid(5).permit("on").console("on").trace("off"),
       0,
       {"I set log role=hubd level=I.", "I set log role=hubd biz_name=b permit=on.",
        "I set log role=hubd logid=5.", "I set log role=hubd console_permit=on.",
        "I set log role=hubd trace_permit=off."}},
      {Change("hubd", 0), 0, {}},
  };
  with_singleton([&](StderrCapture& capture) {
    for (const auto& row : rows) {
      capture.clear();
      const std::string log_before = read_file(kLive);
      EXPECT_EQ(row.result, row.change.apply());
      std::vector<std::string> texts;
      for (const Record& record : capture.records()) {
        if (record.module == "log_permit") texts.push_back(record.level + " " + record.text);
      }
      EXPECT_EQ(row.texts, texts);
      const bool told = read_file(kLive)
                            .substr(log_before.size())
                            .find(
                                "[E] [log_permit] [qn_log_set_log_permit_config] "
                                "config failed.") != std::string::npos;
      EXPECT_EQ(row.result != 0, told);
    }
    Change unterminated("hubd", 0);
    for (char* text : {unterminated.config.level, unterminated.config.permit}) memset(text, 'x', 8);
    EXPECT_EQ(0, unterminated.apply()) << "no step reads them";
    unterminated.console("off").config.mask = QN_LOG_PERMIT_LEVEL | QN_LOG_PERMIT_CONSOLE;
    capture.clear();
    EXPECT_EQ(-1, unterminated.apply());
    EXPECT_EQ("set log role=hubd console_permit=off.", capture.records(0).at(0).text);
    memset(unterminated.config.role, 'r', sizeof(unterminated.config.role));
    unterminated.config.mask = QN_LOG_PERMIT_CONSOLE;
    EXPECT_EQ(-1, unterminated.apply());
    EXPECT_EQ(0, Change("hubd", 32).apply()) << "no step has this bit";
    EXPECT_EQ(-1, qn_log_set_log_permit_config(nullptr));
  });
}

size_t allocations_told() {
  const std::string log = read_file(kLive);
  size_t count = 0;
  for (size_t at = 0; (at = log.find("[0523] [D]", at)) != std::string::npos; at++) count++;
  return count;
}

// The node of a new switch is allocated behind the change of the level, the maps' nodes behind the file.
TEST(Permission, AChangeIsInForceAtOnce) {
  with_singleton([](StderrCapture&) {
    EXPECT_EQ(0, Change("hubd", 5).level("D").logid(7).permit("on").apply());
    const size_t of_the_switch = allocations_told();
    EXPECT_GE(of_the_switch, 1u);
    EXPECT_EQ(0, Change("hubd", 5).level("W").logid(8).permit("on").apply());
    EXPECT_EQ(of_the_switch, allocations_told());
    write_file(kConfig, "log.hubd.level=D\n");
    EXPECT_EQ(0, qn_log_new_singleton_instance(0, kHubd, 0));
    EXPECT_GT(allocations_told(), of_the_switch);
  });
}

TEST(Permission, AResetForgetsChangesAndReadsTheFileAgain) {
  with_singleton([](StderrCapture& capture) {
    EXPECT_EQ(0, Change("hubd", 5).level("D").logid(7).permit("on").apply());
    EXPECT_TRUE(is_logged(QN_LOG_D, 1, "b"));
    Change reset("hubd", QN_LOG_PERMIT_LEVEL);
    reset.level("D").config.reset = 1;
    capture.clear();
    EXPECT_EQ(0, reset.apply());
    EXPECT_EQ("reset log permission.", capture.records().at(0).text);
    EXPECT_FALSE(is_logged(QN_LOG_D, 7, "b"));

    write_file(kConfig, "log.hubd.level=D\n");
    EXPECT_EQ(0, reset.apply());
    EXPECT_TRUE(is_logged(QN_LOG_D, 1, "b"));
  });
}

TEST(Singleton, KeepsItsRoleWhenMadeAgainAndLoadsItsPermissionsAnew) {
  with_singleton([](StderrCapture& capture) {
    EXPECT_EQ(0, Change("hubd", 4).logid(7).permit("on").apply());
    EXPECT_EQ(0, qn_log_new_singleton_instance(0, 3, 0));
    EXPECT_EQ(kHubd, qn::qn_log_singleton_get()->role);
    EXPECT_FALSE(is_logged(QN_LOG_D, 7, "b"));
    EXPECT_TRUE(is_logged(QN_LOG_I, 7, "b"));

    qn_log_free_singleton_instance();
    capture.clear();
    qn_log_core_adpater(QN_LOG_T, 9, "m", 1, 1, "b", "ungated again");
    EXPECT_EQ((std::vector<uint32_t>{9}), capture.logids());
    EXPECT_EQ(-1, qn_log_new_singleton_instance(7, kHubd, 0));
  });
}

} // namespace
