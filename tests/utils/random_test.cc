// MAC addresses, random keys, time stamps, translated codes.
#include <gtest/gtest.h>
#include <quillcore/utility.h>

#include <string>

namespace {

TEST(Mac, TakesOneFormOnly) {
  const struct {
    const char* text;
    int32_t result;
    std::string bytes; // what is written before the fault
  } rows[] = {
      {"02:1a:2B:3c:4D:ff", 0, "\x02\x1a\x2b\x3c\x4d\xff"},
      {"02:1a:2B:3c:4D:f", -1, ""},
      {"02:1a:2B:3c:4D:ff0", -1, ""},
      {"02:1a-2B:3c:4D:ff", -1, "\x02\x1a"},
      {"02:1a:2g:3c:4D:ff", -1, "\x02\x1a"},
      {"02:1a: B:3c:4D:ff", -1, "\x02\x1a"},
  };
  for (const auto& row : rows) {
    uint8_t mac[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(row.result, qn_utils_char_to_mac(row.text, mac)) << row.text;
    std::string expected = row.bytes;
    expected.resize(6, '\xEE');
    EXPECT_EQ(expected, std::string(reinterpret_cast<char*>(mac), 6)) << row.text;
  }
  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(-1, qn_utils_char_to_mac(nullptr, mac));
  EXPECT_EQ(-1, qn_utils_char_to_mac("02:1a:2B:3c:4D:ff", nullptr));
  EXPECT_EQ(-1, qn_utils_get_intf_mac_addr("no-such-intf", mac));
  EXPECT_EQ(1, mac[0]);
  EXPECT_EQ(0, qn_utils_get_intf_mac_addr("lo", mac));
  EXPECT_EQ(0, mac[0] | mac[5]);
}

TEST(Random, MakesKeysOutOfItsAlphabet) {
  char key[18];
  key[17] = '#';
  qn_generate_random_key(key, 16);
  EXPECT_EQ(16u, std::string(key).size());
  EXPECT_EQ(std::string::npos, std::string(key).find_first_not_of(
                                   "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"));
  EXPECT_EQ('#', key[17]);
  char other[17];
  qn_generate_random_key(other, 16);
  EXPECT_STRNE(key, other);
  qn_generate_random_key(key, 0);
  EXPECT_STREQ("", key);
  EXPECT_EQ(0u, qn_random_get_num(-1));
  qn_random_close(0);
  qn_random_close(-1);
}

TEST(Time, CountsMillisecondsForward) {
  const int64_t before = qn_time_timestamp();
  EXPECT_GT(before, 0);
  EXPECT_GE(qn_time_timestamp(), before);
}

TEST(Codes, AreTranslatedByTheirTables) {
  const uint32_t cm[] = {0x01, 0x20, 0x40, 0x60, 0x02, 0x22, 0x04, 0x08, 0x10, 0x18, 0x20};
  const uint32_t wlan[] = {0x01, 0x04, 0x02, 0x20, 0x22, 0x08, 0x10, 0x18, 0x20, 0x40, 0x60, 0x20};
  for (uint32_t i = 0; i < std::size(cm); i++) EXPECT_EQ(cm[i], qn_trans_cm_auth_mode_to_qn(i)) << i;
  for (uint32_t i = 0; i < std::size(wlan); i++) EXPECT_EQ(wlan[i], qn_trans_wlan_auth_to_qn(i)) << i;
  EXPECT_EQ(0x20u, qn_trans_cm_auth_mode_to_qn(UINT32_MAX));
  EXPECT_EQ(0x20u, qn_trans_wlan_auth_to_qn(UINT32_MAX));
}

} // namespace
