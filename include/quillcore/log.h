// Log: the one way in which anything reports anything.
//
// A record is one line: stamp, then logid, level letter, module and biz_name in square brackets, then
// the text.
//
//   03-05 09:07:03 42 [0523] [D] [alloc] [memalloc] malloc ptr=0x1230, size=32 success.
//
// The stamp is local time; its last field is the microseconds, not zero-filled. A record never exceeds
// 1023 bytes with its line feed. A text that does not fit behind the header is dropped whole.
//
// Until a process has a log instance every record goes to standard error and no gate is asked.
//
// Arguments that all entries share:
//   level     QN_LOG_G ... QN_LOG_F or QN_LOG_T; no other number
//   logid     fixed number of the call site, 0 for a site without one
//   module    the subsystem, such as "alloc"
//   biz_name  the operation, such as "memalloc"
//   newline   not 0: the line is ended with a line feed
//   header    not 0: the line begins with stamp and brackets
//   fmt, ...  the text, as for printf; a line feed of its own is kept beside the one of `newline`
// A null module, biz_name or fault is shown as "-".
//
// Threads: any thread may call any entry at any time. No entry allocates, and none reports a failure of
// its own: a record that cannot be written is dropped.
#ifndef QUILLCORE_LOG_H
#define QUILLCORE_LOG_H

#include <quillcore/api.h>
#include <stdarg.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_LOG_G 1u   // never refused; goes to the error file too
#define QN_LOG_E 2u   // error; goes to the error file too
#define QN_LOG_W 3u   // warning
#define QN_LOG_I 4u   // information
#define QN_LOG_D 5u   // debug
#define QN_LOG_F 6u   // fault, with a fault text; goes to the error file too
#define QN_LOG_T 64u  // trace, with a gate of its own

typedef struct qn_log qn_log_t;  // opaque

// Writes a record to the process's instance, or to standard error while there is none.
// Returns 0 when its level is refused, 1 when it is a trace record and trace is off, otherwise what the
// sink returns; callers have no need to look at it.
QN_API int32_t qn_log_core_adpater(uint32_t level, uint32_t logid, const char* module, uint8_t newline,
                                   uint8_t header, const char* biz_name, const char* fmt, ...)
    QN_PRINTF(7, 8);

// Writes a record with a header to `log`, or to standard error if `log` is null.
// Returns as qn_log_core_adpater().
QN_API int32_t qn_log_core(uint32_t level, qn_log_t* log, uint32_t logid, const char* module,
                           uint8_t newline, const char* biz_name, const char* fmt, ...) QN_PRINTF(7, 8);

// qn_log_core() with the header flag and an argument list, which is used up.
QN_API int32_t qn_log_vcore(uint32_t level, qn_log_t* log, uint32_t logid, const char* module,
                            uint8_t newline, uint8_t header, const char* biz_name, const char* fmt,
                            va_list args) QN_PRINTF(8, 0);

// Prints a record with a header on standard error, if the console gate of the process's instance is
// open and the level passes. Levels above 6, trace included, print nothing.
QN_API void qn_log_console_impl(uint32_t level, uint32_t logid, const char* module, uint8_t newline,
                                const char* biz_name, const char* fmt, ...) QN_PRINTF(6, 7);

// Prints a record with header and line feed on standard error and asks no gate. Levels above 6, trace
// included, print nothing.
QN_API void qn_log_println(uint32_t level, uint32_t logid, const char* module, const char* biz_name,
                           const char* fmt, ...) QN_PRINTF(5, 6);

// Writes a record of level F with the fault text in a bracket of its own to `log`, or to standard error
// if `log` is null. No gate is asked.
QN_API void qn_log_fault_impl(qn_log_t* log, uint32_t logid, const char* fault, const char* module,
                              uint8_t newline, const char* biz_name, const char* fmt, ...)
    QN_PRINTF(7, 8);

// qn_log_fault_impl() with an argument list, which is used up.
QN_API void qn_log_fault_vimpl(qn_log_t* log, uint32_t logid, const char* fault, const char* module,
                               uint8_t newline, const char* biz_name, const char* fmt, va_list args)
    QN_PRINTF(7, 0);

// qn_log_fault_impl() on the process's instance.
QN_API void qn_log_fault_adpater(uint32_t logid, const char* fault, const char* module, uint8_t newline,
                                 const char* biz_name, const char* fmt, ...) QN_PRINTF(6, 7);

// Writes a MAC address with its two middle octets hidden: "name=02:1A:**:**:3C:4D.". `mac` points to
// six bytes; a null `name` is shown as "MAC".
// Returns as qn_log_core_adpater().
QN_API int32_t qn_log_dump_macaddr_adpater(uint32_t level, uint32_t logid, const char* module,
                                           uint8_t newline, const char* biz_name, const char* name,
                                           const uint8_t* mac);

QN_END_DECLS

#endif  // QUILLCORE_LOG_H
