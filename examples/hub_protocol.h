// What hubd and its clients say to each other: operations, senders, bodies and error codes.
//
// Every message has the header of quillcore/service.h. The body depends on msg_type:
//
//   msg_type            body of the request   body of the answer    msg_src that may send it
//   HUB_MSG_PUT         key, value            empty                 CONFIG
//   HUB_MSG_GET         key                   the value's bytes     CONFIG, MONITOR
//   HUB_MSG_DELETE      key                   empty                 CONFIG
//   HUB_MSG_COUNT       empty                 uint32_t, new number  CONFIG
//   HUB_MSG_LOG         step, three texts     empty                 CONFIG, and only root or hubd's user
//   HUB_MSG_INTERFACES  uint32_t, first row   hub_intf_t rows       CONFIG, MONITOR
//   HUB_MSG_CHILD       step                  hub_child_t           CONFIG
//   HUB_MSG_PAIR        three texts           empty                 CONFIG, and only root or hubd's user
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
// HUB_MSG_INTERFACES answers with at most HUB_INTF_ROWS_MAX rows, in the order of the kernel's indices,
// and with none behind the last: a client asks from 0 on until nothing comes. HUB_MSG_CHILD works on the
// child of hubd that samples the counters; its step is one byte, HUB_CHILD_*. HUB_MSG_PAIR makes a pair
// of virtual interfaces and puts the first on a bridge; its texts are the two names and the bridge's.
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

#include <quillcore/interface.h>
#include <quillcore/service.h>
#include <quillcore/store.h>

// Operations, msg_type of the header.
#define HUB_MSG_PUT 1
#define HUB_MSG_GET 2
#define HUB_MSG_DELETE 3
#define HUB_MSG_COUNT 4
#define HUB_MSG_LOG 5
#define HUB_MSG_INTERFACES 6
#define HUB_MSG_CHILD 7
#define HUB_MSG_PAIR 8

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
#define HUB_ERR_INTERFACES 10 // the interfaces could not be listed
#define HUB_ERR_CHILD 11      // the child could not be started
#define HUB_ERR_PAIR 12       // the pair could not be made, or not be put on the bridge

// The largest body of a request. It is more than the longest put needs, so that a value that is too long
// for the store still reaches the handler and is refused with a reason.
#define HUB_BODY_MAX (QN_MSG_SIZE_MAX - sizeof(qn_msg_hdr_t))

// One interface.
#define HUB_INTF_NAME_SIZE 16
#define HUB_INTF_OTHER 0
#define HUB_INTF_BRIDGE 1
#define HUB_INTF_VETH 2

typedef struct hub_intf {
  qn_intf_eth_metric_t metric;
  uint64_t rx_bytes_per_s; // of the last sample, where `sampled` is 1
  uint64_t tx_bytes_per_s;
  int32_t index;
  int32_t speed_mbit; // -1 where the kernel knows none
  int32_t port_no;    // on `bridge`, from 1 on
  uint8_t up;         // 1 or 0
  uint8_t oper;       // QN_INTF_OPER_*
  uint8_t power;      // QN_INTF_POWER_*
  uint8_t kind;       // HUB_INTF_*
  uint8_t mac[6];
  uint8_t sampled; // 1 or 0
  uint8_t unused;
  char name[HUB_INTF_NAME_SIZE];
  char bridge[HUB_INTF_NAME_SIZE]; // empty for none
} hub_intf_t;

#define HUB_INTF_ROWS_MAX (HUB_BODY_MAX / sizeof(hub_intf_t))

// The child that samples the counters.
#define HUB_CHILD_STATUS 0
#define HUB_CHILD_STOP 1 // and hubd leaves it stopped
#define HUB_CHILD_START 2
#define HUB_CHILD_RESTART 3

#define HUB_ENDED_BY_WORD 1   // it was asked to, and did
#define HUB_ENDED_BY_FORCE 2  // it was asked to, and did not
#define HUB_ENDED_BY_ITSELF 3 // nobody asked

typedef struct hub_child {
  int32_t pid;         // 0 when there is none
  uint32_t starts;     // since hubd came up
  uint32_t beats;      // of its heart since it was started
  int32_t wait_status; // of the last one that ended, as waitpid() gives it
  uint8_t ended_by;    // HUB_ENDED_BY_*, 0 when none has ended
  uint8_t unused[3];
} hub_child_t;

#endif // HUB_PROTOCOL_H
