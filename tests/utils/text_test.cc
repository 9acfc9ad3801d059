// Trimming, numbers, hexadecimal dumps.
#include <gtest/gtest.h>
#include <quillcore/utility.h>

#include <cstring>
#include <string>

#include "core/log.h"
#include "core/log_gate.h"
#include "support/capture.h"

namespace {

TEST(Trim, DropsTheSixWhiteBytesAndNothingElse) {
  const struct {
    const char *text, *left, *right, *both;
  } rows[] = {
      {"  a b \n", "a b \n", "  a b", "a b"},
      {"\t\v\f\r\n x", "x", "\t\v\f\r\n x", "x"},
      {"\xA0x\x85\x1C", "\xA0x\x85\x1C", "\xA0x\x85\x1C", "\xA0x\x85\x1C"},
      {"", "", "", ""},
      {" \t ", "", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    std::string text = row.text;
    char* const start = text.data();
    EXPECT_STREQ(row.left, qn_utils_ltrim(start));
    EXPECT_STREQ(row.text, start) << "ltrim changes nothing";
    EXPECT_EQ(start, qn_utils_rtrim(start));
    EXPECT_STREQ(row.right, start);

    text = row.text;
    const char* const trimmed = qn_utils_trim(text.data());
    EXPECT_STREQ(row.both, trimmed);
    EXPECT_TRUE(trimmed >= text.data() && trimmed <= text.data() + strlen(row.text));
  }
  EXPECT_EQ(nullptr, qn_utils_ltrim(nullptr));
  EXPECT_EQ(nullptr, qn_utils_rtrim(nullptr));
  EXPECT_EQ(nullptr, qn_utils_trim(nullptr));
}

TEST(Number, TakesAWholeTextOrNothing) {
  const struct {
    const char* text;
    int32_t base, number;
  } rows[] = {
      {"42", 10, 42},
      {"  42", 10, 42},
      {"42 ", 10, 0},
      {"42x", 10, 0},
      {"", 10, 0},
      {"0x1f", 0, 31},
      {"ff", 16, 255},
      {"-7", 10, -7},
      {"017", 0, 15},
      {"zz", 36, 1295},
      {"1", 1, 0},
      {"1", 37, 0},
      {"1", -2, 0},
      {nullptr, 10, 0},
      {"2147483647", 10, INT32_MAX},
      {"2147483648", 10, INT32_MAX},
      {"-2147483649", 10, INT32_MIN},
      {"99999999999999999999", 10, INT32_MAX},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.number, qn_str2num(row.text, row.base)) << (row.text != nullptr ? row.text : "null");
  }
}

// The dump's records as logid and number of elements.
std::vector<std::pair<uint32_t, size_t>> shape(const StderrCapture& capture) {
  std::vector<std::pair<uint32_t, size_t>> found;
  for (const Record& record : capture.records()) {
    const bool line = record.logid == 608 || record.logid == 609;
    found.emplace_back(record.logid, line ? record.text.size() / 8 : 0);
  }
  return found;
}

TEST(DumpHex, PutsNineElementsOnTheFirstLineAndEightOnLaterOnes) {
  const std::string bytes(100, 'A');
  using Shape = std::vector<std::pair<uint32_t, size_t>>;
  const struct {
    uint32_t length;
    int32_t capped;
    Shape shape;
  } rows[] = {
      {0, 1, {{607, 0}, {609, 0}, {610, 0}}},
      {8, 1, {{607, 0}, {609, 8}, {610, 0}}},
      {9, 1, {{607, 0}, {608, 9}, {609, 0}, {610, 0}}},
      {25, 1, {{607, 0}, {608, 9}, {608, 8}, {608, 8}, {609, 0}, {610, 0}}},
      {100, 1, {{607, 0}, {608, 9}, {608, 8}, {608, 8}, {609, 7}, {610, 0}}},
      {33, 0, {{607, 0}, {608, 9}, {608, 8}, {608, 8}, {608, 8}, {609, 0}, {610, 0}}},
  };
  for (const auto& row : rows) {
    const StderrCapture capture;
    qn_utils_dump_hex(bytes.data(), row.length, row.capped);
    EXPECT_EQ(row.shape, shape(capture)) << row.length;
  }
  const StderrCapture capture;
  qn_utils_dump_hex(nullptr, 8, 1);
  EXPECT_EQ(rows[0].shape, shape(capture));
}

TEST(DumpHex, ShowsEveryByteAsItIs) {
  const StderrCapture capture;
  qn_utils_dump_hex(
      "\x00"
      "A%\xff"
      "9",
      5, 0);
  const Record line = capture.records(609).at(0);
  EXPECT_EQ("0x00(0) 0x41(A) 0x25(%) 0xff(\xff) 0x39(9) ", line.text);
  EXPECT_EQ((Record{line.stamp, 609, "D", "qn_utils", "dump_hex", line.text}), line);
  EXPECT_EQ("------------ Dump hex start -----------------", capture.records(607).at(0).text);
  EXPECT_EQ("------------ Dump hex end -----------------", capture.records(610).at(0).text);
}

// A switch for one of the four lines alone lets just that line through.
TEST(DumpHex, AsksForEachLineByItsOwnLogid) {
  for (const uint32_t wanted : {607u, 608u, 609u, 610u}) {
    static uint32_t on;
    on = wanted;
    qn::log_gate_set_filter(0, {.logids = ~uint64_t{0}});
    qn::log_gate_set_exact_rule(
        [](uint32_t, uint32_t logid, const char*, uint32_t) { return logid == on; });
    qn::log_gate_set_current(qn::make_gate(2, true, true, false, true));
    const StderrCapture capture;
    qn_utils_dump_hex("0123456789", 10, 1);
    EXPECT_EQ(std::vector<uint32_t>{wanted}, capture.logids());
    qn::log_gate_set_current(qn::kGateOpen);
    qn::log_gate_set_exact_rule(nullptr);
    qn::log_gate_set_filter(0, {});
  }
}

} // namespace
