// A line of a log taken apart by the tool: the parts are the line, in their order and with what the
// format puts between them, and stamps order as their fields do.
#include "fuzz/input.h"
#include "tools/log_line.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ctl::Calendar calendar(1700000000);
  const std::string line = to_text(data, size);
  ctl::LogLine parts;
  if (!ctl::parse_log_line(calendar, line.data(), line.size(), &parts)) return 0;
  const auto text = [](const ctl::TextPart& part) { return std::string(part.at, part.length); };
  const std::string front = text(parts.stamp_text) + " [";
  const size_t logid_end = line.find(']', front.size());
  require(line.starts_with(front), "the stamp");
  require(strtoul(line.c_str() + front.size(), nullptr, 10) == parts.logid, "the logid");
  std::string built = line.substr(0, logid_end) + "] [" + parts.level + "] [" + text(parts.module) +
                      "] [" + text(parts.biz_name) + "]";
  if (built.size() < line.size()) built += " " + text(parts.text);
  require(built == line && parts.stamp <= calendar.now() + 86400 * ctl::kSecond, "parts and stamp");
  return 0;
}
