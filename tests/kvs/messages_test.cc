// The records of each way through the operations, in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

TEST(StoreRecords, TellTheWayThroughEachOperation) {
  StderrCapture capture;
  const TempDir dir;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path()); // so that no text holds digits of the path
  // The records as their logids, each with the numbers in its text.
  const auto expect = [&](int32_t result, const std::string& told, int32_t seen) {
    EXPECT_EQ(result, seen) << told;
    std::string brief = capture.brief();
    const size_t dump = brief.find("607, ");
    if (dump != std::string::npos) brief.replace(dump, brief.find(", 610") + 5 - dump, "dump");
    EXPECT_EQ(told, brief);
    capture.clear();
  };
  {
    const OpenStore store("./store");
    expect(0, "485, 458, 612 0, 615 0, 462, 483 0 20000, 468, 469", store.result());
    for (const char* key : {"1", "2", "3", "4", "5", "6", "7", "broken"})
      ASSERT_EQ(0, store.put(key, std::string(2000, '~')));
  }
  const std::string text = capture.text();
  EXPECT_EQ(8 * 32, std::ranges::count(text, '~')) << "the first bytes of each value are shown";
  write_file("store", read_file("store").replace(StoreModel::slot_offset(199), 2, "\xfe\x07"));
  capture.clear();

  const OpenStore store("./store");
  expect(0, "485, 483 0 20000, 468, 469", store.result());
  expect(0, "490, 492, dump, 472 0 0 7 0, 474 0 0 7 0, 493", store.put("key", "a value"));
  expect(0, "496, 490, 492, dump, 475 0 0, 478 0 0, 493", store.put_text("key", ""));
  expect(Reading::kEmpty, "507, 509, 513 0 0 0, 514", store.get("key").kind);
  expect(0, "490, 492, dump, 477 1 31, 472 32 0 31 1, 474 32 0 31 1, 478 1 31, 493",
         store.put("key", std::string(31, 'v')));
  expect(-1, "490, 492, dump, 477 6 2045, 470 2045 6, 493", store.put("key", std::string(2045, 'v')));
  expect(-1, "490, 492, dump, 470 1023 6, 493", store.put("ninth", std::string(1023, 'v')));
  expect(-1, "490, 491 2046 2046", store.put("key", std::string(2046, 'v')));
  expect(-1, "490, 492 31, dump, 0 31 31, 493", store.put("a key of more than 31 characters", "v"));
  expect(-1, "496, 498", store.put_text("key", std::string(2045, 't')));
  expect(Reading::kValue, "507, 509, 513 1 0 31, 525 16 31, 515", store.get("key").kind);
  expect(Reading::kNothing, "507, 509, 511", store.get("absent").kind);
  expect(Reading::kNothing, "507, 509, 512 2046 2046", store.get("broken").kind);
  const qn_str_t key = {3, const_cast<char*>("key")};
  expect(-1, "490, 492, dump, 475 1 31, 476 1 31, 493", qn_kvs_put(store.get(), &key, nullptr, 31));
  expect(0, "501, 502, 504 1 0 31, 505", store.remove("key"));
  expect(-1, "501, 502, 503", store.remove("key"));
  expect(0, "501, 502, 504 6 7 2046, 505", store.remove("broken"));
  expect(-1, "490, 492, dump, 472 199 7 2000 6, 473 199 7 2000 6, 493",
         qn_kvs_put(store.get(), &key, nullptr, 2000));
  expect(0, "490, 492, dump, 472 199 7 2000 6, 474 199 7 2000 6, 493",
         store.put("key", std::string(2000, 'v')));
  void* value = nullptr;
  uint16_t length = 0;
  expect(-1, "494", qn_kvs_put_fmt(nullptr, &key, "%s", ""));
  expect(-1, "495", qn_kvs_put_fmt(store.get(), nullptr, "%s", ""));
  expect(-1, "506", qn_kvs_get(nullptr, &key, &value, &length));
  expect(-1, "507, 508", qn_kvs_get(store.get(), &key, nullptr, &length));
  expect(-1, "507, 509, 510", qn_kvs_get(store.get(), &key, &value, nullptr));
  expect(-1, "499", qn_kvs_delete(nullptr, &key));
  expect(-1, "500", qn_kvs_delete(store.get(), nullptr));
  std::filesystem::current_path(before);
}

} // namespace
