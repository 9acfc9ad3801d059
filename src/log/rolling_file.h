// One output file that many threads write and that can, at any moment, be moved aside and started afresh.
//
// Its records go through the console entry only: they are made under locks that the log's own writer
// would want.
//
// Several processes may have it open, a daemon and its children for instance. When one of them has moved
// it aside, the others learn of it from the stat() behind their next write, and go on in the file that
// has the name now. So each write goes to the end of the file, wherever that is by then.
#ifndef QN_LOG_ROLLING_FILE_H
#define QN_LOG_ROLLING_FILE_H

#include <pthread.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

struct qn_file_t {
  char path[512];
  char filename[128];
  char pathname[640];
  struct stat st;       // of `pathname`, after the last write or opening
  uint32_t written;     // bytes handed to write() since the last opening
  pthread_mutex_t lock; // covers fd, written and st; held over a whole write and a whole rotation
  int32_t fd;           // -1 when closed, else above the standard streams
  int32_t flags;
  uint32_t mode;
  uint8_t inited; // not 0 once `lock` has been initialised
  dev_t dev;      // of the open file
  ino_t ino;
};

constexpr int32_t QN_FILE_CLOSED = -19;

// Makes the directory where it is missing (mode 750, through the shell) and opens the file. Returns null
// for a null argument, a name that does not fit (452 to 454), a directory that cannot be made (455) and
// when the file cannot be opened (451), another user's link in its place included, or memory is short.
qn_file_t* qn_file_open(const char* path, const char* filename, int32_t flags, uint32_t mode);

// Closes and opens the file again. Returns 0; -1 when it cannot be opened (451), and then it stays
// closed; -2 for null. Not locked: the caller is the only user or holds the lock.
int32_t qn_file_open_file(qn_file_t* file);

// Writes, flushes to disk and refreshes `st`. Returns 0, whatever the three did; QN_FILE_CLOSED for a
// null or closed file. Waits for a rotation that is under way and then writes to the new file. Where the
// name is no longer the open file's it goes on in the one that has it, and writes once more what would
// otherwise have gone into a file without a name.
int32_t qn_file_write(qn_file_t* file, const void* bytes, size_t length);

// Moves the file to `filename` in `path`, in place of what is there, and starts it afresh. Returns 0; -1
// for a null argument or when it could not be opened again, and then it stays closed until a later call.
int32_t qn_file_rename_and_reopen(qn_file_t* file, const char* path, const char* filename);

// Flushes to disk and refreshes `st`, without the lock. Null is ignored.
void qn_file_sync(qn_file_t* file);

void qn_file_close(qn_file_t* file);

namespace qn {

// Whether a further record of `length` bytes would bring the file to `limit`, by its size on disk or by
// what was written since it was opened. A full file that another process has moved aside does not count.
bool file_would_reach(qn_file_t& file, size_t length, uint64_t limit);

// qn_file_open_file() under the lock.
int32_t file_reopen(qn_file_t& file);

} // namespace qn

#endif // QN_LOG_ROLLING_FILE_H
