// Bytes to the log, as lines of "0x41(A) " elements.
#include <quillcore/utility.h>

#include <cstddef>

#include "core/log.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"

namespace {

using qn::Message;

constexpr char kModule[] = "qn_utils";
constexpr char kBizName[] = "dump_hex";

constexpr Message kStart{QN_LOG_D, 607, kModule, kBizName,
                         "------------ Dump hex start -----------------"};
constexpr Message kFullLine{QN_LOG_D, 608, kModule, kBizName, "%s"};
constexpr Message kLastLine{QN_LOG_D, 609, kModule, kBizName, "%s"};
constexpr Message kEnd{QN_LOG_D, 610, kModule, kBizName, "------------ Dump hex end -----------------"};

constexpr uint32_t kCap = 32;
constexpr uint32_t kElementsPerLine = 8;
constexpr size_t kElementSize = 8;
constexpr size_t kLineSize = (kElementsPerLine + 1) * kElementSize + 1; // the first line has one more

// "0x41(A) "; a NUL shows as the digit 0, every other byte as itself.
void format_element(uint8_t byte, char* out) {
  constexpr char kDigits[] = "0123456789abcdef";
  const char element[kElementSize] = {
      '0', 'x', kDigits[byte >> 4], kDigits[byte & 0xF], '(', static_cast<char>(byte != 0 ? byte : '0'),
      ')', ' '};
  memcpy_s(out, kElementSize, element, kElementSize);
}

// Whether any of the four lines can pass, each asked for by its own logid.
bool any_line_passes() {
  const uint32_t word = qn::log_gate_current();
  for (const Message& message : {kStart, kFullLine, kLastLine, kEnd}) {
    if (qn::log_gate_permits(word, QN_LOG_D, message.logid, kBizName)) return true;
  }
  return false;
}

} // namespace

void qn_utils_dump_hex(const void* bytes, uint32_t length, int32_t capped) {
  if (!any_line_passes()) return;
  if (bytes == nullptr) length = 0;
  if (capped != 0 && length > kCap) length = kCap;

  QN_LOG(kStart);
  const uint8_t* const byte = static_cast<const uint8_t*>(bytes);
  char line[kLineSize];
  size_t used = 0;
  for (uint32_t i = 0; i < length; i++) {
    format_element(byte[i], line + used);
    used += kElementSize;
    // The line ends behind element 8, 16, ...: the first one holds nine elements, later ones eight.
    if (i == 0 || i % kElementsPerLine != 0) continue;
    line[used] = '\0';
    QN_LOG(kFullLine, line);
    used = 0;
  }
  line[used] = '\0';
  QN_LOG(kLastLine, line);
  QN_LOG(kEnd);
}
