// One text in all the files that the kernel tells about an interface with, against a second reader of
// each. The interface is a folder elsewhere, which its name leads to.
#include <quillcore/interface.h>

#include <climits>
#include <cstring>
#include <filesystem>

#include "fuzz/input.h"
#include "support/gate.h"
#include "support/temp_dir.h"

namespace {

// The folder of the interface: one file under every name.
class Interface {
 public:
  Interface() {
    for (const char* folder : {"statistics", "brport", "brif/port"})
      std::filesystem::create_directories(dir_.file(folder));
    write_file(dir_.file("carrier"), "");
    for (const char* file : {"operstate", "speed", "brport/port_no", "brif/port/port_no",
                             "statistics/rx_packets", "statistics/rx_errors", "statistics/tx_packets",
                             "statistics/tx_errors", "statistics/rx_bytes", "statistics/tx_bytes"}) {
      std::filesystem::create_hard_link(dir_.file("carrier"), dir_.file(file));
    }
  }

  void tell(const std::string& text) const { write_file(dir_.file("carrier"), text); }
  // From /sys/class/net up to the root and down again.
  std::string name() const { return "../../.." + dir_.path(); }

 private:
  TempDir dir_;
};

// What a buffer of `size` bytes gets of the first line, as a C string.
std::string first_line(const std::string& text, size_t size) {
  return text.substr(0, std::min(text.find('\n'), size - 1)).c_str();
}

int32_t oper_state(const std::string& text) {
  std::string state = first_line(text, 32);
  state.erase(state.find_last_not_of(" \t\n\v\f\r") + 1);
  const std::pair<const char*, int32_t> codes[] = {
      {"up", 0},      {"unknown", 0},    {"down", 1},           {"testing", 2},
      {"dormant", 3}, {"notpresent", 4}, {"lowerlayerdown", 5},
  };
  for (const auto& [name, code] : codes) {
    if (state == name) return code;
  }
  return 2;
}

// Too large a number is anything.
void check_speed(const char* intf_name, const std::string& text) {
  const long long number = strtoll(first_line(text, 64).c_str(), nullptr, 10);
  const bool fits = number >= INT_MIN && number <= INT_MAX;
  require(!fits || QnIntfGetSpeed(intf_name) == number, "the speed");
}

void check_counters(const char* intf_name, const std::string& text) {
  const uint64_t expected = strtoull(first_line(text, 32).c_str(), nullptr, 10);
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
  static const Interface intf;
  static const std::string path = intf.name();
  const char* const name = path.c_str();
  const GateAt quiet(0);
  const std::string text = to_text(data, size);
  intf.tell(text);
  require(qn_cheack_intf_is_exist(name) == 1, "it is there");
  require(QnIntfGetOperState(name) == oper_state(text), "the state");
  require(QnIntfGetPowerState(name) == (atoi(text.substr(0, 3).c_str()) != 0 ? 0 : 2), "the carrier");
  check_speed(name, text);
  check_counters(name, text);
  check_port(name, text);
  return 0;
}
