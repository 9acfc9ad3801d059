// What there is of this family on the machine: daemons, their sockets, their stores, their logs.
//
// A daemon is a process that has a log of the family open, or that a pid file of the run-time folder
// names, or only such a pid file whose owner is gone, or only a log that nobody has open. Sockets and
// stores belong to the process that has them; those that nobody has are given to the daemon whose name
// they bear, or stay alone.
#ifndef TOOLS_MACHINE_H
#define TOOLS_MACHINE_H

#include "command.h"
#include "pid_file.h"
#include "processes.h"
#include "roles.h"
#include "store_image.h"

namespace ctl {

constexpr unsigned kDaemonsMax = 32;
constexpr unsigned kThingsMax = 64;
constexpr int kNobody = -1;

struct Daemon {
  char name[kProgramSize]; // to be escaped
  bool runs;
  bool has_pid_file;
  Process process; // where it runs
  PidFile pid_file;
  const Role* role; // null where it has no log
  uint64_t log_bytes;
  unsigned errors; // of the last minute
};

struct SocketThing {
  char path[128];
  int daemon; // index, or kNobody
  bool listens;
  int error; // of a connect; 0 where it answers
  uint32_t microseconds;
};

struct StoreThing {
  char path[kPathSize];
  int daemon;
  bool held;
  bool deleted; // held, and no name leads to it any more
  unsigned holder_count;
  unsigned keys;
  size_t faults;
  const Refusal* refusal;
  struct stat file;
};

struct Machine {
  Daemon daemons[kDaemonsMax];
  unsigned daemon_count;
  SocketThing sockets[kThingsMax];
  unsigned socket_count;
  StoreThing stores[kThingsMax];
  unsigned store_count;
  bool is_cut; // there was more than fits here
};

// The role of the log that the process writes, or null. Who only reads one is no daemon, and processes
// with mounts of their own can have other files under these names.
const Role* role_of_process(pid_t pid);

// Looks at everything, into the folders that the words name too.
void look_at_machine(const Arguments& arguments, Machine* machine);

} // namespace ctl

#endif // TOOLS_MACHINE_H
