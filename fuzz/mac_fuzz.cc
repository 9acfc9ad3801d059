// The MAC address parser against the form told as a pattern. What stands before the first fault is
// stored, and nothing behind it is touched.
#include <quillcore/utility.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr char kPattern[] = "hh:hh:hh:hh:hh:hh";
constexpr size_t kLength = sizeof(kPattern) - 1;
constexpr uint8_t kUntouched = 0xEE;

bool fits(char byte, char pattern) {
  return pattern == 'h' ? isxdigit(static_cast<unsigned char>(byte)) != 0 : byte == pattern;
}

// The length of the part that has the form.
size_t good_length(const std::string& text) {
  if (text.size() != kLength) return 0;
  size_t length = 0;
  while (length < kLength && fits(text[length], kPattern[length])) length++;
  return length;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data),
                         strnlen(reinterpret_cast<const char*>(data), size));
  uint8_t mac[8];
  memset(mac, kUntouched, sizeof(mac));
  const int32_t result = qn_utils_char_to_mac(text.c_str(), mac);
  const size_t good = good_length(text), pairs = (good + 1) / 3;
  if (result != (good == kLength ? 0 : -1)) abort();
  for (size_t i = 0; i < sizeof(mac); i++) {
    const unsigned long expected =
        i < pairs ? strtoul(text.substr(3 * i, 2).c_str(), nullptr, 16) : kUntouched;
    if (mac[i] != expected) abort();
  }
  return 0;
}
