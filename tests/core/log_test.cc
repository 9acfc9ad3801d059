// The record path before there is an instance, and the line's form and limits.
#include <gtest/gtest.h>
#include <quillcore/log.h>
#include <sys/time.h>

#include <cstdarg>
#include <ctime>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/log_gate.h"
#include "support/capture.h"

namespace {

// The stamp's clock, where a test has set it.
timeval g_now = {};

} // namespace

extern "C" int gettimeofday(timeval* __restrict now, void* __restrict) noexcept {
  timespec real = {};
  clock_gettime(CLOCK_REALTIME, &real);
  *now = g_now.tv_sec != 0 ? g_now : timeval{real.tv_sec, static_cast<suseconds_t>(real.tv_nsec / 1000)};
  return 0;
}

namespace {

class LogLine : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "XYZ-11", 1); // eleven hours east, so that UTC would be noticed
    tzset();
    g_now = {1709590023, 42}; // 2024-03-04 22:07:03 UTC
  }
  void TearDown() override {
    g_now = {};
    unsetenv("TZ");
    tzset();
  }
};

std::string build(const qn::LogRecord& record, const char* fmt, ...) {
  char line[qn::kLogLineSize];
  memset(line, '#', sizeof(line));
  va_list args;
  va_start(args, fmt);
  qn::qn_log_line_build(line, record, fmt, args);
  va_end(args);
  return line;
}

const std::string kStamp = "03-05 09:07:03 42 ";

