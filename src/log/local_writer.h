// The local writer: what makes a log instance write to disk.
//
// A role has two files in one directory, and each rotates by itself to a backup when the next record
// would bring it to the role's limit. Levels G, E and F go to both.
#ifndef QN_LOG_LOCAL_WRITER_H
#define QN_LOG_LOCAL_WRITER_H

#include <pthread.h>

#include "container/list.h"
#include "core/log.h"
#include "log/rolling_file.h"

struct qn_log_local_writer_t {
  qn_log_writer_ops ops; // write and flush; first, because the log path knows no more of a writer
  qn_file_t* file;
  qn_file_t* error_file;
  char file_fmt[64];
  char error_file_fmt[64];
  char dir[128];
  pthread_mutex_t file_lock; // size test and rotation of `file`; taken before the file's own lock
  pthread_mutex_t error_file_lock;
  qn::ListLink all_writers; // see fork_guard.h
};

// Opens a log file, emptied or, with a nonzero append flag, continued; reports either result. Returns the
// file or null.
qn_file_t* qn_log_open_new_file_impl(const char* dir, const char* filename, uint32_t append);

// Rotates the file if a record of `length` bytes would bring it to the role's limit. Returns 0 if the
// record may be written.
int32_t qn_log_backup_log_file_if_need(uint32_t role, qn_file_t* file, const char* dir,
                                       const char* name_fmt, size_t length);

constexpr size_t QN_LOG_FILENAME_SIZE = 128;

// Fills the zeroed buffer with the name of index 0, the live file, or 1, the backup. Returns 0; -1 if the
// name does not fit 126 bytes.
int32_t qn_log_build_filename(const char* role_name, const char* name_fmt,
                              char (&filename)[QN_LOG_FILENAME_SIZE], int32_t index);

#endif // QN_LOG_LOCAL_WRITER_H
