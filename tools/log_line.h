// One line of a log, taken apart; and its stamp as a number that orders.
#ifndef TOOLS_LOG_LINE_H
#define TOOLS_LOG_LINE_H

#include <cstddef>
#include <cstdint>

namespace ctl {

// Microseconds on a calendar in which every month has 31 days: it orders as stamps do and is told without
// asking for a time zone. A difference within a day is a true one.
using Stamp = int64_t;
constexpr Stamp kSecond = 1000000;
constexpr Stamp kNever = INT64_MIN;

struct TextPart {
  const char* at;
  size_t length;

  bool is(const char* text) const;
};

struct LogLine {
  Stamp stamp;
  TextPart stamp_text;
  uint32_t logid;
  char level;
  TextPart module;
  TextPart biz_name;
  TextPart text; // of a fault record with the fault's bracket before it
};

// Stamps have no year: one that is later than tomorrow is of last year.
class Calendar {
 public:
  explicit Calendar(int64_t now_seconds);
  Stamp stamp(unsigned month, unsigned day, unsigned second_of_day, uint32_t microseconds) const;
  Stamp now() const { return now_; }
  // So long ago, by the clock on the wall.
  static Stamp before(int64_t now_seconds, int64_t seconds);

 private:
  Stamp now_;
  int year_;
};

// Takes a line apart, which has no line feed. False for what does not begin as a record does.
bool parse_log_line(const Calendar& calendar, const char* line, size_t length, LogLine* out);

} // namespace ctl

#endif // TOOLS_LOG_LINE_H
