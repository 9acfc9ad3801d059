// Processes, their open files and their sockets, as /proc tells them. No process is signalled.
#ifndef TOOLS_PROCESSES_H
#define TOOLS_PROCESSES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "files.h"

namespace ctl {

constexpr size_t kProgramSize = 32;

struct Process {
  pid_t pid;
  char program[kProgramSize]; // as it stands there: to be escaped
  char state;                 // 'R', 'S', 'Z', ...
  pid_t parent;
  uint32_t up_seconds;
};

// Returns whether there is such a process; a zombie counts.
bool read_process(pid_t pid, Process* process);

// One process after the other; 0 at the end.
class Processes {
 public:
  pid_t next();

 private:
  Folder proc_{"/proc"};
};

// An open descriptor: what the link says, and the number of it in /proc/PID/fd.
struct OpenFile {
  char target[kPathSize]; // to be escaped
  char link[48];          // its own path, to be asked with stat()
  uint64_t socket_inode;  // 0 for none
};

// One descriptor after the other. Nothing where that may not be seen.
class OpenFiles {
 public:
  explicit OpenFiles(pid_t pid);
  bool next(OpenFile* file);

 private:
  char folder_[32];
  Folder files_;
};

// Whether it was opened for writing, which the mode of its link tells.
bool is_written(const OpenFile& file);

// What a link of OpenFile leads to. False for what is no file on a disk: nothing else is asked, since
// that could wait.
bool status_of(const OpenFile& file, struct stat* status);

// Who holds a file open for writing: a child that only has it from its parent is not counted.
struct Holders {
  pid_t pids[16];
  unsigned count;
};
// Descriptors of another name than the file's are not looked at.
Holders find_holders(const char* path, const struct stat& file);

// Listening sockets of type SOCK_SEQPACKET, out of /proc/net/unix.
struct Listener {
  uint64_t inode;
  char path[128];
};
class Listeners {
 public:
  Listeners();
  bool next(Listener* listener);

 private:
  Fd fd_;
  char text_[4096];
  size_t length_ = 0;
  size_t at_ = 0;
};

// "3d 04:11", "04:11:09".
const char* short_time(uint32_t seconds);

} // namespace ctl

#endif // TOOLS_PROCESSES_H
