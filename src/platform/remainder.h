// Remainders by multiplication: a processor without a divide instruction takes a hundred others for one,
// and half a kilobyte of code for them.
#ifndef QN_PLATFORM_REMAINDER_H
#define QN_PLATFORM_REMAINDER_H

#include <cstdint>

namespace qn {

constexpr uint32_t inverse_of(uint32_t divisor) { return UINT32_MAX / divisor; }

// number % divisor, given inverse_of(divisor). The quotient is one too small at most.
constexpr uint32_t remainder_of(uint32_t number, uint32_t divisor, uint32_t inverse) {
  const uint32_t quotient = static_cast<uint32_t>(uint64_t{number} * inverse >> 32);
  const uint32_t rest = number - quotient * divisor;
  return rest < divisor ? rest : rest - divisor;
}

} // namespace qn

#endif // QN_PLATFORM_REMAINDER_H
