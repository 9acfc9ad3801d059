// The main function of every benchmark program.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "bench_support.h"
#include "closed_gate.h"

void bench::fail(const char* what) {
  fprintf(stderr, "%s failed: %s\n", what, strerror(errno));
  exit(1);
}

bench::TemporaryDirectory::TemporaryDirectory(const std::string& parent)
    : path_(parent + "/quillcore-bench-XXXXXX") {
  must(mkdtemp(path_.data()) != nullptr, "mkdtemp");
}

bench::TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  bench_close_gate();
  bench::register_all();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
