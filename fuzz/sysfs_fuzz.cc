// One text in all the files that the kernel tells about an interface with, against a second reader of
// each. The interface is a folder elsewhere, which its name leads to.
#include <quillcore/interface.h>
#include <sys/stat.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "core/log_gate.h"
#include "support/temp_dir.h"

namespace {

constexpr char kWhite[] = " \t\n\v\f\r";
constexpr char kPort[] = "port";

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
  const std::string line = text.substr(0, std::min(text.find('\n'), size - 1));
  return line.c_str();
}

// Sign and digits behind white space, saturated; negative numbers wrap.
uint64_t decimal(const std::string& text, bool* exact) {
  size_t at = std::min(text.find_first_not_of(kWhite), text.size());
  const bool negative = at < text.size() && text[at] == '-';
  if (at < text.size() && (text[at] == '-' || text[at] == '+')) at++;
  uint64_t number = 0;
  *exact = true;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; at++) {
    const uint64_t digit = static_cast<uint64_t>(text[at] - '0');
    *exact = *exact && number <= (UINT64_MAX - digit) / 10;
    number = *exact ? number * 10 + digit : UINT64_MAX;
  }
  return negative && *exact ? 0 - number : number;
}

// Whether `got` is what atoi() may give for the text; too large a number is anything.
bool is_number(const std::string& text, int32_t got) {
  bool exact = false;
  const int64_t number = static_cast<int64_t>(decimal(text, &exact));
  const size_t at = std::min(text.find_first_not_of(kWhite), text.size());
  const bool negative = at < text.size() && text[at] == '-';
  if (!exact || (number != 0 && (number < 0) != negative)) return true; // past 64 bits with a sign
  return number < INT_MIN || number > INT_MAX || number == got;
}

int32_t oper_state(const std::string& text) {
  if (text.empty()) return 2;
  std::string state = first_line(text, 32);
  state.erase(state.find_last_not_of(kWhite) + 1);
  const std::pair<const char*, int32_t> codes[] = {
      {"up", 0},      {"unknown", 0},    {"down", 1},           {"testing", 2},
      {"dormant", 3}, {"notpresent", 4}, {"lowerlayerdown", 5},
  };
  for (const auto& [name, code] : codes) {
    if (state == name) return code;
  }
  return 2;
}

void check(bool held) {
  if (!held) abort();
}

void check_carrier(const char* intf_name, const std::string& text) {
  bool exact = false;
  const std::string state = text.substr(0, 3).c_str();
  check(QnIntfGetPowerState(intf_name) == (decimal(state, &exact) != 0 ? 0 : 2));
}

void check_counters(const char* intf_name, const std::string& text) {
  bool exact = false;
  const uint64_t expected = decimal(first_line(text, 32), &exact);
  qn_intf_eth_metric_t metric;
  QnIntfGetEthMetric(intf_name, &metric);
  for (const uint64_t counter : {metric.rx_packets, metric.rx_errors, metric.tx_packets, metric.tx_errors,
                                 metric.rx_bytes, metric.tx_bytes}) {
    check(counter == expected);
  }
}

// The two readers of port numbers agree, and both understand what the kernel writes.
void check_port(const char* intf_name, const std::string& text) {
  const int32_t index = QnIntfGetPortIndex(intf_name);
  const uint32_t number = static_cast<uint32_t>(index) + 1;
  char name[3] = "##";
  const int32_t found = QnIntfGetNameByPortNo(intf_name, number, name, sizeof(name));
  check(found == 0 || number == 0); // index -1: no number, or the number 0
  check(strcmp(name, found == 0 ? std::string(kPort, 2).c_str() : "##") == 0);
  const size_t digits = text.find_first_not_of("0123456789abcdef", 2);
  if (text.starts_with("0x") && digits != std::string::npos && digits > 2 && digits <= 10 &&
      text[digits] == '\n') {
    check(found == 0 && number == strtoul(text.c_str(), nullptr, 16));
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Interface intf;
  static const std::string name = intf.name();
  qn::log_gate_set_current(qn::kGateNoMaps);
  const std::string text(reinterpret_cast<const char*>(data), size);
  intf.tell(text);
  check(qn_cheack_intf_is_exist(name.c_str()) == 1);
  check(QnIntfGetOperState(name.c_str()) == oper_state(text));
  check(is_number(first_line(text, 64), QnIntfGetSpeed(name.c_str())));
  check_carrier(name.c_str(), text);
  check_counters(name.c_str(), text);
  check_port(name.c_str(), text);
  return 0;
}
