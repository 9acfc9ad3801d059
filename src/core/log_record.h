// How the library's own code reports: constant rows of level, logid, module, biz_name and text, logged
// with one line.
#ifndef QN_CORE_LOG_RECORD_H
#define QN_CORE_LOG_RECORD_H

#include <quillcore/log.h>

#include <cstdint>

#include "core/log_gate.h"
#include "platform/error_text.h"
#include "platform/guards.h"

namespace qn {

// What a null text is shown as.
inline const char* or_dash(const char* text) { return text != nullptr ? text : "-"; }

struct Message {
  uint32_t level;
  uint32_t logid;
  const char* module;
  const char* biz_name;
  const char* text;
};

// qn_log_core_adpater() with newline and header on, for our own call sites: level and logid go in one
// word and all that is constant fits the registers of a call, which makes two hundred call sites small.
void log_site(uint32_t level_and_logid, const char* module, const char* biz_name, const char* fmt, ...)
    QN_PRINTF(4, 5);

// In the same way qn_log_console_impl() with newline on, and qn_log_println().
void console_site(uint32_t level_and_logid, const char* module, const char* biz_name, const char* fmt,
                  ...) QN_PRINTF(4, 5);
void println_site(uint32_t level_and_logid, const char* module, const char* biz_name, const char* fmt,
                  ...) QN_PRINTF(4, 5);

constexpr uint32_t kLogidShift = 8;

constexpr uint32_t level_and_logid(uint32_t level, uint32_t logid) {
  return level | logid << kLogidShift;
}

// Macros, because the compiler checks arguments against a text only where it sees both. Each is an
// expression.
#define QN_SITE(site, message, ...)                                                                 \
  site(qn::level_and_logid((message).level, (message).logid), (message).module, (message).biz_name, \
       (message).text __VA_OPT__(, ) __VA_ARGS__)

// Nothing is evaluated for a record that its level refuses.
#define QN_LOG(message, ...) \
  (qn::log_may_pass((message).level) ? QN_SITE(qn::log_site, message __VA_OPT__(, ) __VA_ARGS__) : void())

#define QN_CONSOLE(message, ...) QN_SITE(qn::console_site, message __VA_OPT__(, ) __VA_ARGS__)
#define QN_PRINTLN(message, ...) QN_SITE(qn::println_site, message __VA_OPT__(, ) __VA_ARGS__)

// For guard clauses, a record and a result in one: return QN_FAIL(-1, kMessage, ...); A way out of a
// failure may take its time: it asks the gate behind the call, and so spares a kilobyte of questions
// before it.
#define QN_FAIL(result, message, ...) \
  (QN_SITE(qn::log_site, message __VA_OPT__(, ) __VA_ARGS__), (result))
#define QN_FAIL_CONSOLE(result, message, ...) (QN_CONSOLE(message __VA_OPT__(, ) __VA_ARGS__), (result))
#define QN_FAIL_PRINTLN(result, message, ...) (QN_PRINTLN(message __VA_OPT__(, ) __VA_ARGS__), (result))

// The two arguments of "errno=(%d,%s)". Neither making the text nor asking the gate changes errno.
#define QN_ERRNO errno, qn::ErrorText(errno).text()

constexpr char kNoCaller[] = "nil";

// The pair of trace records at the entry and exit of an operation.
struct Trace {
  const char* module;
  const char* function;
  uint32_t enter_logid;
  const char* enter_biz_name;
  uint32_t leave_logid;
  const char* leave_biz_name;
  const char* caller = nullptr; // for kNoCaller, which here would be a relocation in each of them

  const char* called_by() const { return caller != nullptr ? caller : kNoCaller; }
};

inline void trace_enter(const Trace& trace) {
  if (!log_may_pass(QN_LOG_T)) return;
  log_site(level_and_logid(QN_LOG_T, trace.enter_logid), trace.module, trace.enter_biz_name,
           "entering %s. called by %s.", trace.function, trace.called_by());
}

// Keeps errno: behind this only the caller is left to read it.
inline void trace_leave(const Trace& trace) {
  if (!log_may_pass(QN_LOG_T)) return;
  const ErrnoKept kept;
  log_site(level_and_logid(QN_LOG_T, trace.leave_logid), trace.module, trace.leave_biz_name,
           "leaving %s. called by %s.", trace.function, trace.called_by());
}

// The pair of an operation that traces every way out.
class TraceScope {
 public:
  explicit TraceScope(const Trace& trace) : trace_(trace) { trace_enter(trace_); }
  ~TraceScope() { trace_leave(trace_); }
  TraceScope(const TraceScope&) = delete;
  TraceScope& operator=(const TraceScope&) = delete;

 private:
  const Trace& trace_;
};

} // namespace qn

#endif // QN_CORE_LOG_RECORD_H
