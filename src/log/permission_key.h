// Keys of the permission maps: "log." ROLE SUFFIX, and for single switches what is switched. Values of
// switches.
#ifndef QN_LOG_PERMISSION_KEY_H
#define QN_LOG_PERMISSION_KEY_H

#include <cinttypes>
#include <cstdint>

#include "container/string_map.h"
#include "platform/bounded_string.h"

namespace qn {

constexpr char kOn[] = "on";
constexpr char kOff[] = "off";

constexpr char kKeyLevel[] = ".level";
constexpr char kKeyConsole[] = ".console";
constexpr char kKeyTrace[] = ".trace";
constexpr char kKeyGlobal[] = ".global";
constexpr char kKeyLogid[] = ".logid.";
constexpr char kKeyBiz[] = ".biz.";

// A key on the stack. One that does not fit 63 bytes stands for no switch at all.
class PermissionKey {
 public:
  PermissionKey(const char* role, const char* suffix, const char* rest = "")
      : fits_(snprintf_s(text_, sizeof(text_), sizeof(text_) - 1, "log.%s%s%s", role, suffix, rest) >=
              0) {}

  // The key of a logid, which is signed here although a line shows it unsigned.
  PermissionKey(const char* role, int32_t logid)
      : fits_(snprintf_s(text_, sizeof(text_), sizeof(text_) - 1, "log.%s%s%" PRId32, role, kKeyLogid,
                         logid) >= 0) {}

  bool fits() const { return fits_; }
  const char* text() const { return text_; }

 private:
  char text_[QN_MAP_KEY_SIZE];
  bool fits_;
};

} // namespace qn

#endif // QN_LOG_PERMISSION_KEY_H
