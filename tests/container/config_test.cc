// Configuration files: what becomes an entry, what ends the reading, what is reported.
#include <gtest/gtest.h>
#include <quillcore/container.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "container/string_map.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

// The entries of a text that is read from a file, in list order.
Entries load(const std::string& text) {
  const StderrCapture capture;
  const TempDir dir;
  write_file(dir.file("conf"), text);
  qn_map_t* const map = qn_conf_load(dir.file("conf").c_str());
  Entries entries;
  qn::map_walk(map, [&](const qn_map_node_t& node) { entries.emplace_back(node.key, node.value); });
  EXPECT_NE(nullptr, map);
  qn_map_free(map);
  return entries;
}

TEST(Config, ReadsEntriesAsTheFormatSays) {
  using std::string;
  const string k63(63, 'k'), k64(64, 'k'), v255(255, 'v'), v256(256, 'v');
  const struct {
    const char* why;
    string text;
    Entries entries;
  } rows[] = {
      {"empty", "", {}},
      {"white space only", " \n\t\v\f\r ", {}},
      {"order", "a=1\nb=2\nc=3\nd=4", {{"a", "1"}, {"d", "4"}, {"c", "3"}, {"b", "2"}}},
      {"white space around", "\n  a b \t= c d \r\n\n", {{"a b", "c d"}}},
      {"more equals signs", "a=b=c=\n", {{"a", "b=c="}}},
      {"empty value takes the next line", "a=\nb=2\nc=3", {{"a", "b=2"}, {"c", "3"}}},
      {"empty value at the end", "a=1\nb= \n", {{"a", "1"}, {"b", ""}}},
      {"comment becomes a key", "# x\na=1", {{"# x\na", "1"}}},
      {"empty key", "=1\nb=2", {{"", "1"}, {"b", "2"}}},
      {"no equals sign", "a=1\nb=2\njunk", {{"a", "1"}, {"", ""}, {"b", "2"}}},
      {"first entry repeated", "a=1\na=2\na=3", {{"a", "1"}, {"a", "3"}, {"a", "2"}}},
      {"key of 63", k63 + "=1\nb=2", {{k63, "1"}, {"b", "2"}}},
      {"key of 64", "a=1\n" + k64 + "=2\nb=3", {{"a", "1"}, {"", ""}}},
      {"blanks count in the key", k63 + " =1\nb=2", {{"", ""}}},
      {"value of 255", "a=" + v255 + "\nb=2", {{"a", v255}, {"b", "2"}}},
      {"value of 256", "a=" + v256 + "\nb=2", {{"a", ""}}},
      {"blanks count in the value", "a=" + v255 + " \nb=2", {{"a", ""}}},
      {"NUL ends the text", string("a=1\nb=2\0c=3", 11), {{"a", "1"}, {"b", "2"}}},
      {"bytes above 0x7f are text", "\xA0=\x85\n", {{"\xA0", "\x85"}}},
  };
  for (const auto& row : rows) EXPECT_EQ(row.entries, load(row.text)) << row.why;
}

TEST(Config, ReadsThe32767thByteAndNoMore) {
  const std::string front = "a=1\n" + std::string(32767 - 7, '\n');
  EXPECT_EQ((Entries{{"a", "1"}, {"b", "2"}}), load(front + "b=2"));
  EXPECT_EQ((Entries{{"a", "1"}, {"b", "2"}}), load(front + "b=23"));
}

TEST(Config, FindsTheEntryThatIsInForce) {
  const StderrCapture capture;
  const TempDir dir;
  write_file(dir.file("conf"), "first=1\nkey=1\nfirst=2\nkey=2\n");
  qn_map_t* const map = qn_conf_load(dir.file("conf").c_str());
  EXPECT_STREQ("1", qn_map_get("first", map)) << "the file's first entry wins over its duplicates";
  EXPECT_STREQ("2", qn_map_get("key", map)) << "else the last one does";
  qn_map_free(map);
}

TEST(Config, ReportsEveryWayOutAtLevelI) {
  const TempDir dir;
  const std::string absent = dir.file("absent"), good = dir.file("good");
  write_file(good, "a=1\n");
  const auto error = [](int number) {
    return " failed. errno=(" + std::to_string(number) + ", " + strerror(number) + ")";
  };
  const struct {
    std::string path;
    std::vector<std::pair<std::string, std::string>> records; // biz_name, text
  } rows[] = {
      {good,
       {{"qn_conf_load", "conf_load start."},
        {"qn_conf_load_configs_from_file", "loadd config file=" + good + " ok."},
        {"qn_conf_load", "conf_load end."}}},
      {absent,
       {{"qn_conf_load", "conf_load start."},
        {"qn_conf_read_from_file", "open file=" + absent + error(ENOENT)},
        {"qn_conf_load", "load config file=" + absent + " failed, using default."},
        {"qn_conf_load", "conf_load end."}}},
      {dir.path(),
       {{"qn_conf_load", "conf_load start."},
        {"qn_conf_read_from_file", "read file=" + dir.path() + error(EISDIR)},
        {"qn_conf_load", "load config file=" + dir.path() + " failed, using default."},
        {"qn_conf_load", "conf_load end."}}},
  };
  for (const auto& row : rows) {
    const StderrCapture capture;
    qn_map_t* const map = qn_conf_load(row.path.c_str());
    EXPECT_EQ(row.path == good, map != nullptr);
    qn_map_free(map);
    std::vector<std::pair<std::string, std::string>> records;
    for (const Record& record : capture.records()) {
      if (record.module != "conf") continue;
      EXPECT_EQ("I", record.level);
      EXPECT_EQ(record.text == "conf_load start." ? 633u : 0u, record.logid);
      records.emplace_back(record.biz_name, record.text);
    }
    EXPECT_EQ(row.records, records);
  }
  EXPECT_EQ(nullptr, qn_conf_load(nullptr));
}

} // namespace
