// The error body by which a handler tells a client what went wrong.
#include <quillcore/service.h>

#include <cstdarg>
#include <cstring>

#include "core/heap.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"

namespace {

using qn::Message;

constexpr Message kFormatFailed{QN_LOG_E, 587, "qn_service", "qn_service_make_error_msg",
                                "vsprintf_s failed, fmt:%s"};

constexpr uint32_t kCodeSize = 4;
constexpr uint32_t kTextSize = 128; // with its terminator
constexpr uint32_t kBlockSize = kCodeSize + kTextSize + 1;
constexpr int32_t kNoMemory = -4;

} // namespace

int32_t qn_service_make_error_msg(uint32_t code, void** rsp_body, uint32_t* rsp_len, const char* fmt,
                                  ...) {
  qn::HeapPtr<char> body(static_cast<char*>(qn_alloc(kBlockSize)));
  if (!body) return kNoMemory;
  memcpy_s(body.get(), kBlockSize, &code, kCodeSize);

  char* const text = body.get() + kCodeSize;
  va_list args;
  va_start(args, fmt);
  const int length = vsprintf_s(text, kTextSize, fmt, args);
  va_end(args);
  if (length < 0) return QN_FAIL(-1, kFormatFailed, fmt);
  // A %c of 0 ends the text early.
  *rsp_len = kCodeSize + 1 + static_cast<uint32_t>(strnlen(text, kTextSize));
  *rsp_body = body.release();
  return 0;
}
