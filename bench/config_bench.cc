// Reading a configuration file of 100 entries.
#include <fcntl.h>
#include <quillcore/container.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "bench_support.h"

#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_INIH
#include <ini.h>
#endif

namespace {

// A file of the form that each reader takes: some want a section.
class Settings {
 public:
  explicit Settings(const char* section)
      : directory_("/tmp/quillnet"), path_(directory_.path() + "/conf") {
    std::ofstream out(path_);
    out << section;
    for (int i = 0; i < 100; i++)
      out << "radio" << i % 2 << ".setting." << i << "=value number " << i << "\n";
  }
  const char* path() const { return path_.c_str(); }

 private:
  bench::TemporaryDirectory directory_;
  std::string path_;
};

// One read and one pass over the bytes.
void limit(benchmark::State& state) {
  const Settings settings("");
  for (auto _ : state) {
    char text[32768];
    const int fd = open(settings.path(), O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(fd, text, sizeof(text));
    close(fd);
    int entries = 0;
    for (ssize_t i = 0; i < size; i++) entries += text[i] == '=' || text[i] == '\n';
    benchmark::DoNotOptimize(entries);
  }
}

void ours(benchmark::State& state) {
  const Settings settings("");
  const bench::QuietStderr quiet;
  for (auto _ : state) {
    qn_map_t* const map = qn_conf_load(settings.path());
    benchmark::DoNotOptimize(map);
    qn_map_free(map);
  }
}

#ifdef HAVE_GLIB
void key_file(benchmark::State& state) {
  const Settings settings("[all]\n");
  for (auto _ : state) {
    GKeyFile* const file = g_key_file_new();
    bench::must(g_key_file_load_from_file(file, settings.path(), G_KEY_FILE_NONE, nullptr) != 0,
                "GKeyFile");
    g_key_file_free(file);
  }
}
#endif

#ifdef HAVE_INIH
int count_entry(void* count, const char*, const char*, const char*) {
  ++*static_cast<int*>(count);
  return 1;
}

// It hands each entry out and keeps none.
void inih(benchmark::State& state) {
  const Settings settings("");
  for (auto _ : state) {
    int count = 0;
    bench::must(ini_parse(settings.path(), count_entry, &count) == 0 && count == 100, "inih");
  }
}
#endif

} // namespace

void bench::register_all() {
  add("conf_load", "limit", limit);
  add("conf_load", "ours", ours);
#ifdef HAVE_GLIB
  add("conf_load", "GKeyFile", key_file);
#endif
#ifdef HAVE_INIH
  add("conf_load", "inih (keeps nothing)", inih);
#endif
}
