// The records of each way through the operations, in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

// Of each operation its result, the logids of its records, with u for those of the utilities, and the
// texts of those that name several numbers.
constexpr char kTranscript[] = R"(
open, new file: 0: 485 458 u 462 483 468 469
open: 0: 485 483 468 469
new key: 0: 490 492 u 472 found free node. key=key, key_index=0, value_index=0, value_len=7, val_type=0. 474 493
in place, as a text: 0: 496 490 492 u 475 478 493
get, length 0: 2: 507 509 513 514
moved: 0: 490 492 u 477 472 found free node. key=key, key_index=32, value_index=0, value_len=31, val_type=1. 474 478 493
move, class full: -1: 490 492 u 477 470 not found free node. value_len=2045, val_type=6 dbfile=PATH. 493
new key, class full: -1: 490 492 u 470 not found free node. value_len=1023, val_type=6 dbfile=PATH. 493
value too long: -1: 490 491 value_len=2046 greater than max=2046. dbfile=PATH.
key too long: -1: 490 492 u 0 493
text too long: -1: 496 498
get: 0: 507 509 513 515
get, absent: 1: 507 509 511
get, damaged length: 1: 507 509 512 get key=broken, item value len=2046 greater than max=2046.
no value, in place: -1: 490 492 u 475 476 493
delete: 0: 501 502 504 delete success. key=key,value_type=1,value_index=0, value_len=31 505
delete, absent: -1: 501 502 503
no value, new key: -1: 490 492 u 472 found free node. key=key, key_index=199, value_index=7, value_len=2000, val_type=6. 473 493
last place: 0: 490 492 u 472 found free node. key=key, key_index=199, value_index=7, value_len=2000, val_type=6. 474 493
null arguments: -7: 494 495 506 507 508 507 509 510 499 500
)";
constexpr uint32_t kWithTexts[] = {470, 472, 491, 504, 512};

TEST(StoreRecords, TellTheWayThroughEachOperation) {
  StderrCapture capture;
  const TempDir dir;
  const std::string path = dir.file("store");
  std::string transcript = "\n";
  const auto note = [&](const char* what, int32_t result) {
    transcript += std::string(what) + ": " + std::to_string(result) + ":";
    for (Record& record : capture.records()) {
      const bool is_utility = record.module == "qn_utils";
      if (record.module == "alloc" || (is_utility && transcript.ends_with("u"))) continue;
      transcript += " " + (is_utility ? "u" : std::to_string(record.logid));
      if (std::ranges::count(kWithTexts, record.logid) == 0) continue;
      const size_t at = record.text.find(path);
      if (at != std::string::npos) record.text.replace(at, path.size(), "PATH");
      transcript += " " + record.text;
    }
    transcript += "\n";
    capture.clear();
  };
  {
    const OpenStore store(path);
    note("open, new file", store.result());
    for (const char* key : {"1", "2", "3", "4", "5", "6", "7", "broken"})
      ASSERT_EQ(0, store.put(key, std::string(2000, '~')));
  }
  const std::string text = capture.text();
  EXPECT_EQ(8 * 32, std::ranges::count(text, '~')) << "the first bytes of each value are shown";
  write_file(path, read_file(path).replace(StoreModel::slot_offset(199), 2, "\xfe\x07"));
  capture.clear();

  const OpenStore store(path);
  note("open", store.result());
  note("new key", store.put("key", "a value"));
  note("in place, as a text", store.put_text("key", ""));
  note("get, length 0", store.get("key").kind);
  note("moved", store.put("key", std::string(31, 'v')));
  note("move, class full", store.put("key", std::string(2045, 'v')));
  note("new key, class full", store.put("ninth", std::string(1023, 'v')));
  note("value too long", store.put("key", std::string(2046, 'v')));
  note("key too long", store.put("0123456789abcdef0123456789abcdef", "v"));
  note("text too long", store.put_text("key", std::string(2045, 't')));
  note("get", store.get("key").kind);
  note("get, absent", store.get("absent").kind);
  note("get, damaged length", store.get("broken").kind);
  const qn_str_t key = {3, const_cast<char*>("key")};
  note("no value, in place", qn_kvs_put(store.get(), &key, nullptr, 31));
  note("delete", store.remove("key"));
  note("delete, absent", store.remove("key"));
  ASSERT_EQ(0, store.remove("broken"));
  capture.clear();
  note("no value, new key", qn_kvs_put(store.get(), &key, nullptr, 2000));
  note("last place", store.put("key", std::string(2000, 'v')));
  void* value = nullptr;
  uint16_t length = 0;
  int32_t sum = qn_kvs_put_fmt(nullptr, &key, "%s", "");
  sum += qn_kvs_put_fmt(store.get(), nullptr, "%s", "");
  sum += qn_kvs_get(nullptr, &key, &value, &length);
  sum += qn_kvs_get(store.get(), &key, nullptr, &length);
  sum += qn_kvs_get(store.get(), &key, &value, nullptr);
  sum += qn_kvs_delete(nullptr, &key);
  sum += qn_kvs_delete(store.get(), nullptr);
  note("null arguments", sum);
  EXPECT_EQ(kTranscript, transcript);
}

} // namespace
