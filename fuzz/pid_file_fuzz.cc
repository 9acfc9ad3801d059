// The bytes of a pid file: taking it over asks whether the process in it lives, and leaves either all of
// the file or exactly the own pid in it.
#include <quillcore/process.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "fuzz/input.h"
#include "support/gate.h"
#include "support/temp_dir.h"

namespace {

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
  [[maybe_unused]] static const bool made =
      mkdir("/tmp/quillnet", 0755) == 0 && atexit([] { rmdir("/tmp/quillnet"); }) == 0;
  const GateAt quiet(0);
  const std::string path = dir.file("x.pid"), name = "../.." + path;
  const std::string content = to_text(data, size);
  const int32_t self = getpid();

  write_file(path, content);
  const bool before = lives(content);
  const int32_t result = qn_proc_check_or_create_pidfile(name.c_str());
  require(result == 0 || result == QN_PROC_ALIVE, "the result");
  // A process may start or end meanwhile, in which case both answers are right.
  require(before == (result == QN_PROC_ALIVE) || before != lives(content), "whether the process lives");
  const std::string own(reinterpret_cast<const char*>(&self), sizeof(self));
  require(read_file(path) == (result == 0 ? own : content), "the bytes of the file");
  require(qn_proc_clean_pidfile(name.c_str()) == 0 && access(path.c_str(), F_OK) != 0, "removed");
  return 0;
}
