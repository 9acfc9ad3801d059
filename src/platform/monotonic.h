// The clock that only goes forward.
#ifndef QN_PLATFORM_MONOTONIC_H
#define QN_PLATFORM_MONOTONIC_H

#include <cstdint>
#include <ctime>

namespace qn {

constexpr int64_t kMicrosPerSecond = 1000000;

// Both count from a moment that means nothing, and give 0 if the clock cannot be read. A count of
// nanoseconds fits a long, which spares the division of a longer number.
inline struct timespec monotonic_time() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

inline int64_t monotonic_us() {
  const struct timespec now = monotonic_time();
  return int64_t{now.tv_sec} * kMicrosPerSecond + now.tv_nsec / 1000;
}

inline int64_t monotonic_ms() {
  const struct timespec now = monotonic_time();
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

} // namespace qn

#endif // QN_PLATFORM_MONOTONIC_H
