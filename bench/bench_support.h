// What the benchmark programs share.
//
// A benchmark is named "operation/who". Among those of one operation "limit" is what the others are
// measured against and "ours" is this library; the rest are peers. Times are wall-clock times of one
// operation.
#ifndef QUILLCORE_BENCH_BENCH_SUPPORT_H
#define QUILLCORE_BENCH_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

#include <string>
#include <utility>

namespace bench {

// Each program's own: adds its benchmarks.
void register_all();

template <typename Body>
void add(const std::string& operation, const std::string& who, Body body, int threads = 1) {
  benchmark::RegisterBenchmark((operation + "/" + who).c_str(), std::move(body))
      ->UseRealTime()
      ->Threads(threads);
}

// Ends the program with the text of errno: a call that fails measures nothing.
[[noreturn]] void fail(const char* what);

inline void must(bool held, const char* what) {
  if (!held) fail(what);
}

// A directory of its own below `parent`, removed with everything in it.
class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(const std::string& parent);
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// While it lives, standard error goes nowhere: what the library reports is not what is measured.
class QuietStderr {
 public:
  QuietStderr();
  ~QuietStderr();
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;

 private:
  int kept_;
};

} // namespace bench

#endif // QUILLCORE_BENCH_BENCH_SUPPORT_H
