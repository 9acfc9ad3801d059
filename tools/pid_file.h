// Pid files as the library reads them, and whose the pid is today.
#ifndef TOOLS_PID_FILE_H
#define TOOLS_PID_FILE_H

#include "processes.h"

namespace ctl {

enum class Owner {
  kAlive,   // a program of that name, or one that holds the log of it
  kGone,    // no process has the pid
  kForeign, // another program has it
  kBroken,  // shorter than 4 bytes, or no pid: counts as gone
  kNone,    // no such file
  kRefused, // a link, a folder or what cannot be opened: errno
};

struct PidFile {
  char name[128]; // the file's, to be escaped
  Owner owner;
  int32_t pid; // where there is one
  Process process;
  struct stat file;
};

// Reads the file below the run-time folder; `folder` is that folder's descriptor.
void read_pid_file(int folder, const char* name, PidFile* file);

// Whether the file's name begins as the text does and nothing but ".pid" follows.
bool is_pid_name_of(const char* name, const char* text);

const char* word_of(Owner owner);

// What a start of the daemon will meet with.
const char* outcome_of(Owner owner);

} // namespace ctl

#endif // TOOLS_PID_FILE_H
