// The log entries: gates first, then the line, then the sink.
#include <quillcore/log.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/log_gate.h"
#include "core/log_record.h"

namespace qn {
namespace {

constinit std::atomic<qn_log_t*> g_singleton{nullptr};

// Results of a record that a gate stopped.
constexpr int32_t kStoppedByPermission = 0;
constexpr int32_t kStoppedByTrace = 1;

constexpr int32_t stopped(uint32_t level) {
  return level == QN_LOG_T ? kStoppedByTrace : kStoppedByPermission;
}

uint32_t gate_of(const qn_log_t* log) { return log != nullptr ? log_gate_of_role(log->role) : kGateOpen; }

__attribute__((format(printf, 3, 0))) int32_t write_record(qn_log_t* log, const LogRecord& record,
                                                           const char* fmt, va_list args) {
  char line[kLogLineSize];
  qn_log_line_build(line, record, fmt, args);
  return qn_log_write_line(log, record.level, line);
}

__attribute__((format(printf, 4, 0))) int32_t gated_write(uint32_t word, qn_log_t* log,
                                                          const LogRecord& record, const char* fmt,
                                                          va_list args) {
  if (!log_gate_permits(word, record.level, record.logid, record.biz_name)) return stopped(record.level);
  return write_record(log, record, fmt, args);
}

// Nothing above the level F has a place on standard error, and a trace has none.
__attribute__((format(printf, 2, 0))) void print_record(const LogRecord& record, const char* fmt,
                                                        va_list args) {
  if (record.level <= QN_LOG_F) write_record(nullptr, record, fmt, args);
}

__attribute__((format(printf, 2, 0))) void print_on_console(const LogRecord& record, const char* fmt,
                                                            va_list args) {
  const uint32_t word = log_gate_current();
  if (record.level > QN_LOG_F || (word & kGateConsole) == 0) return;
  if (log_gate_permits(word, record.level, record.logid, record.biz_name))
    print_record(record, fmt, args);
}

LogRecord site_record(uint32_t level_and_logid, const char* module, const char* biz_name) {
  const uint32_t level = level_and_logid & ((1u << kLogidShift) - 1);
  return {level, level_and_logid >> kLogidShift, module, true, true, biz_name, nullptr};
}

// Not through stdio: a child of a fork beside a thread that writes would find the stream locked for ever
// with musl. A stream without a buffer is in order with this either way.
int32_t write_to_stderr(const char* line) {
  for (size_t left = strnlen(line, kLogLineSize); left > 0;) {
    const ssize_t written = write(STDERR_FILENO, line, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return EOF;
    line += written;
    left -= static_cast<size_t>(written);
  }
  return 1;
}

} // namespace

qn_log_t* qn_log_singleton_get() { return g_singleton.load(std::memory_order_acquire); }

void log_singleton_set(qn_log_t* log) { g_singleton.store(log, std::memory_order_release); }

int32_t qn_log_write_line(qn_log_t* log, uint32_t level, const char* line) {
  if (log == nullptr) return write_to_stderr(line);
  if (log->local_writer == nullptr) return 0;
  return log->local_writer->write(log, level, line, strnlen(line, kLogLineSize - 1));
}

void log_site(uint32_t level_and_logid, const char* module, const char* biz_name, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  gated_write(log_gate_current(), qn_log_singleton_get(), site_record(level_and_logid, module, biz_name),
              fmt, args);
  va_end(args);
}

void console_site(uint32_t level_and_logid, const char* module, const char* biz_name, const char* fmt,
                  ...) {
  va_list args;
  va_start(args, fmt);
  print_on_console(site_record(level_and_logid, module, biz_name), fmt, args);
  va_end(args);
}

void println_site(uint32_t level_and_logid, const char* module, const char* biz_name, const char* fmt,
                  ...) {
  va_list args;
  va_start(args, fmt);
  print_record(site_record(level_and_logid, module, biz_name), fmt, args);
  va_end(args);
}

} // namespace qn

using qn::LogRecord;

int32_t qn_log_core_adpater(uint32_t level, uint32_t logid, const char* module, uint8_t newline,
                            uint8_t header, const char* biz_name, const char* fmt, ...) {
  const uint32_t word = qn::log_gate_current();
  if ((word & qn::gate_bit(level)) == 0) return qn::stopped(level);

  const LogRecord record = {level, logid, module, newline != 0, header != 0, biz_name, nullptr};
  va_list args;
  va_start(args, fmt);
  const int32_t result = qn::gated_write(word, qn::qn_log_singleton_get(), record, fmt, args);
  va_end(args);
  return result;
}

int32_t qn_log_vcore(uint32_t level, qn_log_t* log, uint32_t logid, const char* module, uint8_t newline,
                     uint8_t header, const char* biz_name, const char* fmt, va_list args) {
  const LogRecord record = {level, logid, module, newline != 0, header != 0, biz_name, nullptr};
  return qn::gated_write(qn::gate_of(log), log, record, fmt, args);
}

int32_t qn_log_core(uint32_t level, qn_log_t* log, uint32_t logid, const char* module, uint8_t newline,
                    const char* biz_name, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int32_t result = qn_log_vcore(level, log, logid, module, newline, 1, biz_name, fmt, args);
  va_end(args);
  return result;
}

void qn_log_console_impl(uint32_t level, uint32_t logid, const char* module, uint8_t newline,
                         const char* biz_name, const char* fmt, ...) {
  const LogRecord record = {level, logid, module, newline != 0, true, biz_name, nullptr};
  va_list args;
  va_start(args, fmt);
  qn::print_on_console(record, fmt, args);
  va_end(args);
}

void qn_log_println(uint32_t level, uint32_t logid, const char* module, const char* biz_name,
                    const char* fmt, ...) {
  const LogRecord record = {level, logid, module, true, true, biz_name, nullptr};
  va_list args;
  va_start(args, fmt);
  qn::print_record(record, fmt, args);
  va_end(args);
}

void qn_log_fault_vimpl(qn_log_t* log, uint32_t logid, const char* fault, const char* module,
                        uint8_t newline, const char* biz_name, const char* fmt, va_list args) {
  const LogRecord record = {QN_LOG_F, logid, module, newline != 0, true, biz_name, fault};
  qn::write_record(log, record, fmt, args);
}

void qn_log_fault_impl(qn_log_t* log, uint32_t logid, const char* fault, const char* module,
                       uint8_t newline, const char* biz_name, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  qn_log_fault_vimpl(log, logid, fault, module, newline, biz_name, fmt, args);
  va_end(args);
}

void qn_log_fault_adpater(uint32_t logid, const char* fault, const char* module, uint8_t newline,
                          const char* biz_name, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  qn_log_fault_vimpl(qn::qn_log_singleton_get(), logid, fault, module, newline, biz_name, fmt, args);
  va_end(args);
}

int32_t qn_log_dump_macaddr_adpater(uint32_t level, uint32_t logid, const char* module, uint8_t newline,
                                    const char* biz_name, const char* name, const uint8_t* mac) {
  return qn_log_core(level, qn::qn_log_singleton_get(), logid, module, newline, biz_name,
                     "%s=%02hhX:%02hhX:**:**:%02hhX:%02hhX.", name != nullptr ? name : "MAC", mac[0],
                     mac[1], mac[4], mac[5]);
}
