// One text in all the files that the kernel tells about an interface with. The interface is a folder
// elsewhere, which its name leads to.
#include <quillcore/interface.h>

#include <cstring>
#include <filesystem>

#include "fuzz/input.h"
#include "support/gate.h"
#include "support/temp_dir.h"

namespace {

// One file under every name.
bool make_files(const TempDir& dir) {
  for (const char* folder : {"statistics", "brport", "brif/port"})
    std::filesystem::create_directories(dir.file(folder));
  write_file(dir.file("carrier"), "");
  for (const char* file : {"operstate", "speed", "brport/port_no", "brif/port/port_no",
                           "statistics/rx_packets", "statistics/rx_errors", "statistics/tx_packets",
                           "statistics/tx_errors", "statistics/rx_bytes", "statistics/tx_bytes"})
    std::filesystem::create_hard_link(dir.file("carrier"), dir.file(file));
  return true;
}

void check_counters(const char* intf_name, const std::string& text) {
  const std::string line = text.substr(0, std::min<size_t>(text.find('\n'), 31));
  const uint64_t expected = strtoull(line.c_str(), nullptr, 10);
  qn_intf_eth_metric_t metric;
  QnIntfGetEthMetric(intf_name, &metric);
  for (const uint64_t counter : {metric.rx_packets, metric.rx_errors, metric.tx_packets, metric.tx_errors,
                                 metric.rx_bytes, metric.tx_bytes}) {
    require(counter == expected, "a counter");
  }
}

// The two readers of port numbers agree, and both understand what the kernel writes.
void check_port(const char* intf_name, const std::string& text) {
  const uint32_t number = static_cast<uint32_t>(QnIntfGetPortIndex(intf_name)) + 1;
  char name[3] = "##";
  const bool found = QnIntfGetNameByPortNo(intf_name, number, name, sizeof(name)) == 0;
  require(found || number == 0, "a port"); // index -1: no number, or the number 0
  require(strcmp(name, found ? "po" : "##") == 0, "a port's name");
  const size_t digits = text.find_first_not_of("0123456789abcdef", 2);
  if (text.starts_with("0x") && digits > 2 && digits <= 10 && text[digits] == '\n')
    require(found && number == strtoul(text.c_str(), nullptr, 16), "the kernel's form of a number");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const TempDir dir;
  static const bool made = make_files(dir);
  static const std::string path = "../../.." + dir.path(); // up to the root and down again
  const char* const name = path.c_str();
  const GateAt quiet(0);
  const std::string text = to_text(data, size);
  write_file(dir.file("carrier"), text);
  require(made && qn_cheack_intf_is_exist(name) == 1, "it is there");
  require(static_cast<uint32_t>(QnIntfGetOperState(name)) <= QN_INTF_OPER_LOWER_LAYER_DOWN, "the state");
  require(QnIntfGetPowerState(name) == (atoi(text.substr(0, 3).c_str()) != 0 ? 0 : 2), "the carrier");
  QnIntfGetSpeed(name);
  check_counters(name, text);
  check_port(name, text);
  return 0;
}
