// Switches of the log for a running daemon: one row of its handler table, and whoever speaks the
// convention can set, ask and reset what it logs (`quillctl log set`, `get`, `reset`). docs/files.md has
// the bytes.
//
//   static const qn_api_entry_t rows[] = {
//       ... the daemon's own rows ...
//       LOG_SWITCHES_ROW(MY_SOURCES),
//   };
//
// Only root and the user that the daemon runs as may; the kernel tells who connected. What was set
// through it is remembered until a reset, at most LOG_SWITCHES_MAX switches, and told to who asks. It
// needs no instance and no set-up, and any number of services may have the row.
#ifndef LOG_SWITCHES_H
#define LOG_SWITCHES_H

#include <quillcore/context.h>
#include <quillcore/log.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LOG_SWITCHES_TYPE 250 // msg_type
#define LOG_SWITCHES_MAX 32

// First byte of a request: what to do. A QN_LOG_PERMIT_* value sets.
#define LOG_SWITCHES_GET 0
#define LOG_SWITCHES_RESET 255

// Error codes.
#define LOG_SWITCHES_MALFORMED 1   // the body is not as docs/files.md has it
#define LOG_SWITCHES_NOT_ALLOWED 2 // another user's
#define LOG_SWITCHES_NOT_TAKEN 3 // the library refused it: off what was not on, a word that is none, ...
#define LOG_SWITCHES_FULL 4      // no more can be remembered; nothing was changed

// A qn_msg_handler_t.
int32_t log_switches_handle(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);

#define LOG_SWITCHES_ROW(src_mask) \
  { (src_mask), LOG_SWITCHES_TYPE, log_switches_handle, NULL }

#ifdef __cplusplus
}
#endif

#endif // LOG_SWITCHES_H
