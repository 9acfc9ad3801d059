// Records: refused ones, the hottest path of the library, and accepted ones with their way to the disk.
#include <fcntl.h>
#include <quillcore/log.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "bench_support.h"
#include "limit_calls.h"

#ifdef HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
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

void ours_trace(benchmark::State& state) {
  bench::must(qn_log_core_adpater(QN_LOG_T, 1, "m", 1, 1, "b", "%s", "x") == 1,
              "refusing a trace record");
  for (auto _ : state) {
    qn_log_core_adpater(QN_LOG_T, 501, "kvstore", 1, 1, "kvs_delete", "entering %s. called by %s.", "x",
                        "nil");
  }
}

// Switches one logid and one biz_name that are not those of the measured call site.
void switch_others(const char* permit) {
  qn_log_permit_config_t change = {};
  strcpy(change.role, "hubd");
  strcpy(change.permit, permit);
  strcpy(change.biz_name, "kvs_delete");
  change.logid = 4140;
  change.mask = QN_LOG_PERMIT_LOGID | QN_LOG_PERMIT_BIZ;
  bench::must(qn_log_set_log_permit_config(&change) == 0, "switching a single logid");
}

void ours_others_on(benchmark::State& state) {
  switch_others("on");
  ours(state);
  switch_others("off");
}

// --- accepted records ---

constexpr off_t kLimit = 1572864;

// What an accepted record cannot do without: stamp, format, and for each file write, fsync and stat.
void limit_accepted(benchmark::State& state, int files) {
  const bench::TemporaryDirectory directory("/tmp/quillnet");
  int fds[2];
  std::string paths[2];
  for (int i = 0; i < files; i++) {
    paths[i] = directory.path() + "/" + std::to_string(i);
    fds[i] = open(paths[i].c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_APPEND, 0660);
  }
  int number = 0;
  for (auto _ : state) {
    struct timeval now;
    struct tm local;
    gettimeofday(&now, nullptr);
    localtime_r(&now.tv_sec, &local);
    char line[1024];
    const int length = snprintf(
        line, sizeof(line), "%02d-%02d %02d:%02d:%02d %lld [%04u] [%s] [%s] [%s] request %d served\n",
        local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
        static_cast<long long>(now.tv_usec), 9001u, "I", "hubd", "hubd_request", number++);
    for (int i = 0; i < files; i++) {
      struct stat status;
      benchmark::DoNotOptimize(write(fds[i], line, static_cast<size_t>(length)));
      fsync(fds[i]);
      stat(paths[i].c_str(), &status);
      if (status.st_size >= kLimit) benchmark::DoNotOptimize(ftruncate(fds[i], 0));
    }
  }
  for (int i = 0; i < files; i++) close(fds[i]);
}

void ours_accepted(benchmark::State& state, uint32_t level) {
  int number = 0;
  for (auto _ : state) {
    qn_log_core_adpater(level, 9001, "hubd", 1, 1, "hubd_request", "request %d served", number++);
  }
}

void stdio_accepted(benchmark::State& state) {
  const bench::TemporaryDirectory directory("/tmp/quillnet");
  FILE* const file = fopen((directory.path() + "/log").c_str(), "ae");
  int number = 0;
  for (auto _ : state) {
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    fprintf(file, "%02d-%02d %02d:%02d:%02d request %d served\n", local.tm_mon + 1, local.tm_mday,
            local.tm_hour, local.tm_min, local.tm_sec, number++);
    fflush(file);
    fsync(fileno(file));
    if (ftell(file) >= kLimit) benchmark::DoNotOptimize(ftruncate(fileno(file), 0));
  }
  fclose(file);
}

#ifdef HAVE_SPDLOG
// flush() of this sink does not reach the disk, so its descriptor's fsync is missing here.
void spdlog_accepted(benchmark::State& state) {
  const bench::TemporaryDirectory directory("/tmp/quillnet");
  spdlog::logger logger(
      "hubd", std::make_shared<spdlog::sinks::basic_file_sink_mt>(directory.path() + "/log", true));
  int number = 0;
  for (auto _ : state) {
    logger.info("request {} served", number++);
    logger.flush();
  }
}
#endif

} // namespace

void bench::register_all() {
  add("refused record", "limit", limit);
  add("refused record", "ours", ours);
  add("refused record, 2 threads", "limit", limit, 2);
  add("refused record, 2 threads", "ours", ours, 2);
  add("refused record, 2 threads", "syslog", system_log, 2);
  add("refused trace", "limit", limit);
  add("refused trace", "ours", ours_trace);
  add("refused, others switched on", "limit", limit);
  add("refused, others switched on", "ours", ours_others_on);
  add("accepted, one file", "limit", [](benchmark::State& state) { limit_accepted(state, 1); });
  add("accepted, one file", "ours", [](benchmark::State& state) { ours_accepted(state, QN_LOG_I); });
  add("accepted, one file", "stdio", stdio_accepted);
#ifdef HAVE_SPDLOG
  add("accepted, one file", "spdlog (no fsync)", spdlog_accepted);
#endif
  add("accepted, both files", "limit", [](benchmark::State& state) { limit_accepted(state, 2); });
  add("accepted, both files", "ours", [](benchmark::State& state) { ours_accepted(state, QN_LOG_G); });
  add("refused record", "syslog", system_log);
#ifdef HAVE_SPDLOG
  add("refused record", "spdlog", spdlog_logger);
#endif
#ifdef HAVE_GLIB
  add("refused record", "g_debug", glib_debug);
  add("refused record", "g_log_structured", glib_structured);
#endif
}
