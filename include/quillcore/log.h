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
// Until the process has its own instance, and after that is ended, every record for it goes to standard
// error and no gate is asked.
//
// Arguments that all entries share:
//   level     QN_LOG_G ... QN_LOG_F or QN_LOG_T; no other number
//   logid     fixed number of the call site, 0 for a site without one. The library's own have 404 to 633
//             and 4140 to 4196; a program of yours takes its numbers from 9000 on
//   module    the subsystem, such as "alloc"
//   biz_name  the operation, such as "memalloc"
//   newline   not 0: the line is ended with a line feed
//   header    not 0: the line begins with stamp and brackets
//   fmt, ...  the text, as for printf; a line feed of its own is kept beside the one of `newline`
// A null module, biz_name or fault is shown as "-".
//
// Standard error is written by its descriptor: a program that gives the stream a buffer, or another file,
// does not see its own output and the records in order.
//
// Threads: any thread may call any function of this file at any time, unless it says otherwise. No entry
// allocates or reports that its record could not be written: that is dropped. A failed rotation is told
// on standard error (451, 456, 457) where the console gate lets it.
//
// Records are written under locks, which fork() takes too. So a signal handler makes no log call, by way
// of another function of this library neither, and no fork(): one that has interrupted a log call waits
// for itself for ever. And a thread that may be inside the library is not to be ended by
// pthread_cancel(): it would keep what it has locked.
#ifndef QUILLCORE_LOG_H
#define QUILLCORE_LOG_H

#include <quillcore/api.h>
#include <stdarg.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_LOG_G 1u  // never refused; goes to the error file too
#define QN_LOG_E 2u  // error; goes to the error file too
#define QN_LOG_W 3u  // warning
#define QN_LOG_I 4u  // information
#define QN_LOG_D 5u  // debug
#define QN_LOG_F 6u  // fault, with a fault text; goes to the error file too
#define QN_LOG_T 64u // trace, with a gate of its own

typedef struct qn_log qn_log_t; // opaque

// One record of a process's own, on qn_log_core_adpater() with header and line feed; `...` is the text
// and its arguments, which the compiler checks against it. An expression with the result of that call.
//
//   QN_LOG_RECORD(QN_LOG_W, 9003, "hubd", "hubd_user", "user %u may not %s.", uid, what);
//
// A record that is refused costs the call, one load and one compare; its arguments are evaluated all the
// same.
#define QN_LOG_RECORD(level, logid, module, biz_name, ...) \
  qn_log_core_adpater((level), (logid), (module), 1, 1, (biz_name), __VA_ARGS__)

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

// Instances. A process makes one with its role, the singleton; its records then go to two files in
// /tmp/quillnet/log/, ROLE_0.log.txt and, for levels G, E and F, ROLE_error_0.log.txt too. Each is moved
// to ROLE_1.log.txt or ROLE_error_1.log.txt before it reaches the role's limit in bytes; records that
// several threads write at once can carry it past that by a few. Every record is on disk when the call
// returns. A link in the place of a file is followed if root or the process's own user made it; with
// another user's the file cannot be opened.
//
// A child of fork() may log too: when parent or child has moved a file aside, the other goes on in the
// new one behind its next record. Should both do so at one and the same moment, the older of the two
// files can be lost. Other than that a role's files belong to one process, and in it to one instance, at
// a time, unless `append` is 1: with 0 the second one empties what the first has written.

// The roles, with the name that their files and permissions have, and their limit in bytes.
#define QN_LOG_ROLE_QNTTY 1u       // "qntty", 65536
#define QN_LOG_ROLE_HUBD 2u        // "hubd", 1572864
#define QN_LOG_ROLE_LEAFD 3u       // "leafd", 1572864
#define QN_LOG_ROLE_ADMD 4u        // "admd", 1048576
#define QN_LOG_ROLE_RELAY 5u       // "relay", 65536
#define QN_LOG_ROLE_ARCD 6u        // "arcd", 524288
#define QN_LOG_ROLE_ARC_TTY 7u     // "arc_tty", 65536
#define QN_LOG_ROLE_LIB_CALL 8u    // "lib_call", 131072
#define QN_LOG_ROLE_NW_LIB_CALL 9u // "nw_lib_call", 65536
#define QN_LOG_ROLE_NIL 10u        // "nil", 1048576; what every other number becomes

