// One log line: stamp, brackets, text.
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "core/log.h"
#include "core/log_gate.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"

namespace qn {

constexpr LogName qn_log_level_table[kLogLevelCount] = {
    {0, ""}, {1, "G"}, {1, "E"}, {1, "W"}, {1, "I"}, {1, "D"}, {1, "F"},
};

constexpr LogName qn_log_role_table[kRoleCount] = {
    {7, "invalid"}, {5, "qntty"},   {4, "hubd"},     {5, "leafd"},        {4, "admd"}, {5, "relay"},
    {4, "arcd"},    {7, "arc_tty"}, {8, "lib_call"}, {11, "nw_lib_call"}, {3, "nil"},
};

namespace {

constinit pthread_mutex_t g_stamp_lock = PTHREAD_MUTEX_INITIALIZER;

constexpr size_t kLineMax = kLogLineSize - 1;
constexpr char kNone[] = "-";

const char* or_dash(const char* text) { return text != nullptr ? text : kNone; }

const char* level_letter(uint32_t level) {
  if (level == QN_LOG_T) return "T";
  return level >= QN_LOG_G && level < kLogLevelCount ? qn_log_level_table[level].name : kNone;
}

int header_build(char (&line)[kLogLineSize], const LogRecord& record) {
  char stamp[kLogStampSize];
  qn_time_log_stamp(stamp);
  const char* letter = level_letter(record.level);
  const char* module = or_dash(record.module);
  const char* biz_name = or_dash(record.biz_name);
  if (record.level == QN_LOG_F) {
    return snprintf_s(line, kLogLineSize, kLineMax, "%s [%04u] [%s] [%s] [%s] [%s] ", stamp, record.logid,
                      letter, module, biz_name, or_dash(record.fault));
  }
  return snprintf_s(line, kLogLineSize, kLineMax, "%s [%04u] [%s] [%s] [%s] ", stamp, record.logid,
                    letter, module, biz_name);
}

} // namespace

pthread_mutex_t& log_stamp_lock() { return g_stamp_lock; }

const char* qn_time_log_stamp(char* buffer) {
  if (buffer == nullptr) return kNone;

  struct timeval now = {};
  struct tm local = {};
  gettimeofday(&now, nullptr);
  const time_t seconds = now.tv_sec;
  {
    const MutexGuard guard(g_stamp_lock);
    localtime_r(&seconds, &local);
  }

  const int length = snprintf_s(buffer, kLogStampSize, kLogStampSize - 1, "%02d-%02d %02d:%02d:%02d %lld",
                                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                                local.tm_sec, static_cast<long long>(now.tv_usec));
  if (length < 0) strcpy_s(buffer, kLogStampSize, kNone);
  return buffer;
}

void qn_log_line_build(char (&line)[kLogLineSize], const LogRecord& record, const char* fmt,
                       va_list args) {
  size_t length = 0;
  line[0] = '\0';
  if (record.header) {
    const int header_length = header_build(line, record);
    if (header_length < 0) return;
    length = static_cast<size_t>(header_length);
  }

  const int body_length = vsprintf_s(line + length, kLineMax - length, or_dash(fmt), args);
  if (body_length > 0) length += static_cast<size_t>(body_length);

  // A header of 1023 bytes leaves no room for a line feed: its terminator stays.
  if (!record.newline || length >= kLineMax) return;
  line[length] = '\n';
  line[length + 1] = '\0';
}

} // namespace qn
