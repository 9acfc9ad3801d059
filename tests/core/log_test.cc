// The record path before there is an instance, the line's form and limits, and the gate words.
#include <gtest/gtest.h>
#include <quillcore/log.h>

#include <cstdarg>
#include <ctime>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/log_gate.h"
#include "support/capture.h"

namespace {

std::string build(const qn::LogRecord& record, const char* fmt, ...) {
  char line[qn::kLogLineSize];
  memset(line, '#', sizeof(line));
  va_list args;
  va_start(args, fmt);
  qn::qn_log_line_build(line, record, fmt, args);
  va_end(args);
  return line;
}

// What stands behind the stamp.
std::string without_stamp(const std::string& line) { return line.substr(line.find('[')); }

TEST(LogLine, HasStampBracketsAndText) {
  const struct {
    qn::LogRecord record;
    const char* line;
  } rows[] = {
      {{QN_LOG_D, 523, "alloc", true, true, "memalloc", nullptr}, "[0523] [D] [alloc] [memalloc] x=1\n"},
      {{QN_LOG_T, 7, "m", true, true, "b", nullptr}, "[0007] [T] [m] [b] x=1\n"},
      {{QN_LOG_F, 0, "m", true, true, "b", "why"}, "[0000] [F] [m] [b] [why] x=1\n"},
      {{QN_LOG_F, 12345, "m", true, true, "b", nullptr}, "[12345] [F] [m] [b] [-] x=1\n"},
      {{QN_LOG_E, 0x80000000u, nullptr, true, true, nullptr, nullptr}, "[2147483648] [E] [-] [-] x=1\n"},
      {{0, 1, "m", true, true, "b", nullptr}, "[0001] [-] [m] [b] x=1\n"},
      {{63, 1, "m", true, true, "b", nullptr}, "[0001] [-] [m] [b] x=1\n"},
      {{QN_LOG_G, 1, "m", false, true, "b", nullptr}, "[0001] [G] [m] [b] x=1"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.line, without_stamp(build(row.record, "x=%d", 1)));
  EXPECT_EQ("x=1\n", build({QN_LOG_I, 1, "m", true, false, "b", nullptr}, "x=%d", 1));
  EXPECT_EQ("x=1\n\n", build({QN_LOG_I, 1, "m", true, false, "b", nullptr}, "x=%d\n", 1));
  EXPECT_EQ("", build({QN_LOG_I, 1, "m", false, false, "b", nullptr}, "%s", ""));
  EXPECT_EQ("ab\n", build({QN_LOG_I, 1, "m", true, false, "b", nullptr}, "ab%cde", 0))
      << "a line ends at a NUL";
}

TEST(LogLine, DropsATextThatDoesNotFitWhole) {
  const qn::LogRecord bare = {QN_LOG_I, 1, "m", true, false, "b", nullptr};
  EXPECT_EQ(std::string(1022, 'x') + "\n", build(bare, "%s", std::string(1022, 'x').c_str()));
  EXPECT_EQ("\n", build(bare, "%s", std::string(1023, 'x').c_str()));

  const qn::LogRecord headed = {QN_LOG_I, 1, "m", true, true, "b", nullptr};
  EXPECT_EQ("[0001] [I] [m] [b] \n", without_stamp(build(headed, "%s", std::string(1100, 'x').c_str())));
}

TEST(LogLine, AHeaderThatDoesNotFitStandsAloneAndCut) {
  const std::string module(2000, 'm');
  const std::string line = build({QN_LOG_I, 1, module.c_str(), true, true, "b", nullptr}, "text");
  EXPECT_EQ(1023u, line.size());
  EXPECT_EQ('m', line.back()) << "no line feed and no text";
}

// One header length leaves no room for a line feed, the one before just that.
TEST(LogLine, AHeaderThatFillsTheLineKeepsItsTerminator) {
  const std::string probe = build({QN_LOG_I, 1, "", true, true, "b", nullptr}, "%s", "");
  for (const size_t header : {1022u, 1023u}) {
    std::string line;
    // The stamp's microseconds have one to six digits, so the header's length is met by trying.
    for (size_t size = 1023 - probe.size() - 8; size < 1023; size++) {
      line = build({QN_LOG_I, 1, std::string(size, 'm').c_str(), true, true, "b", nullptr}, "%s", "x");
      if (line.find(' ', line.rfind(']')) + 1 == header) break;
    }
    EXPECT_EQ(1023u, line.size());
    EXPECT_EQ(header == 1022 ? '\n' : ' ', line.back());
  }
}

TEST(LogStamp, IsLocalTimeWithUnfilledMicroseconds) {
  EXPECT_STREQ("-", qn::qn_time_log_stamp(nullptr));
  char stamp[qn::kLogStampSize];
  setenv("TZ", "XYZ-11", 1); // eleven hours east, so that UTC would be noticed
  tzset();
  const time_t before = time(nullptr);
  EXPECT_EQ(stamp, qn::qn_time_log_stamp(stamp));
  const time_t after = time(nullptr);
  unsetenv("TZ");

  int month = 0, day = 0, hour = 0, minute = 0, second = 0;
  char micro[16] = "";
  ASSERT_EQ(6, sscanf(stamp, "%2d-%2d %2d:%2d:%2d %15s", &month, &day, &hour, &minute, &second, micro));
  bool matched = false;
  for (time_t moment = before; moment <= after; moment++) {
    const time_t east = moment + 11 * 3600;
    struct tm want;
    gmtime_r(&east, &want);
    matched = matched || (month == want.tm_mon + 1 && day == want.tm_mday && hour == want.tm_hour &&
                          minute == want.tm_min && second == want.tm_sec);
  }
  tzset();
  EXPECT_TRUE(matched) << stamp;
  EXPECT_TRUE(std::string(micro) == "0" || micro[0] != '0') << micro;
}

TEST(Log, PrintsEverythingUngatedBeforeThereIsAnInstance) {
  const StderrCapture capture;
  EXPECT_LE(0, qn_log_core_adpater(QN_LOG_T, 1, "m", 1, 1, "adpater", "%s", "t"));
  EXPECT_LE(0, qn_log_core(QN_LOG_D, nullptr, 2, "m", 1, "core", "%s", "d"));
  qn_log_console_impl(QN_LOG_T, 3, "m", 1, "console", "%s", "t");
  qn_log_console_impl(QN_LOG_F, 4, "m", 1, "console", "%s", "f");
  qn_log_console_impl(7, 5, "m", 1, "console", "%s", "7");
  qn_log_println(QN_LOG_T, 6, "m", "println", "%s", "t");
  qn_log_println(QN_LOG_D, 7, "m", "println", "%s", "d");
  qn_log_fault_adpater(8, "why", "m", 1, "fault", "%s", "f");
  qn_log_fault_impl(nullptr, 9, "why", "m", 1, "fault", "%s", "f");
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 4, 7, 8, 9}), capture.logids());
  EXPECT_EQ("[why] f", capture.records(8)[0].text);
}

