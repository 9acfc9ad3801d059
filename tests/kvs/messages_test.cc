// The records of each way through the operations, in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

// Of each operation its result, then its records: logid, level, biz_name, text. Those of the utilities
// stand as one, those of the heap are left out.
constexpr char kTranscript[] = R"(open, new file: 0
485 D qn_kvs_open create db instance success. dbfile=PATH
458 T create_and_open_dbfile entering qn_kvs_create_and_open_dbfile. called by nil.
(utilities)
462 T create_and_open_dbfile leaving qn_kvs_create_and_open_dbfile. called by nil.
483 D qn_kvs_mmap read/mmap dbfile success. dbfile=PATH, db_size=0x20000
468 T build_indexs entering qn_kvs_build_indexs. called by nil.
469 T build_indexs leaving qn_kvs_build_indexs. called by nil.
open: 0
485 D qn_kvs_open create db instance success. dbfile=PATH
483 D qn_kvs_mmap read/mmap dbfile success. dbfile=PATH, db_size=0x20000
468 T build_indexs entering qn_kvs_build_indexs. called by nil.
469 T build_indexs leaving qn_kvs_build_indexs. called by nil.
new key: 0
490 T kvs_put entering qn_kvs_put. called by nil.
492 D kvs_put key=key
(utilities)
472 D kvs_put_new found free node. key=key, key_index=0, value_index=0, value_len=7, val_type=0.
474 D kvs_put_new add key success. key=key, key_index=0, value_index=0, value_len=7, val_type=0.
493 T kvs_put leaving qn_kvs_put. called by nil.
in place, as a text: 0
496 D kvs_put_fmt key=key
490 T kvs_put entering qn_kvs_put. called by nil.
492 D kvs_put key=key
(utilities)
475 D kvs_update update in-place, key=key,value_type=0,value_len=0
478 D kvs_update update success, key=key,value_type=0,value_len=0
493 T kvs_put leaving qn_kvs_put. called by nil.
get, length 0: -1
507 T kvs_get entering qn_kvs_get. called by nil.
509 D kvs_get key=key
513 D kvs_get tfind success. key=key,value_type=0,value_index=0, value_len=0
514 E kvs_get get key=key,  malloc for value failed.
moved: 0
490 T kvs_put entering qn_kvs_put. called by nil.
492 D kvs_put key=key
(utilities)
477 D kvs_update update not-in-place, key=key,value_type=1,value_len=31
472 D kvs_put_new found free node. key=key, key_index=32, value_index=0, value_len=31, val_type=1.
474 D kvs_put_new add key success. key=key, key_index=32, value_index=0, value_len=31, val_type=1.
478 D kvs_update update success, key=key,value_type=1,value_len=31
493 T kvs_put leaving qn_kvs_put. called by nil.
move, class full: -1
490 T kvs_put entering qn_kvs_put. called by nil.
492 D kvs_put key=key
(utilities)
477 D kvs_update update not-in-place, key=key,value_type=6,value_len=2045
470 D kvs_put not found free node. value_len=2045, val_type=6 dbfile=PATH.
493 T kvs_put leaving qn_kvs_put. called by nil.
new key, class full: -1
490 T kvs_put entering qn_kvs_put. called by nil.
492 D kvs_put key=ninth
(utilities)
470 D kvs_put not found free node. value_len=1023, val_type=6 dbfile=PATH.
493 T kvs_put leaving qn_kvs_put. called by nil.
value too long: -1
490 T kvs_put entering qn_kvs_put. called by nil.
491 W kvs_put value_len=2046 greater than max=2046. dbfile=PATH.
key too long: -1
490 T kvs_put entering qn_kvs_put. called by nil.
492 D kvs_put key=0123456789abcdef0123456789abcdef
(utilities)
0 E kvs_put key=0123456789abcdef0123456789abcdef longer than max=31.
493 T kvs_put leaving qn_kvs_put. called by nil.
text too long: -1
496 D kvs_put_fmt key=key
498 E kvs_put_fmt vsprintf_s failed.key=key, fmt=%s
text, no store: -1
494 E kvs_put_fmt db is null.
text, no key: -1
495 E kvs_put_fmt key is null.
get: 0
507 T kvs_get entering qn_kvs_get. called by nil.
509 D kvs_get key=key
513 D kvs_get tfind success. key=key,value_type=1,value_index=0, value_len=31
515 T kvs_get leaving qn_kvs_get. called by nil.
get, absent: -1
507 T kvs_get entering qn_kvs_get. called by nil.
509 D kvs_get key=absent
511 D kvs_get tfind not found key=absent.
get, damaged length: -1
507 T kvs_get entering qn_kvs_get. called by nil.
509 D kvs_get key=broken
512 E kvs_get get key=broken, item value len=2046 greater than max=2046.
get, no store: -1
506 E kvs_get db is null.
get, no value: -1
507 T kvs_get entering qn_kvs_get. called by nil.
508 E kvs_get get key=key, value ptr is NULL.
get, no length: -1
507 T kvs_get entering qn_kvs_get. called by nil.
509 D kvs_get key=key
510 E kvs_get get key=key, value_len ptr is NULL.
delete: 0
501 T kvs_delete entering qn_kvs_delete. called by nil.
502 D kvs_delete key=key
504 D kvs_delete delete success. key=key,value_type=1,value_index=0, value_len=31
505 T kvs_delete leaving qn_kvs_delete. called by nil.
delete, absent: -1
501 T kvs_delete entering qn_kvs_delete. called by nil.
502 D kvs_delete key=key
503 E kvs_delete tfind not found key=key.
delete, no store: -1
499 E kvs_delete db is null.
delete, no key: -1
500 E kvs_delete key is null.
)";

