// Questions about interfaces, and commands: what the kernel is asked costs far more than what is around
// it.
#include <fcntl.h>
#include <quillcore/interface.h>
#include <quillcore/utility.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "bench_support.h"

namespace {

constexpr char kInterface[] = "lo";

// Opens, reads and closes the files of the interface, and nothing else.
template <size_t count>
void read_files(benchmark::State& state, const char* const (&files)[count]) {
  std::string paths[count];
  for (size_t i = 0; i < count; i++)
    paths[i] = std::string("/sys/class/net/") + kInterface + "/" + files[i];
  for (auto _ : state) {
    for (const std::string& path : paths) {
      char text[32];
      const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      bench::must(read(fd, text, sizeof(text)) > 0, path.c_str());
      benchmark::DoNotOptimize(text);
      close(fd);
    }
  }
}

void metric_limit(benchmark::State& state) {
  read_files(state, {"statistics/rx_packets", "statistics/rx_errors", "statistics/tx_packets",
                     "statistics/tx_errors", "statistics/rx_bytes", "statistics/tx_bytes"});
}

void metric_ours(benchmark::State& state) {
  qn_intf_eth_metric_t metric;
  for (auto _ : state) {
    QnIntfGetEthMetric(kInterface, &metric);
    benchmark::DoNotOptimize(metric);
  }
}

void oper_limit(benchmark::State& state) { read_files(state, {"operstate"}); }

void oper_ours(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(QnIntfGetOperState(kInterface));
}

void exec_limit(benchmark::State& state) {
  for (auto _ : state) {
    const pid_t child = fork();
    bench::must(child >= 0, "fork");
    if (child == 0) {
      char shell[] = "sh", option[] = "-c", command[] = "true";
      char* const arguments[] = {shell, option, command, nullptr};
      execv("/bin/sh", arguments);
      _exit(127);
    }
    int status = 0;
    bench::must(waitpid(child, &status, 0) == child && status == 0, "waitpid");
  }
}

// Each command is reported; where that goes is not what is measured.
void exec_ours(benchmark::State& state) {
  const bench::QuietStderr quiet;
  for (auto _ : state) bench::must(qn_os_exec_cmd("true") == 0, "qn_os_exec_cmd");
}

void exec_system(benchmark::State& state) {
  for (auto _ : state) bench::must(system("true") == 0, "system"); // NOLINT: the peer
}

} // namespace

void bench::register_all() {
  add("counters of an interface", "limit", metric_limit);
  add("counters of an interface", "ours", metric_ours);
  add("operational state", "limit", oper_limit);
  add("operational state", "ours", oper_ours);
  add("shell command", "limit", exec_limit);
  add("shell command", "ours", exec_ours);
  add("shell command", "system()", exec_system);
}
