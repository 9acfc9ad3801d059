// The bytes of a pid file: taking it over asks whether the process in it lives, and leaves either all of
// the file or exactly the own pid in it.
#include <quillcore/process.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/log_gate.h"
#include "support/temp_dir.h"

namespace {

constexpr char kRunDirectory[] = "/tmp/quillnet";

bool lives(const std::string& content) {
  int32_t pid = 0;
  if (content.size() < sizeof(pid)) return false;
  memcpy(&pid, content.data(), sizeof(pid));
  return pid > 0 && kill(pid, 0) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The name leads out of the directory that it is looked up in, which must exist, to a file elsewhere.
  static const TempDir dir;
  static const bool made = mkdir(kRunDirectory, 0755) == 0;
  static const int cleanup = atexit([] {
    if (made) rmdir(kRunDirectory);
  });
  if (cleanup != 0) abort();
  qn::log_gate_set_current(qn::kGateNoMaps);
  const std::string path = dir.file("x.pid"), name = "../.." + path;
  const std::string content(reinterpret_cast<const char*>(data), size);
  const int32_t self = getpid();
  const std::string own(reinterpret_cast<const char*>(&self), sizeof(self));

  write_file(path, content);
  const bool before = lives(content);
  const int32_t result = qn_proc_check_or_create_pidfile(name.c_str());
  const bool after = lives(content);
  if (result != 0 && result != QN_PROC_ALIVE) abort();
  // A process may start or end meanwhile, in which case both answers are right.
  if (before == after && before != (result == QN_PROC_ALIVE)) abort();
  if (read_file(path) != (result == 0 ? own : content)) abort();
  if (qn_proc_clean_pidfile(name.c_str()) != 0 || access(path.c_str(), F_OK) == 0) abort();
  return 0;
}