TEST_F(LogLine, HasStampBracketsAndText) {
  const struct {
    qn::LogRecord record;
    std::string line;
  } rows[] = {
      {{QN_LOG_D, 523, "alloc", true, true, "memalloc", nullptr},
       kStamp + "[0523] [D] [alloc] [memalloc] x=1\n"},
      {{QN_LOG_T, 7, "m", true, true, "b", nullptr}, kStamp + "[0007] [T] [m] [b] x=1\n"},
      {{QN_LOG_F, 0, "m", true, true, "b", "why"}, kStamp + "[0000] [F] [m] [b] [why] x=1\n"},
      {{QN_LOG_F, 12345, "m", true, true, "b", nullptr}, kStamp + "[12345] [F] [m] [b] [-] x=1\n"},
      {{QN_LOG_E, 0x80000000u, nullptr, true, true, nullptr, nullptr},
       kStamp + "[2147483648] [E] [-] [-] x=1\n"},
      {{0, 1, "m", true, true, "b", nullptr}, kStamp + "[0001] [-] [m] [b] x=1\n"},
      {{7, 1, "m", true, true, "b", nullptr}, kStamp + "[0001] [-] [m] [b] x=1\n"},
      {{QN_LOG_G, 1, "m", false, true, "b", nullptr}, kStamp + "[0001] [G] [m] [b] x=1"},
      {{QN_LOG_I, 1, "m", true, false, "b", nullptr}, "x=1\n"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.line, build(row.record, "x=%d", 1));
  const qn::LogRecord bare = {QN_LOG_I, 1, "m", true, false, "b", nullptr};
  EXPECT_EQ("x=1\n\n", build(bare, "x=%d\n", 1));
  EXPECT_EQ("ab\n", build(bare, "ab%cde", 0)) << "a line ends at a NUL";
  g_now.tv_usec = 0;
  char stamp[qn::kLogStampSize];
  EXPECT_STREQ("03-05 09:07:03 0", qn::qn_time_log_stamp(stamp));
  EXPECT_STREQ("-", qn::qn_time_log_stamp(nullptr));
}

TEST_F(LogLine, DropsATextThatDoesNotFitWhole) {
  const auto text = [](size_t size) { return std::string(size, 'x'); };
  const qn::LogRecord bare = {QN_LOG_I, 1, "m", true, false, "b", nullptr};
  EXPECT_EQ(text(1022) + "\n", build(bare, "%s", text(1022).c_str()));
  EXPECT_EQ("\n", build(bare, "%s", text(1023).c_str()));

  const qn::LogRecord headed = {QN_LOG_I, 1, "m", true, true, "b", nullptr};
  const std::string front = kStamp + "[0001] [I] [m] [b] ";
  EXPECT_EQ(front + text(1022 - front.size()) + "\n",
            build(headed, "%s", text(1022 - front.size()).c_str()));
  EXPECT_EQ(front + "\n", build(headed, "%s", text(1023 - front.size()).c_str()));
}

// A header of 1022 bytes leaves room for a line feed, one of 1023 just for its terminator, and a longer
// one is cut.
TEST_F(LogLine, AHeaderThatFillsTheLineStandsAlone) {
  const size_t frame = (kStamp + "[0001] [I] [] [b] ").size();
  for (const size_t header : {1022u, 1023u, 1024u, 3000u}) {
    const std::string module(header - frame, 'm');
    const std::string whole = kStamp + "[0001] [I] [" + module + "] [b] \n";
    EXPECT_EQ(whole.substr(0, 1023),
              build({QN_LOG_I, 1, module.c_str(), true, true, "b", nullptr}, "text"));
  }
}

TEST(Log, PrintsEverythingUngatedBeforeThereIsAnInstance) {
  const StderrCapture capture;
  EXPECT_LE(0, qn_log_core_adpater(QN_LOG_T, 1, "m", 1, 1, "adpater", "%s", "t"));
  EXPECT_LE(0, qn_log_core(QN_LOG_D, nullptr, 2, "m", 1, "core", "%s", "d"));
  qn_log_console_impl(QN_LOG_T, 3, "m", 1, "console", "%s", "t");
  qn_log_console_impl(QN_LOG_F, 4, "m", 1, "console", "%s", "f");
  qn_log_console_impl(7, 5, "m", 1, "console", "%s", "7");
  qn_log_println(QN_LOG_T, 6, "m", "println", "%s", "t");
  qn_log_println(QN_LOG_F, 7, "m", "println", "%s", "f");
  qn_log_fault_adpater(8, "why", "m", 1, "fault", "%s", "f");
  qn_log_fault_impl(nullptr, 9, "why", "m", 0, "fault", "%s\n", "f");
  const uint8_t mac[6] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0xff};
  qn_log_dump_macaddr_adpater(QN_LOG_I, 11, "m", 1, "b", "wan", mac);
  qn_log_dump_macaddr_adpater(QN_LOG_I, 12, "m", 1, "b", nullptr, mac);
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 4, 7, 8, 9, 11, 12}), capture.logids());
  EXPECT_EQ("[why] f", capture.records(8)[0].text);
  EXPECT_EQ("[why] f", capture.records(9)[0].text);
  EXPECT_EQ("wan=0A:1B:**:**:4E:FF.", capture.records(11)[0].text);
  EXPECT_EQ("MAC=0A:1B:**:**:4E:FF.", capture.records(12)[0].text);
}

// An instance that was never given permissions.
TEST(Log, AClosedGateStopsRecordsWithTheDocumentedResults) {
  qn_log_t log = {0x80, 2, nullptr, nullptr, 1};
  const StderrCapture capture;
  EXPECT_EQ(0, qn_log_core(QN_LOG_G, &log, 1, "m", 1, "b", "it has no writer"));
  EXPECT_EQ(0, qn_log_core(QN_LOG_E, &log, 1, "m", 1, "b", "e"));
  EXPECT_EQ(1, qn_log_core(QN_LOG_T, &log, 1, "m", 1, "b", "t"));
  qn::log_singleton_set(&log);
  qn::log_gate_set_current(qn::kGateNoMaps);
  EXPECT_EQ(0, qn_log_core_adpater(QN_LOG_E, 1, "m", 1, 1, "b", "e"));
  EXPECT_EQ(1, qn_log_core_adpater(QN_LOG_T, 1, "m", 1, 1, "b", "t"));
  qn_log_console_impl(QN_LOG_G, 1, "m", 1, "b", "the console gate is asked for every level");
  qn::log_gate_set_current(qn::kGateOpen);
  qn::log_singleton_set(nullptr);
  EXPECT_EQ("", capture.text());
}

} // namespace
