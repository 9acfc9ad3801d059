// One line of a log.
#include "log_line.h"

#include <cstring>
#include <ctime>

namespace ctl {
namespace {

constexpr Stamp kDay = 86400 * kSecond;
constexpr uint32_t kMicrosecondsMax = 999999;

// Where the reader stands; every step that finds something else makes it bad.
struct Cursor {
  const char* at;
  const char* end;
  bool good = true;

  void want(char byte) {
    good = good && at < end && *at == byte;
    at += good;
  }

  // From `low` to `high` digits, at most `max`.
  uint32_t number(int low, int high, uint32_t max) {
    uint64_t value = 0;
    int digits = 0;
    for (; digits < high && at < end && *at >= '0' && *at <= '9'; digits++) {
      value = value * 10 + static_cast<uint64_t>(*at++ - '0');
    }
    good = good && digits >= low && value <= max;
    return static_cast<uint32_t>(value);
  }

  // "[...] ", or "[...]" at the end. A name with a bracket in it ends at the first "] ".
  TextPart bracket() {
    want('[');
    const char* const first = at;
    if (!good) return {first, 0};
    for (; at < end; at++) {
      if (*at != ']' || (at + 1 < end && at[1] != ' ')) continue;
      const TextPart part = {first, static_cast<size_t>(at - first)};
      at += at + 1 < end ? 2 : 1;
      return part;
    }
    good = false;
    return {first, 0};
  }
};

Stamp take_stamp(const Calendar& calendar, Cursor* cursor) {
  const uint32_t month = cursor->number(2, 2, 12);
  cursor->want('-');
  const uint32_t day = cursor->number(2, 2, 31);
  cursor->want(' ');
  const uint32_t hour = cursor->number(2, 2, 23);
  cursor->want(':');
  const uint32_t minute = cursor->number(2, 2, 59);
  cursor->want(':');
  const uint32_t second = cursor->number(2, 2, 60);
  cursor->want(' ');
  const uint32_t microseconds = cursor->number(1, 6, kMicrosecondsMax);
  cursor->good = cursor->good && month > 0 && day > 0;
  return calendar.stamp(month, day, hour * 3600 + minute * 60 + second, microseconds);
}

Stamp place(int year, unsigned month, unsigned day, unsigned second_of_day) {
  return ((Stamp{year} * 12 + month - 1) * 31 + day - 1) * kDay + second_of_day * kSecond;
}

struct tm local_time(int64_t seconds) {
  const time_t time = static_cast<time_t>(seconds);
  struct tm local = {};
  localtime_r(&time, &local);
  return local;
}

Stamp place(const struct tm& local) {
  return place(local.tm_year, static_cast<unsigned>(local.tm_mon) + 1,
               static_cast<unsigned>(local.tm_mday),
               static_cast<unsigned>(local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec));
}

} // namespace

bool TextPart::is(const char* text) const {
  return strlen(text) == length && memcmp(at, text, length) == 0;
}

Calendar::Calendar(int64_t now_seconds) {
  const struct tm local = local_time(now_seconds);
  now_ = place(local);
  year_ = local.tm_year;
}

Stamp Calendar::stamp(unsigned month, unsigned day, unsigned second_of_day, uint32_t microseconds) const {
  const Stamp stamp = place(year_, month, day, second_of_day) + microseconds;
  return stamp <= now_ + kDay ? stamp : stamp - int64_t{12} * 31 * kDay;
}

Stamp Calendar::before(int64_t now_seconds, int64_t seconds) {
  return place(local_time(now_seconds - seconds));
}

bool parse_log_line(const Calendar& calendar, const char* line, size_t length, LogLine* out) {
  Cursor cursor = {line, line + length};
  out->stamp = take_stamp(calendar, &cursor);
  out->stamp_text = {line, static_cast<size_t>(cursor.at - line)};
  cursor.want(' ');
  cursor.want('[');
  out->logid = cursor.number(4, 10, UINT32_MAX);
  cursor.want(']');
  cursor.want(' ');
  const TextPart level = cursor.bracket();
  out->level = level.length == 1 ? level.at[0] : '\0';
  cursor.good = cursor.good && out->level != '\0' && strchr("GEWIDFT-", out->level) != nullptr;
  out->module = cursor.bracket();
  out->biz_name = cursor.bracket();
  out->text = {cursor.at, static_cast<size_t>(cursor.end - cursor.at)};
  return cursor.good;
}

} // namespace ctl
