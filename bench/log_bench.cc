// A record that its level refuses: the hottest path of the library.
#include <quillcore/log.h>
#include <syslog.h>

#include <cstdlib>

#include "bench_support.h"
#include "limit_calls.h"

#ifdef HAVE_SPDLOG
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif
#ifdef HAVE_GLIB
#define G_LOG_DOMAIN "alloc"
#include <glib.h>
#endif

namespace {

// The record that every allocation makes. A macro, so that each entry is called as its users call it.
#define RECORD                                                                 \
  QN_LOG_D, 523, "alloc", 1, 1, "memalloc", "malloc ptr=%p, size=%d success.", \
      static_cast<void*>(&size), static_cast<int>(size)

void limit(benchmark::State& state) {
  uint32_t size = 64;
  bench_limit_set_level(QN_LOG_I);
  bench::must(bench_limit_record(RECORD) == 0, "refusing a record");
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    bench_limit_record(RECORD);
  }
}

void ours(benchmark::State& state) {
  uint32_t size = 64;
  bench::must(qn_log_core_adpater(RECORD) == 0, "refusing a record");
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    qn_log_core_adpater(RECORD);
  }
}

void system_log(benchmark::State& state) {
  setlogmask(LOG_UPTO(LOG_INFO));
  uint32_t size = 64;
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    syslog(LOG_DEBUG, "malloc ptr=%p, size=%d success.", static_cast<void*>(&size),
           static_cast<int>(size));
  }
}

#ifdef HAVE_SPDLOG
void spdlog_logger(benchmark::State& state) {
  spdlog::logger logger("alloc", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger.set_level(spdlog::level::info);
  uint32_t size = 64;
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    logger.debug("malloc ptr={}, size={} success.", static_cast<void*>(&size), size);
  }
}
#endif

#ifdef HAVE_GLIB
void glib_debug(benchmark::State& state) {
  unsetenv("G_MESSAGES_DEBUG");
  uint32_t size = 64;
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    g_debug("malloc ptr=%p, size=%d success.", static_cast<void*>(&size), static_cast<int>(size));
  }
}

void glib_structured(benchmark::State& state) {
  unsetenv("G_MESSAGES_DEBUG");
  uint32_t size = 64;
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    g_log_structured(G_LOG_DOMAIN, G_LOG_LEVEL_DEBUG, "MESSAGE", "malloc ptr=%p, size=%d success.",
                     static_cast<void*>(&size), static_cast<int>(size));
  }
}
#endif

} // namespace

void bench::register_all() {
  add("refused record", "limit", limit);
  add("refused record", "ours", ours);
  add("refused record", "syslog", system_log);
#ifdef HAVE_SPDLOG
  add("refused record", "spdlog", spdlog_logger);
#endif
#ifdef HAVE_GLIB
  add("refused record", "g_debug", glib_debug);
  add("refused record", "g_log_structured", glib_structured);
#endif
}
