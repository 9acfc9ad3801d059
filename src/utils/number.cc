// Text to number.
#include <quillcore/utility.h>

#include <cstdlib>

namespace {

constexpr bool is_base(int32_t base) { return base == 0 || (base >= 2 && base <= 36); }

} // namespace

int32_t qn_str2num(const char* text, int32_t base) {
  if (text == nullptr || !is_base(base)) return 0;
  char* end = nullptr;
  const long long number = strtoll(text, &end, base);
  if (*end != '\0') return 0;
  // 32 bits on every target, however wide its long is.
  if (number > INT32_MAX) return INT32_MAX;
  if (number < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(number);
}
