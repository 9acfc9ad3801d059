// Configuration files and the map that they become: what is an entry, in which order, up to which length.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "container/string_map.h"
#include "support/capture.h"
#include "support/gate.h"
#include "support/owners.h"
#include "support/temp_dir.h"

namespace {

using std::string;
using Entries = std::vector<std::pair<string, string>>;

Entries entries_of(const MapPtr& map) {
  Entries entries;
  if (!map) entries.emplace_back("no map", "");
  qn::map_walk(map.get(), [&](const qn_map_node_t& node) { entries.emplace_back(node.key, node.value); });
  return entries;
}

TEST(Config, ReadsEntriesAsTheFormatSays) {
  const string k63(63, 'k'), v255(255, 'v'), far = "a=1\n" + string(32767 - 7, '\n');
  const struct {
    const char* why;
    string text;
    Entries entries;
  } rows[] = {
      {"empty", "", {}},
      {"order", "a=1\nb=2\nc=3\nd=4", {{"a", "1"}, {"d", "4"}, {"c", "3"}, {"b", "2"}}},
      {"an empty value takes the next line", "a=\nb=2\nc=3", {{"a", "b=2"}, {"c", "3"}}},
      {"longest texts", k63 + "=" + v255 + "\nb=2", {{k63, v255}, {"b", "2"}}},
      {"byte 32767", far + "b=2", {{"a", "1"}, {"b", "2"}}},
      {"byte 32768", far + "b=23", {{"a", "1"}, {"b", "2"}}},
  };
  const GateAt informed(QN_LOG_I);
  StderrCapture capture;
  const TempDir dir;
  const string path = dir.file("conf");
  for (const auto& row : rows) {
    write_file(path, row.text);
    EXPECT_EQ(row.entries, entries_of(MapPtr(qn_conf_load(path.c_str())))) << row.why;
  }
  write_file(path, "first=1\nkey=1\nfirst=2\nkey=2\n");
  capture.clear();
  const MapPtr map(qn_conf_load(path.c_str())), none(qn_conf_load(dir.file("absent").c_str()));
  EXPECT_EQ((std::vector<uint32_t>{633, 0, 0, 633, 0, 0, 0}), capture.logids());
  EXPECT_STREQ("1", qn_map_get("first", map.get())) << "the first entry wins over those that repeat it";
  EXPECT_STREQ("2", qn_map_get("key", map.get())) << "else the last one does";
}

TEST(StringMap, PutsLaterNodesBehindTheHeadAndHoldsItsLimits) {
  const StderrCapture capture;
  const MapPtr map(qn_map_new());
  const auto set = [&](const string& key, const string& value) {
    return qn_map_set(key.c_str(), value.c_str(), map.get());
  };
  for (const char* key : {"a", "b", "c", "d"}) EXPECT_EQ(0, set(key, key));
  EXPECT_EQ(0, set("c", "new")) << "which keeps its place";
  EXPECT_EQ((Entries{{"a", "a"}, {"d", "d"}, {"c", "new"}, {"b", "b"}}), entries_of(map));
  for (const char* key : {"c", "a"}) EXPECT_EQ(0, qn_map_remove(key, map.get()));
  EXPECT_EQ(-1, qn_map_remove("a", map.get()));
  EXPECT_EQ(0, set("e", "e"));
  EXPECT_EQ((Entries{{"d", "d"}, {"e", "e"}, {"b", "b"}}), entries_of(map));

  const string k63(63, 'k');
  EXPECT_EQ(-1, set(k63 + "k", "v"));
  EXPECT_EQ(-1, set(k63, string(256, 'v')));
  EXPECT_EQ(0, set(k63, string(255, 'v')));
  EXPECT_EQ(nullptr, qn_map_get((k63 + "k").c_str(), map.get())) << "differs behind what fits";
  EXPECT_EQ(0, set(k63, string(254, 'v')));
  EXPECT_EQ(-1, set(k63, string(255, 'v'))) << "an update takes one byte less, and the old value is lost";
  EXPECT_STREQ("", qn_map_get(k63.c_str(), map.get()));
  EXPECT_EQ(nullptr, qn_map_get(nullptr, map.get()));
  EXPECT_EQ(nullptr, qn_map_get("b", nullptr));
  EXPECT_EQ(-2, qn_map_remove("b", nullptr));
}

} // namespace