TEST(StoreRecords, TellTheWayThroughEachOperation) {
  StderrCapture capture;
  const TempDir dir;
  const std::string path = dir.file("store");
  std::string transcript;
  const auto note = [&](const char* what, int32_t result) {
    transcript += std::string(what) + ": " + std::to_string(result) + "\n";
    for (const Record& record : capture.records()) {
      const bool is_utility = record.module == "qn_utils";
      if (record.module == "alloc" || (is_utility && transcript.ends_with("(utilities)\n"))) continue;
      EXPECT_TRUE(is_utility || record.module == "kvstore") << record;
      std::string text = record.text;
      if (const size_t at = text.find(path); at != std::string::npos)
        text.replace(at, path.size(), "PATH");
      transcript += is_utility ? "(utilities)"
                               : std::to_string(record.logid) + " " + record.level + " " +
                                     record.biz_name + " " + text;
      transcript += "\n";
    }
    capture.clear();
  };
  {
    const OpenStore store(path);
    note("open, new file", store.result());
    for (const char* key : {"1", "2", "3", "4", "5", "6", "7", "broken"}) {
      ASSERT_EQ(0, store.put(key, std::string(2000, 'f')));
    }
  }
  std::string file = read_file(path);
  file.replace(StoreModel::slot_offset(199), 2, "\xfe\x07");
  write_file(path, file);
  capture.clear();

  const OpenStore store(path);
  note("open", store.result());
  note("new key", store.put("key", "a value"));
  note("in place, as a text", store.put_text("key", ""));
  note("get, length 0", store.get("key").kind == Reading::kEmpty ? -1 : 0);
  note("moved", store.put("key", std::string(31, 'v')));
  note("move, class full", store.put("key", std::string(2045, 'v')));
  note("new key, class full", store.put("ninth", std::string(1023, 'v')));
  note("value too long", store.put("key", std::string(2046, 'v')));
  note("key too long", store.put("0123456789abcdef0123456789abcdef", "v"));
  note("text too long", store.put_text("key", std::string(2045, 't')));
  const qn_str_t key = {3, const_cast<char*>("key")};
  void* value = nullptr;
  uint16_t length = 0;
  note("text, no store", qn_kvs_put_fmt(nullptr, &key, "%s", ""));
  note("text, no key", qn_kvs_put_fmt(store.get(), nullptr, "%s", ""));
  note("get", store.get("key").kind == Reading::kValue ? 0 : -1);
  note("get, absent", store.get("absent").kind == Reading::kNothing ? -1 : 0);
  note("get, damaged length", store.get("broken").kind == Reading::kNothing ? -1 : 0);
  note("get, no store", qn_kvs_get(nullptr, &key, &value, &length));
  note("get, no value", qn_kvs_get(store.get(), &key, nullptr, &length));
  note("get, no length", qn_kvs_get(store.get(), &key, &value, nullptr));
  note("delete", store.remove("key"));
  note("delete, absent", store.remove("key"));
  note("delete, no store", qn_kvs_delete(nullptr, &key));
  note("delete, no key", qn_kvs_delete(store.get(), nullptr));
  EXPECT_EQ(kTranscript, transcript);

  // The first bytes of a value are shown, and no more. What a get hands out is aligned to 16.
  ASSERT_EQ(0, store.put("key", std::string(100, '~')));
  const std::string text = capture.text();
  EXPECT_EQ(32, std::count(text.begin(), text.end(), '~'));
  EXPECT_EQ(Reading::kValue, store.get("key").kind);
  ASSERT_EQ(1u, capture.records(525).size());
  EXPECT_EQ("memalign alignment=16, size=100 success.", capture.records(525)[0].text);
}

} // namespace