// Makes an instance. Its records pass by the permissions that qn_log_new_singleton_instance() has loaded;
// before that, and after the process's instance has ended, levels G and F alone pass. Bits 0 to 3 of
// `config_level` are a level of 0 to 6, which no gate reads; bit 7 means that it writes no files. `role`
// is a QN_LOG_ROLE_*. `append` not 0 continues the files of an earlier run, 0 empties them;
// backups stay. The caller ends it with qn_log_free(). Returns null for a level above 6, when memory is
// short and when a file cannot be opened (printed on standard error).
QN_API qn_log_t* qn_log_local_new(uint32_t config_level, uint32_t role, uint32_t append);

// Closes the files of an instance and releases it; no other thread may use it by then. Null is ignored.
QN_API void qn_log_free(qn_log_t* log);

// Returns null: no log client exists.
QN_API void* qn_log_client_new(void);

// Makes the process's instance, as qn_log_local_new(), and loads who may log what from
// /etc/quillnet/quillnet.conf or, if that cannot be read, from default tables. When there is an instance
// it stays, with its role, and only the permissions are loaded anew. To be called while no other thread
// logs. Returns 0, also when memory for the permissions was short: levels G and F alone pass then. -1 if
// no instance could be made.
QN_API int32_t qn_log_new_singleton_instance(uint32_t config_level, uint32_t role, uint32_t append);

// Ends the process's instance: records go to standard error again, ungated. To be called while no other
// thread logs. Without an instance it does nothing.
QN_API void qn_log_free_singleton_instance(void);

// Permissions. A record of level E, W, I or D passes if its logid or biz_name is switched on for the
// role, or if its level is not beyond the role's level.
//
// Without a configuration file hubd, leafd, admd and qntty have level I, and arcd has W; these five have
// their console switch on and trace off. Every other role, one that is not of the family and so is logged
// as nil among them, has level W, and console and trace off. A file that can be read replaces all of
// this: a role that it has no level for gets that of log.default.level, and without that passes none of E
// to D; a switch that it does not name is off.

#define QN_LOG_PERMIT_LEVEL 1u   // store `level`
#define QN_LOG_PERMIT_BIZ 2u     // switch `biz_name` as `permit` says
#define QN_LOG_PERMIT_LOGID 4u   // switch `logid` as `permit` says
#define QN_LOG_PERMIT_CONSOLE 8u // switch records on standard error as `console_permit` says
#define QN_LOG_PERMIT_TRACE 16u  // switch trace records as `trace_permit` says

// A change of permissions. The texts of the chosen steps are NUL-terminated; the others are not read.
typedef struct qn_log_permit_config {
  // A role's name of at most 7 bytes, so not lib_call or nw_lib_call; or "default", whose level counts
  // for roles without one of their own. Other steps for "default" return 0 and have no effect.
  char role[8];
  // The first letter counts: "G", "E", "W", "I", "D" or "F". Any other is taken and lets none of E to D
  // pass.
  char level[8];
  char permit[8]; // "on" or "off"
  int32_t logid;  // switched as a whole: logid 0 stands for every call site without a number
  char biz_name[64];
  char console_permit[5]; // "on" or "off"
  char trace_permit[5];   // "on" or "off"
  uint8_t reset;          // not 0: forget all changes and load the permissions anew; all else is ignored
  uint32_t mask;          // sum of QN_LOG_PERMIT_* values
} qn_log_permit_config_t;

// Changes permissions of the running process; each change holds from the next record on. Steps run in the
// order of the mask's values, and a failed one does not stop later ones. Any thread may call it.
// Two threads' changes of several steps each may mix step by step.
// Each step prints a line on standard error, whatever the gates; a switch that is neither "on" nor "off"
// and a key that is too long print one more. Returns 0; -1 when a step failed ("config failed." is
// logged): such a switch, such a key, a text without its terminator, a null `config`, no permissions
// loaded; or when a reset could not make its maps. To switch off a logid or biz_name that is not on is a
// failure too, and changes nothing: whoever only wants it off need not mind the -1.
QN_API int32_t qn_log_set_log_permit_config(const qn_log_permit_config_t* config);

QN_END_DECLS

#endif // QUILLCORE_LOG_H
