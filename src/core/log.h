// The log instance and the line builder: what the log entries share with the file writer that installs
// itself underneath.
#ifndef QN_CORE_LOG_H
#define QN_CORE_LOG_H

#include <pthread.h>
#include <quillcore/log.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// The operations of a writer. A writer's own record begins with them.
struct qn_log_writer_ops {
  int32_t (*write)(qn_log_t* log, uint32_t level, const char* line, size_t length);
  void (*flush)(qn_log_t* log);
};

struct qn_log {
  uint32_t config_level;           // bits 0..3: a level, 0 to 6; bit 7: no writer. No gate reads it.
  uint32_t role;                   // row of qn_log_role_table, 1 to 10
  qn_log_writer_ops* local_writer; // null if the instance has none
  void* client;                    // always null
  uint32_t active;                 // 1 from creation
};

namespace qn {

constexpr size_t kLogLineSize = 1024;
constexpr size_t kLogStampSize = 64;
constexpr uint32_t kLogLevelCount = 7;

// Tables hold their texts in place: each pointer to one would be a relocation at each start.
struct LogName {
  uint8_t length;
  char name[12];
};

// By level code, in order of severity; row 0 has no name.
extern const LogName qn_log_level_table[kLogLevelCount];
extern const LogName qn_log_role_table[];

struct LogRecord {
  uint32_t level;
  uint32_t logid;
  const char* module;
  bool newline;
  bool header;
  const char* biz_name;
  const char* fault; // null but for the fault entries
};

// Builds the record's line in `line`, always terminated. A text that does not fit behind the header is
// dropped whole; a header that does not fit is cut and stands alone.
void qn_log_line_build(char (&line)[kLogLineSize], const LogRecord& record, const char* fmt, va_list args)
    __attribute__((format(printf, 3, 0)));

// Hands a line to the instance's writer, or to standard error without an instance. An instance without a
// writer drops it.
int32_t qn_log_write_line(qn_log_t* log, uint32_t level, const char* line);

// Writes the local time as "MM-DD hh:mm:ss microseconds" and returns the buffer; "-" when there is none.
const char* qn_time_log_stamp(char* buffer);

// The process's instance, or null. Set and cleared while no other thread logs.
qn_log_t* qn_log_singleton_get();
void log_singleton_set(qn_log_t* log);

} // namespace qn

#endif // QN_CORE_LOG_H
