// The files of one log in their order: the moved one, the live one, and whatever takes its place while it
// is followed.
//
// A rotation removes ROLE_1, renames ROLE_0 to ROLE_1 and makes ROLE_0 anew. Who is to miss nothing has
// each file open before it is removed, so two rotations are the time that there is for it. What the
// folder's watch tells of renames is counted: a file's number is the count at which it was ROLE_0, and
// numbers that nobody saw are files that are lost. A file that has a successor is no longer written, so
// it is read to its end before that.
#ifndef TOOLS_LOG_CHAIN_H
#define TOOLS_LOG_CHAIN_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

#include "files.h"

namespace ctl {

class LogChain;

// Wakes when something happens in the folder of the logs, and tells its chains what.
class LogWatch {
 public:
  // False when there is no watch to be had.
  bool start(int folder_fd);
  int names_fd() const { return names_.get(); }
  int writes_fd() const { return writes_.get(); }
  bool is_gone() const { return gone_; } // the folder
  void add(LogChain* chain);
  // Hands on what happened to names, without waiting.
  void take_events();
  // Forgets that something was written.
  void take_writes();

 private:
  static constexpr unsigned kChainsMax = 32;
  // Apart, so that who follows can wait for a rotation alone while records pour in.
  Fd names_;
  Fd writes_;
  bool gone_ = false;
  LogChain* chains_[kChainsMax];
  unsigned chain_count_ = 0;
};

enum class LogStep {
  kNothing, // for now
  kLine,
  kLost,    // files, see lost()
  kEmptied, // the live file begins anew
};

class LogChain {
 public:
  // Of heap memory that is all zero. `watch` is null where nobody follows: then what is there at the
  // start is all. Returns whether there is a file.
  bool start(int folder, const char* role, const char* format, LogWatch* watch);
  void stop();

  // A line lives until the next call, without its line feed. A part without one is a line once nothing
  // can follow it.
  LogStep next(const char** line, size_t* length);

  unsigned lost() const { return lost_; } // 0 for a number that is not known

  // For the watch: a file came to this name or went from it.
  void on_event(const char* name, bool moved_to);
  void on_overflow();

 private:
  static constexpr unsigned kHeldMax = 8;
  static constexpr size_t kBufferSize = 32768;
  struct Held {
    int fd;
    int64_t number;
    int64_t offset;
    int64_t end; // not to be read beyond
    dev_t device;
    ino_t inode;
    unsigned lost_before;
    bool is_lost_before;
    bool is_anew; // without the old one being moved
  };

  void look();
  void take(Fd live, const struct stat& live_status, Fd backup, const struct stat& backup_status);
  Held* push(Fd file, const struct stat& status, int64_t number);
  void pop();
  bool take_line(bool all, const char** line, size_t* length);
  ssize_t fill();

  LogWatch* watch_;
  int folder_;
  char live_[40];
  char backup_[40];
  int64_t moves_; // of a live file to the backup, since the start
  bool changed_;
  bool overflowed_;
  unsigned lost_;
  Held held_[kHeldMax];
  unsigned held_count_;
  char buffer_[kBufferSize];
  size_t begin_, length_; // of what was read and not handed out
};

} // namespace ctl

#endif // TOOLS_LOG_CHAIN_H
