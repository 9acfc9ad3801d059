// A method call of sd-bus between two ends of one socket pair, without a broker.
#ifndef QUILLCORE_BENCH_REQUEST_SDBUS_H
#define QUILLCORE_BENCH_REQUEST_SDBUS_H

#include <benchmark/benchmark.h>

#include <cstddef>

namespace bench {

constexpr size_t kSdBusBody = 64;

void request_sdbus(benchmark::State& state);

} // namespace bench

#endif // QUILLCORE_BENCH_REQUEST_SDBUS_H
