// Log instances and their file writer.
#include "log/local_writer.h"

#include <fcntl.h>

#include <cstddef>
#include <cstdlib>

#include "core/heap.h"
#include "core/log_gate.h"
#include "core/log_record.h"
#include "log/fork_guard.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"

namespace {

using qn::Message;
using qn::MutexGuard;

constexpr char kModule[] = "log";
constexpr char kInit[] = "qn_log_local_wirter_init";

constexpr Message kInvalidLevel{QN_LOG_E, 0, kModule, "qn_log_local_new",
                                "[qn_log_local_new] invalid log config_level=%d."};
constexpr Message kLogFailed{QN_LOG_E, 0, kModule, "qn_log_local_new",
                             "[qn_log_local_new] malloc log failed."};
constexpr Message kWriterFailed{QN_LOG_E, 0, kModule, kInit, "malloc local_writer failed."};
constexpr Message kFilesFailed{QN_LOG_E, 0, kModule, kInit, "qn_log_open_new_file failed."};
constexpr Message kFileOpened{QN_LOG_I, 0, kModule, "qn_log_open_new_file_impl",
                              "open log file success. dir=%s, filename=%s."};
constexpr Message kFileFailed{QN_LOG_E, 0, kModule, "qn_log_open_new_file_impl",
                              "open log file failed. dir=%s, filename=%s."};
constexpr Message kNameFailed{QN_LOG_E, 0, kModule, "qn_log_backup_log_file_if_need",
                              "build log filename failed."};

constexpr uint32_t kLevelMask = 0x0F;
constexpr uint32_t kLevelMax = 6;
constexpr uint32_t kNoWriter = 0x80;
constexpr int32_t kLiveIndex = 0;
constexpr int32_t kBackupIndex = 1;
constexpr uint32_t kFileMode = 0660;

constexpr char kFileFmt[] = "%s_%d.log.txt";
constexpr char kErrorFileFmt[] = "%s_error_%d.log.txt";
constexpr char kDir[] = "/tmp/quillnet/log/";

// Bytes at which a file of the role is moved aside.
constexpr uint64_t kLimits[qn::kRoleCount] = {
    0,       65536,  1572864, 1572864, 1048576, // invalid (never in use), qntty, hubd, leafd, admd
    65536,   524288, 65536,   131072,  65536,   // relay, arcd, arc_tty, lib_call, nw_lib_call
    1048576,                                    // nil
};

static_assert(offsetof(qn_log_local_writer_t, ops) == 0);

qn_log_local_writer_t& writer_of(const qn_log_t& log) {
  return *reinterpret_cast<qn_log_local_writer_t*>(log.local_writer);
}

// G, E and F, and no other level.
bool goes_to_error_file(uint32_t level) {
  return level == QN_LOG_G || level == QN_LOG_E || level == QN_LOG_F;
}

// The write runs after the rotation lock is given back, so two threads can pass the size test together
// and a file can pass its limit by a few records.
int32_t write_one(const qn_log_t& log, qn_file_t* file, pthread_mutex_t& lock, const char* name_fmt,
                  const char* line, size_t length) {
  int32_t rotated = 0;
  {
    const MutexGuard guard(lock);
    rotated = qn_log_backup_log_file_if_need(log.role, file, writer_of(log).dir, name_fmt, length);
  }
  return rotated == 0 ? qn_file_write(file, line, length) : 0;
}

int32_t qn_log_local_writer_write(qn_log_t* log, uint32_t level, const char* line, size_t length) {
  qn_log_local_writer_t& writer = writer_of(*log);
  if (writer.file == nullptr) return 0;
  const int32_t result = write_one(*log, writer.file, writer.file_lock, writer.file_fmt, line, length);
  if (!goes_to_error_file(level)) return result;
  return write_one(*log, writer.error_file, writer.error_file_lock, writer.error_file_fmt, line, length);
}

void qn_log_local_writer_flush(qn_log_t* log) {
  qn_file_sync(writer_of(*log).file);
  qn_file_sync(writer_of(*log).error_file);
}

qn_file_t* open_live_file(const char* dir, const char* name_fmt, uint32_t role, uint32_t append) {
  char filename[QN_LOG_FILENAME_SIZE] = "";
  if (qn_log_build_filename(qn::qn_log_role_table[role].name, name_fmt, filename, kLiveIndex) != 0) {
    return nullptr;
  }
  return qn_log_open_new_file_impl(dir, filename, append);
}

int32_t qn_log_local_wirter_init(qn_log_t& log, uint32_t append) {
  qn::HeapPtr<qn_log_local_writer_t> writer = qn::make_heap<qn_log_local_writer_t>();
  if (!writer) return QN_FAIL_PRINTLN(-1, kWriterFailed);
  memcpy_s(writer->file_fmt, sizeof(writer->file_fmt), kFileFmt, sizeof(kFileFmt));
  memcpy_s(writer->error_file_fmt, sizeof(writer->error_file_fmt), kErrorFileFmt, sizeof(kErrorFileFmt));
  memcpy_s(writer->dir, sizeof(writer->dir), kDir, sizeof(kDir));

  writer->file = open_live_file(writer->dir, writer->file_fmt, log.role, append);
  if (writer->file != nullptr) {
    writer->error_file = open_live_file(writer->dir, writer->error_file_fmt, log.role, append);
  }
  if (writer->error_file == nullptr) {
    QN_PRINTLN(kFilesFailed);
    qn_file_close(writer->file);
    return -1;
  }
  pthread_mutex_init(&writer->file_lock, nullptr);
  pthread_mutex_init(&writer->error_file_lock, nullptr);
  writer->ops = {qn_log_local_writer_write, qn_log_local_writer_flush};
  qn::fork_guard_add(*writer);
  log.local_writer = &writer.release()->ops;
  return 0;
}

} // namespace

