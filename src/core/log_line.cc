// One log line: stamp, brackets, text.
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "core/log.h"
#include "core/log_gate.h"
#include "core/log_record.h"
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

// Held over the conversion to local time. The C library has a lock of its own there, which a child of a
// fork could find locked for ever, so whoever forks takes this one first: the last one of the log's
// locks, which an early constructor sees to. Without memory for that only a child that logs could notice.
constinit pthread_mutex_t g_stamp_lock = PTHREAD_MUTEX_INITIALIZER;
void lock_stamp() { pthread_mutex_lock(&g_stamp_lock); }
void unlock_stamp() { pthread_mutex_unlock(&g_stamp_lock); }
__attribute__((constructor(101))) void arrange() {
  pthread_atfork(lock_stamp, unlock_stamp, unlock_stamp);
}

constexpr size_t kLineMax = kLogLineSize - 1;
constexpr char kNone[] = "-";

const char* level_letter(uint32_t level) {
  if (level == QN_LOG_T) return "T";
  return level >= QN_LOG_G && level < kLogLevelCount ? qn_log_level_table[level].name : kNone;
}

// At least `width` digits, as "%0*u" has them. Returns where they end.
char* put_number(char* out, uint32_t number, int width) {
  char digits[10];
  int count = 0;
  do {
    digits[count++] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0 || count < width);
  while (count > 0) *out++ = digits[--count];
  return out;
}

// "MM-DD hh:mm:ss microseconds" as "%02d-%02d %02d:%02d:%02d %lld" has it. Returns its end.
char* put_stamp(char* out) {
  struct timeval now = {};
  struct tm local = {};
  gettimeofday(&now, nullptr);
  const time_t seconds = now.tv_sec;
  {
    const MutexGuard guard(g_stamp_lock);
    localtime_r(&seconds, &local);
  }
  const struct {
    int number;
    char behind;
  } parts[] = {{local.tm_mon + 1, '-'},
               {local.tm_mday, ' '},
               {local.tm_hour, ':'},
               {local.tm_min, ':'},
               {local.tm_sec, ' '}};
  for (const auto& part : parts) {
    out = put_number(out, static_cast<uint32_t>(part.number), 2);
    *out++ = part.behind;
  }
  return put_number(out, static_cast<uint32_t>(now.tv_usec), 1);
}

// The front of a line. What does not fit is cut, and then nothing more does.
class Header {
 public:
  explicit Header(char (&line)[kLogLineSize]) : line_(line) {}

  void add(const char* text, size_t length) {
    const size_t room = kLineMax - length_;
    if (length > room) cut_ = true;
    const size_t taken = length < room ? length : room;
    copy_bytes(line_ + length_, text, taken);
    length_ += taken;
  }

  void add_bracket(const char* text) {
    add("[", 1);
    add(text, strlen(text));
    add("] ", 2);
  }

  // Its length, or -1 if it was cut. Terminated in any case.
  int end() {
    line_[length_] = '\0';
    return cut_ ? -1 : static_cast<int>(length_);
  }

 private:
  char* line_;
  size_t length_ = 0;
  bool cut_ = false;
};

// "%s [%04u] [%s] [%s] [%s] ", with one more bracket for a fault.
int header_build(char (&line)[kLogLineSize], const LogRecord& record) {
  char front[kLogStampSize];
  char* end = put_stamp(front);
  *end++ = ' ';
  *end++ = '[';
  end = put_number(end, record.logid, 4);
  *end++ = ']';
  *end++ = ' ';
  Header header(line);
  header.add(front, static_cast<size_t>(end - front));
  header.add_bracket(level_letter(record.level));
  header.add_bracket(or_dash(record.module));
  header.add_bracket(or_dash(record.biz_name));
  if (record.level == QN_LOG_F) header.add_bracket(or_dash(record.fault));
  return header.end();
}

} // namespace

const char* qn_time_log_stamp(char* buffer) {
  if (buffer == nullptr) return kNone;
  *put_stamp(buffer) = '\0';
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
  // A text can hold a NUL, and a line ends there.
  if (body_length > 0) length += strnlen(line + length, static_cast<size_t>(body_length));

  // A header of 1023 bytes leaves no room for a line feed: its terminator stays.
  if (!record.newline || length >= kLineMax) return;
  line[length] = '\n';
  line[length + 1] = '\0';
}

} // namespace qn