TEST(Log, HidesTheMiddleOfAMacAddress) {
  const StderrCapture capture;
  const uint8_t mac[6] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0xff};
  qn_log_dump_macaddr_adpater(QN_LOG_I, 11, "m", 1, "b", "wan", mac);
  qn_log_dump_macaddr_adpater(QN_LOG_I, 12, "m", 1, "b", nullptr, mac);
  EXPECT_EQ("wan=0A:1B:**:**:4E:FF.", capture.records(11)[0].text);
  EXPECT_EQ("MAC=0A:1B:**:**:4E:FF.", capture.records(12)[0].text);
}

TEST(Log, AnInstanceWithoutAWriterDropsWhatPasses) {
  qn_log_t log = {0x80, 2, nullptr, nullptr, 1};
  const StderrCapture capture;
  EXPECT_EQ(0, qn_log_core(QN_LOG_G, &log, 1, "m", 1, "b", "text"));
  EXPECT_EQ(1, qn_log_core(QN_LOG_T, &log, 1, "m", 1, "b", "text"))
      << "no maps: the trace gate is closed";
  EXPECT_EQ(0, qn_log_core(QN_LOG_E, &log, 1, "m", 1, "b", "text"));
  EXPECT_EQ("", capture.text());
}

// Every word against the rule told plainly, for every level.
TEST(LogGate, WordsSayWhatTheRuleSays) {
  for (uint32_t bits = 0; bits < 7 * 16; bits++) {
    const uint32_t row = bits / 16;
    const bool global = bits & 1, console = bits & 2, trace = bits & 4, single = bits & 8;
    const uint32_t word = qn::gate_with_role(qn::make_gate(row, global, console, trace, false), 2);
    EXPECT_EQ(console, (word & qn::kGateConsole) != 0);
    for (const uint32_t level : {1u, 2u, 3u, 4u, 5u, 6u, 64u}) {
      const bool asked = level >= 2 && level <= 5;
      const bool by_level = asked ? global && level <= row : level != 64 || trace;
      EXPECT_EQ(by_level, qn::log_gate_permits(word, level, 7, "b"));
      if (!single) continue;
      qn::log_gate_set_filter(2, {.logids = qn::SingleBits::bit(7u)});
      qn::log_gate_set_exact_rule(
          [](uint32_t, uint32_t logid, const char*, uint32_t) { return logid == 7; });
      const uint32_t singles = qn::gate_with_role(qn::make_gate(row, global, console, trace, true), 2);
      EXPECT_EQ(by_level || asked, qn::log_gate_permits(singles, level, 7, "b"));
      EXPECT_EQ(by_level, qn::log_gate_permits(singles, level, 8, "b"));
    }
  }
}

TEST(LogGate, AClosedGateStopsRecordsWithTheDocumentedResults) {
  qn_log_t log = {0x80, 2, nullptr, nullptr, 1};
  const StderrCapture capture;
  qn::log_singleton_set(&log);
  qn::log_gate_set_current(qn::kGateNoMaps);
  EXPECT_EQ(0, qn_log_core_adpater(QN_LOG_E, 1, "m", 1, 1, "b", "text"));
  EXPECT_EQ(1, qn_log_core_adpater(QN_LOG_T, 1, "m", 1, 1, "b", "text"));
  qn_log_console_impl(QN_LOG_G, 1, "m", 1, "b", "the console gate is asked for every level");
  qn_log_console_impl(QN_LOG_F, 1, "m", 1, "b", "the console gate is asked for every level");
  EXPECT_EQ("", capture.text());

  qn::log_gate_set_current(qn::make_gate(2, true, true, false, false));
  qn_log_console_impl(QN_LOG_E, 2, "m", 1, "b", "e");
  qn_log_console_impl(QN_LOG_W, 3, "m", 1, "b", "w");
  qn_log_console_impl(QN_LOG_G, 4, "m", 1, "b", "g");
  qn_log_println(QN_LOG_D, 5, "m", "b", "no gate");
  EXPECT_EQ((std::vector<uint32_t>{2, 4, 5}), capture.logids());
  qn::log_gate_set_current(qn::kGateOpen);
  qn::log_singleton_set(nullptr);
}

} // namespace
