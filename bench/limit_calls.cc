// The least that a refused record can cost its caller.
#include "limit_calls.h"

#include <atomic>

namespace {
std::atomic<uint32_t> g_level{0};
} // namespace

void bench_limit_set_level(uint32_t level) { g_level.store(level, std::memory_order_relaxed); }

int32_t bench_limit_record(uint32_t level, uint32_t, const char*, uint8_t, uint8_t, const char*,
                           const char*, ...) {
  return level <= g_level.load(std::memory_order_relaxed) ? 1 : 0;
}
