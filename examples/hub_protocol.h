// What hubd and its clients say to each other.
//
// Every message has the header of quillcore/service.h. The body of a request is a list of words with a
// NUL between each two, that of an answer is text; the last word of a put, and the answer to a get, are
// the value, byte for byte.
//
//   msg_type            words of the request                 answer      msg_src that may send it
//   HUB_MSG_PUT         key, value                           empty       CONFIG
//   HUB_MSG_GET         key                                  the value   CONFIG, MONITOR
//   HUB_MSG_DELETE      key                                  empty       CONFIG
//   HUB_MSG_INTERFACES  none                                 a table     CONFIG, MONITOR
//   HUB_MSG_PAIR        name, its peer's, the bridge's       empty       CONFIG
//   HUB_MSG_CHILD       status|start|stop                    one line    CONFIG
//   LOG_SWITCHES_TYPE   see log_switches.h                               CONFIG
//
// msg_err of the answer tells how it went:
//
//   QN_MSG_ERR_OK              done; the body is as above
//   QN_MSG_ERR_NO_HANDLER      unknown msg_type, or a msg_src that may not send it; no body
//   QN_MSG_ERR_HANDLER_FAILED  refused; the body is a HUB_ERR_* code (uint32_t) and a text with its NUL,
//   as
//                              qn_service_make_error_msg() makes it; empty when memory is short
//
// A request whose header is wrong gets no answer at all.
#ifndef HUB_PROTOCOL_H
#define HUB_PROTOCOL_H

#include <quillcore/service.h>

#define HUB_MSG_PUT 1
#define HUB_MSG_GET 2
#define HUB_MSG_DELETE 3
#define HUB_MSG_INTERFACES 4
#define HUB_MSG_PAIR 5
#define HUB_MSG_CHILD 6

// Senders. Each is one bit, so that a row of the handler table can serve several.
#define HUB_SRC_CONFIG 0x0001  // may read and write
#define HUB_SRC_MONITOR 0x0002 // may only read

#define HUB_ERR_MALFORMED 1   // the words are not as described above
#define HUB_ERR_UNKNOWN_KEY 2 // no such key
#define HUB_ERR_NO_VALUE 3    // the key is there and its value is empty (or memory is short)
#define HUB_ERR_NO_ROOM 4 // the value is too long, or no place of its size is free; nothing was changed
#define HUB_ERR_NOT_ON_DISK 5 // changed in memory, and lost at a restart unless a later change is written
#define HUB_ERR_CLOSING 6     // the daemon is shutting down
#define HUB_ERR_INTERFACES 7  // the interfaces could not be listed
#define HUB_ERR_PAIR 8        // the pair could not be made, or not be put on the bridge
#define HUB_ERR_CHILD 9       // the child could not be started

// The largest body of a request. It is more than the longest put needs, so that a value that is too long
// for the store still reaches the handler and is refused with a reason.
#define HUB_BODY_MAX (QN_MSG_SIZE_MAX - sizeof(qn_msg_hdr_t))

#endif // HUB_PROTOCOL_H
