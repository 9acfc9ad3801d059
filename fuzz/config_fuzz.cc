// The configuration parser against a second reader of the format, written from its description: find all
// entries with positions first, then decide about limits, then build the list from the back.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "container/config.h"
#include "container/string_map.h"
#include "core/log_gate.h"

namespace {

using Entry = std::pair<std::string, std::string>;

constexpr char kWhite[] = " \t\n\v\f\r";

std::string strip(const std::string& text) {
  const size_t first = text.find_first_not_of(kWhite);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(kWhite) - first + 1);
}

// The entries in file order; the last one may be cut short by a limit.
std::vector<Entry> read_entries(const std::string& whole) {
  std::vector<Entry> entries;
  std::string rest = strip(whole);
  while (!rest.empty()) {
    const size_t equals = rest.find('=');
    if (equals == std::string::npos || equals >= 64) {
      entries.emplace_back("", "");
      break;
    }
    const std::string key = strip(rest.substr(0, equals));
    const size_t start = rest.find_first_not_of(kWhite, equals + 1);
    if (start == std::string::npos) {
      entries.emplace_back(key, "");
      break;
    }
    const size_t end = std::min(rest.find('\n', start), rest.size());
    if (end - start >= 256) {
      entries.emplace_back(key, "");
      break;
    }
    entries.emplace_back(key, strip(rest.substr(start, end - start)));
    rest.erase(0, end);
    rest.erase(0, std::min(rest.find_first_not_of(kWhite), rest.size()));
  }
  return entries;
}

// The first entry stays at the head; the others follow, the last one first.
std::vector<Entry> list_order(const std::vector<Entry>& entries) {
  if (entries.size() < 2) return entries;
  std::vector<Entry> list{entries.front()};
  list.insert(list.end(), entries.rbegin(), entries.rend() - 1);
  return list;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qn::log_gate_set_current(qn::kGateNoMaps);
  const std::string text(reinterpret_cast<const char*>(data),
                         strnlen(reinterpret_cast<const char*>(data), size));
  std::vector<char> writable(text.begin(), text.end());
  writable.push_back('\0');

  qn_map_t* const map = qn_map_parse(writable.data());
  std::vector<Entry> found;
  qn::map_walk(map, [&](const qn_map_node_t& node) { found.emplace_back(node.key, node.value); });
  qn_map_free(map);
  if (found != list_order(read_entries(text))) abort();
  return 0;
}
