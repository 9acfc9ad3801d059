// What hubd and its clients say to each other: operations, senders, bodies and error codes.
//
// Every message has the header of quillcore/service.h. The body depends on msg_type:
//
//   msg_type          body of the request    body of the answer     msg_src that may send it
//   HUB_MSG_PUT       key, value             empty                  CONFIG
//   HUB_MSG_GET       key                    the value's bytes      CONFIG, MONITOR
//   HUB_MSG_DELETE    key                    empty                  CONFIG
//   HUB_MSG_COUNT     empty                  uint32_t, new number   CONFIG
//   HUB_MSG_LOG       step, three texts      empty                  CONFIG, and only root or hubd's user
//
// A key is one byte with its length, 1 to QN_KVS_KEY_MAX, and that many bytes without a NUL. A value is
// what is left of the body; it may hold any bytes. Numbers are in the host's byte order: a local socket
// never leaves the machine.
//
// HUB_MSG_LOG changes what hubd logs. Its step is one byte: a QN_LOG_PERMIT_* value of quillcore/log.h,
// or HUB_LOG_RESET. The texts are each one byte with a length and that many bytes: a role, what is
// switched (a biz_name, or the digits of a logid; empty for other steps), and a level's letter, "on" or
// "off". A reset looks at none of them.
//
// msg_err of the answer tells how it went:
//
//   QN_MSG_ERR_OK               done; the body is as above
//   QN_MSG_ERR_NO_HANDLER       unknown msg_type, or a msg_src that may not send it; no body
//   QN_MSG_ERR_HANDLER_FAILED   refused; the body is a HUB_ERR_* code (uint32_t) and a text with its NUL,
//                               as qn_service_make_error_msg() makes it; empty when memory is short
//
// A request whose header is wrong gets no answer at all.
#ifndef HUB_PROTOCOL_H
#define HUB_PROTOCOL_H

#include <quillcore/service.h>
#include <quillcore/store.h>

// Operations, msg_type of the header.
#define HUB_MSG_PUT 1
#define HUB_MSG_GET 2
#define HUB_MSG_DELETE 3
#define HUB_MSG_COUNT 4
#define HUB_MSG_LOG 5

#define HUB_LOG_RESET 0xFF // step of HUB_MSG_LOG

// Senders, msg_src of the header. Each is one bit, so that a row of the handler table can serve several.
#define HUB_SRC_CONFIG 0x0001  // may read and write
#define HUB_SRC_MONITOR 0x0002 // may only read

// Error codes.
#define HUB_ERR_MALFORMED 1   // the body is not as described above
#define HUB_ERR_UNKNOWN_KEY 2 // no such key
#define HUB_ERR_NO_VALUE 3    // the key is there and its value is empty (or memory is short)
#define HUB_ERR_TOO_LONG 4    // the value is longer than QN_KVS_VALUE_MAX; nothing was changed
#define HUB_ERR_CLASS_FULL 5  // no room for a value of this length; nothing was changed
#define HUB_ERR_DAMAGED 6     // the stored counter is no number, or at its end
#define HUB_ERR_CLOSING 7     // the daemon is shutting down
#define HUB_ERR_NOT_ALLOWED 8 // the sender's user may not do this
#define HUB_ERR_LOG_CHANGE 9  // the log did not take the change; hubd's log says why

// The largest body of a request. It is more than the longest put needs, so that a value that is too long
// for the store still reaches the handler and is refused with a reason.
#define HUB_BODY_MAX (QN_MSG_SIZE_MAX - sizeof(qn_msg_hdr_t))

#endif // HUB_PROTOCOL_H
