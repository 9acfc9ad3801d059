// Numbers, addresses, codes and hexadecimal dumps.
#include <gtest/gtest.h>
#include <quillcore/utility.h>

#include <cstring>
#include <string>

#include "core/log_gate.h"
#include "support/capture.h"

namespace {

TEST(Trim, DropsTheSixWhiteBytesAndNothingElse) {
  const char* const rows[][2] = {
      {"\t\v\f\r\n a b \t\v\f\r\n", "a b"}, {" ", ""}, {"\xA0x\x85", "\xA0x\x85"}};
  for (const auto& [text, trimmed] : rows) {
    std::string copy = text;
    EXPECT_STREQ(trimmed, qn_utils_trim(copy.data()));
    EXPECT_EQ(copy.data(), qn_utils_rtrim(copy.data()));
  }
  std::string blank = " ";
  EXPECT_STREQ("", qn_utils_rtrim(blank.data()));
  EXPECT_EQ(nullptr, qn_utils_trim(nullptr));
}

TEST(Number, IsAWholeTextOfABaseOrNothing) {
  EXPECT_EQ(5, qn_str2num("101", 2));
  EXPECT_EQ(1295, qn_str2num("Zz", 36));
  EXPECT_EQ(15, qn_str2num(" 017", 0));
  for (const int32_t base : {-2, 1, 37}) EXPECT_EQ(0, qn_str2num("1", base));
  for (const char* text : {"42 ", "", static_cast<const char*>(nullptr)})
    EXPECT_EQ(0, qn_str2num(text, 10));
  EXPECT_EQ(INT32_MAX, qn_str2num("2147483648", 10));
  EXPECT_EQ(INT32_MIN, qn_str2num("-2147483649", 10));
}

TEST(Mac, IsATextOfOneFormOrOfAnInterface) {
  uint8_t mac[6];
  EXPECT_EQ(0, qn_utils_char_to_mac("09:af:AF:10:2C:3d", mac));
  EXPECT_EQ(0, memcmp("\x09\xaf\xaf\x10\x2c\x3d", mac, sizeof(mac)));
  for (const char* text : {"09:af:AF:1b:2C:3", "09:af:AF:1b:2C:3d:", "09:af:AF:1b:2C-3d",
                           "0/:af:AF:1b:2C:3d", ":9:af:AF:1b:2C:3d", "0`:af:AF:1b:2C:3d",
                           "0g:af:AF:1b:2C:3d", "@9:af:AF:1b:2C:3d", "G9:af:AF:1b:2C:3d"})
    EXPECT_EQ(-1, qn_utils_char_to_mac(text, mac)) << text;
  EXPECT_EQ(-1, qn_utils_char_to_mac(nullptr, mac));
  EXPECT_EQ(-1, qn_utils_char_to_mac("09:af:AF:10:2C:3d", nullptr));
  EXPECT_EQ(-1, qn_utils_get_intf_mac_addr(nullptr, mac));
  EXPECT_EQ(-1, qn_utils_get_intf_mac_addr("lo", nullptr));
  EXPECT_EQ(-1, qn_utils_get_intf_mac_addr("no-such-intf", mac));
}

TEST(Random, MakesKeysOutOfItsAlphabet) {
  char key[] = "##################", other[] = "################";
  qn_generate_random_key(key, 16);
  qn_generate_random_key(other, 16);
  EXPECT_EQ(16u, strspn(key, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"));
  EXPECT_STREQ("#", key + 17);
  EXPECT_STRNE(key, other);
  for (const int none : {0, -1}) qn_random_close(none);
  EXPECT_EQ(0u, qn_random_get_num(-1));
}

TEST(Codes, AreTranslatedByTheirTables) {
  const uint32_t cm[] = {0x01, 0x20, 0x40, 0x60, 0x02, 0x22, 0x04, 0x08, 0x10, 0x18, 0x20};
  const uint32_t wlan[] = {0x01, 0x04, 0x02, 0x20, 0x22, 0x08, 0x10, 0x18, 0x20, 0x40, 0x60, 0x20};
  for (uint32_t i = 0; i < std::size(cm); i++) EXPECT_EQ(cm[i], qn_trans_cm_auth_mode_to_qn(i)) << i;
  for (uint32_t i = 0; i < std::size(wlan); i++) EXPECT_EQ(wlan[i], qn_trans_wlan_auth_to_qn(i)) << i;
}

// The records of a dump as their logids' last digits, each with the number of its elements.
std::string shape(uint32_t length, int32_t capped) {
  const StderrCapture capture;
  qn_utils_dump_hex(std::string(100, 'A').data(), length, capped);
  std::string shape;
  for (const Record& record : capture.records()) {
    shape += std::to_string(record.logid % 10) + ":";
    shape += std::to_string(record.text.starts_with("0x") ? record.text.size() / 8 : 0) + " ";
  }
  return shape;
}

TEST(DumpHex, PutsNineElementsOnTheFirstLineAndEightOnLaterOnes) {
  EXPECT_EQ("7:0 9:0 0:0 ", shape(0, 1));
  EXPECT_EQ("7:0 9:8 0:0 ", shape(8, 1));
  EXPECT_EQ("7:0 8:9 9:0 0:0 ", shape(9, 1));
  EXPECT_EQ("7:0 8:9 8:8 8:8 9:7 0:0 ", shape(100, 1));
  EXPECT_EQ("7:0 8:9 8:8 8:8 8:8 9:0 0:0 ", shape(33, 0));

  const StderrCapture capture;
  qn_utils_dump_hex("\0A%\xff", 4, 0);
  qn_utils_dump_hex(nullptr, 4, 0);
  EXPECT_EQ("", capture.records(609).at(1).text);
  EXPECT_EQ("0x00(0) 0x41(A) 0x25(%) 0xff(\xff) ", capture.records(609).at(0).text);
}

// A switch for one of the four lines alone lets just that line through.
TEST(DumpHex, AsksForEachLineByItsOwnLogid) {
  static uint32_t on;
  qn::log_gate_set_filter(0, {.logids = ~uint64_t{0}});
  qn::log_gate_set_exact_rule(
      [](uint32_t, uint32_t logid, const char*, uint32_t) { return logid == on; });
  qn::log_gate_set_current(qn::make_gate(2, true, true, false, true));
  for (on = 606; on <= 610; on++) {
    const StderrCapture capture;
    qn_utils_dump_hex("0123456789", 10, 1);
    EXPECT_EQ(std::vector<uint32_t>(on == 606 ? 0 : 1, on), capture.logids());
  }
  qn::log_gate_set_current(qn::kGateOpen);
  qn::log_gate_set_exact_rule(nullptr);
  qn::log_gate_set_filter(0, {});
}

} // namespace
