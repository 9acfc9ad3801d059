// The least that a refused record can cost its caller.
#ifndef QUILLCORE_BENCH_LIMIT_CALLS_H
#define QUILLCORE_BENCH_LIMIT_CALLS_H

#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

// The highest level that passes.
QN_API void bench_limit_set_level(uint32_t level);

// One atomic load and one compare behind a call with variable arguments. Returns 0 for a refused level.
QN_API int32_t bench_limit_record(uint32_t level, uint32_t logid, const char* module, uint8_t newline,
                                  uint8_t header, const char* biz_name, const char* fmt, ...)
    QN_PRINTF(7, 8);

QN_END_DECLS

#endif // QUILLCORE_BENCH_LIMIT_CALLS_H
