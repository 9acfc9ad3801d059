// The configuration parser against a second reader of the format, written from its description: find all
// entries, decide about limits, then build the list from the back.
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "container/config.h"
#include "container/string_map.h"
#include "fuzz/input.h"
#include "support/gate.h"

namespace {

using Entry = std::pair<std::string, std::string>;

constexpr char kWhite[] = " \t\n\v\f\r";

std::string strip_front(const std::string& text) {
  return text.substr(std::min(text.find_first_not_of(kWhite), text.size()));
}

std::string strip(const std::string& text) {
  return strip_front(text.substr(0, text.find_last_not_of(kWhite) + 1));
}

// The entries in file order; the last one may be cut short by a limit.
std::vector<Entry> read_entries(const std::string& text) {
  std::vector<Entry> entries;
  for (std::string rest = strip(text); !rest.empty();) {
    const size_t equals = rest.find('=');
    if (equals >= 64) { // or nowhere
      entries.emplace_back("", "");
      break;
    }
    const std::string key = strip(rest.substr(0, equals)), value = strip_front(rest.substr(equals + 1));
    const size_t end = std::min(value.find('\n'), value.size());
    entries.emplace_back(key, end < 256 ? strip(value.substr(0, end)) : "");
    rest = end < 256 ? strip_front(value.substr(end)) : "";
  }
  return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const GateAt quiet(0);
  std::string text = to_text(data, size).c_str();
  // The first entry stays at the head; the others follow, the last one first.
  std::vector<Entry> expected = read_entries(text), found;
  if (!expected.empty()) std::reverse(expected.begin() + 1, expected.end());

  qn_map_t* const map = qn_map_parse(text.data());
  qn::map_walk(map, [&](const qn_map_node_t& node) { found.emplace_back(node.key, node.value); });
  qn_map_free(map);
  require(found == expected, "the entries");
  return 0;
}
