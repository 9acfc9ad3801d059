// The clock that only goes forward.
#ifndef QN_PLATFORM_MONOTONIC_H
#define QN_PLATFORM_MONOTONIC_H

#include <cstdint>
#include <ctime>

namespace qn {

constexpr int64_t kMicrosPerSecond = 1000000;

// Microseconds since a moment that means nothing; 0 if the clock cannot be read.
inline int64_t monotonic_us() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * kMicrosPerSecond + now.tv_nsec / 1000;
}

inline int64_t monotonic_ms() { return monotonic_us() / 1000; }

} // namespace qn

#endif // QN_PLATFORM_MONOTONIC_H
