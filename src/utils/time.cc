// Millisecond counter and translation of authentication codes.
#include <quillcore/utility.h>

#include "platform/monotonic.h"

namespace {

// Bits of the Authentication Type attribute of Wi-Fi Simple Configuration, and one more of its field.
constexpr uint32_t kOpen = 0x01;
constexpr uint32_t kWpaPersonal = 0x02;
constexpr uint32_t kShared = 0x04;
constexpr uint32_t kWpaEnterprise = 0x08;
constexpr uint32_t kWpa2Enterprise = 0x10;
constexpr uint32_t kWpa2Personal = 0x20;
constexpr uint32_t kFurther = 0x40;

constexpr uint32_t kUnknown = kWpa2Personal;

// By input code.
constexpr uint32_t kCmAuthModes[] = {
    kOpen,           kWpa2Personal,
    kFurther,        kFurther | kWpa2Personal,
    kWpaPersonal,    kWpaPersonal | kWpa2Personal,
    kShared,         kWpaEnterprise,
    kWpa2Enterprise, kWpaEnterprise | kWpa2Enterprise,
};

constexpr uint32_t kWlanAuths[] = {
    kOpen,
    kShared,
    kWpaPersonal,
    kWpa2Personal,
    kWpaPersonal | kWpa2Personal,
    kWpaEnterprise,
    kWpa2Enterprise,
    kWpaEnterprise | kWpa2Enterprise,
    kUnknown, // 8 is no code of this numbering
    kFurther,
    kFurther | kWpa2Personal,
};

template <size_t count>
uint32_t translate(const uint32_t (&table)[count], uint32_t code) {
  return code < count ? table[code] : kUnknown;
}

} // namespace

int64_t qn_time_timestamp(void) { return qn::monotonic_ms(); }

uint32_t qn_trans_cm_auth_mode_to_qn(uint32_t auth_mode) { return translate(kCmAuthModes, auth_mode); }

uint32_t qn_trans_wlan_auth_to_qn(uint32_t auth) { return translate(kWlanAuths, auth); }