qn_file_t* qn_log_open_new_file_impl(const char* dir, const char* filename, uint32_t append) {
  const int32_t flags = O_RDWR | O_CREAT | (append != 0 ? O_APPEND : O_TRUNC);
  qn_file_t* const file = qn_file_open(dir, filename, flags, kFileMode);
  if (file != nullptr) {
    QN_PRINTLN(kFileOpened, dir, filename);
  } else {
    QN_PRINTLN(kFileFailed, dir, filename);
  }
  return file;
}

int32_t qn_log_build_filename(const char* role_name, const char* name_fmt,
                              char (&filename)[QN_LOG_FILENAME_SIZE], int32_t index) {
// The format is one of the two constants above, kept in the writer's record.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int length = snprintf_s(filename, QN_LOG_FILENAME_SIZE - 1, QN_LOG_FILENAME_SIZE - 2, name_fmt,
                                role_name, index);
#pragma GCC diagnostic pop
  return length < 0 ? -1 : 0;
}

int32_t qn_log_backup_log_file_if_need(uint32_t role, qn_file_t* file, const char* dir,
                                       const char* name_fmt, size_t length) {
  if (!qn::file_would_reach(*file, length, kLimits[role])) return 0;
  char filename[QN_LOG_FILENAME_SIZE] = "";
  if (qn_log_build_filename(qn::qn_log_role_table[role].name, name_fmt, filename, kBackupIndex) == 0) {
    return qn_file_rename_and_reopen(file, dir, filename);
  }
  QN_CONSOLE(kNameFailed);
  return qn::file_reopen(*file);
}

qn_log_t* qn_log_local_new(uint32_t config_level, uint32_t role, uint32_t append) {
  if ((config_level & kLevelMask) > kLevelMax)
    return QN_FAIL_PRINTLN(nullptr, kInvalidLevel, config_level);
  qn::HeapPtr<qn_log_t> log(static_cast<qn_log_t*>(malloc(sizeof(qn_log_t))));
  if (!log) return QN_FAIL_PRINTLN(nullptr, kLogFailed);
  memset_s(log.get(), sizeof(qn_log_t), 0, sizeof(qn_log_t));
  log->config_level = config_level;
  log->role = role >= QN_LOG_ROLE_QNTTY && role < QN_LOG_ROLE_NIL ? role : QN_LOG_ROLE_NIL;
  log->active = 1;
  if ((config_level & kNoWriter) == 0 && qn_log_local_wirter_init(*log, append) != 0) return nullptr;
  return log.release();
}

void qn_log_free(qn_log_t* log) {
  if (log == nullptr) return;
  if (log->local_writer != nullptr) {
    qn_log_local_writer_t& writer = writer_of(*log);
    qn::fork_guard_remove(writer);
    qn_file_close(writer.file);
    qn_file_close(writer.error_file);
    pthread_mutex_destroy(&writer.file_lock);
    pthread_mutex_destroy(&writer.error_file_lock);
    qn_free(&writer);
  }
  free(log);
}

void* qn_log_client_new(void) { return nullptr; }
