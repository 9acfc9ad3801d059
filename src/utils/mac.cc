// MAC addresses: from text, and of an interface.
#include <quillcore/utility.h>

#include <sys/ioctl.h>

#include <cstddef>
#include <cstring>

#include "platform/bounded_string.h"
#include "platform/interface_request.h"

namespace {

constexpr size_t kMacSize = 6;
constexpr size_t kMacTextLength = 17; // six pairs of digits with a colon between
constexpr size_t kPairStep = 3;

// -1 for no digit.
int digit_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

} // namespace

int32_t qn_utils_char_to_mac(const char* text, uint8_t* mac) {
  if (text == nullptr || mac == nullptr || strlen(text) != kMacTextLength) return -1;
  for (size_t i = 0; i < kMacSize; i++) {
    const char* const pair = text + i * kPairStep;
    const int high = digit_value(pair[0]);
    const int low = digit_value(pair[1]);
    if (high < 0 || low < 0) return -1;
    mac[i] = static_cast<uint8_t>(16 * high + low);
    const bool last = i == kMacSize - 1;
    if (!last && pair[2] != ':') return -1;
  }
  return 0;
}

int32_t qn_utils_get_intf_mac_addr(const char* intf_name, uint8_t* mac) {
  if (intf_name == nullptr || mac == nullptr) return -1;
  const qn::UniqueFd fd = qn::make_request_socket(AF_INET, SOCK_STREAM);
  if (!fd.valid()) return -1;

  qn::IntfRequest request;
  if (!request.set_name(intf_name)) return -1;
  request.ifr_addr.sa_family = AF_INET;
  if (ioctl(fd.get(), SIOCGIFHWADDR, static_cast<ifreq*>(&request)) != 0) return -1;
  return memcpy_s(mac, kMacSize, request.ifr_hwaddr.sa_data, kMacSize) == 0 ? 0 : -1;
}
