// Services: a request and response server on a local socket, on a thread of its own.
//
// A client connects (socket.h) and writes one message: qn_msg_hdr_t and a body of msg_len bytes, in one
// write(). The service answers each valid request with one message on the same connection. A client
// keeps at most one request outstanding on a connection: two that are queued together are read as one
// and both are dropped. A request that fails a test of its header gets no answer, only a record (575 to
// 577), so a client sets a receive time-out.
//
// The whole of a request is at most 3072 bytes, so its body at most 3061, whatever max_msg_len says.
//
// A client that cannot be accepted because the process is out of descriptors waits in the socket's queue.
// The queue is looked at again when one of the service's connections closes and when the next client
// connects. A service without a connection whose queue is full (`backlog`) sees neither and stays deaf:
// leave room below the limit for as many clients as you expect. One client is accepted as descriptor 0
// and never served by a process that has closed its standard input: step 0 of docs/bring-up.md.
//
// A connection is not for the programs that the process starts, and fork() waits until that is arranged.
// posix_spawn(), and system() and popen() of most C libraries, do not: what they start from another
// thread at the moment of an accept can keep the connection open. A program that lives long is better
// started by fork() and exec, or by qn_proc_child_start().
//
// Threads: a service has one detached thread that runs its handlers one at a time; a handler that
// blocks, blocks its service. Handlers of different services run at once. SIGPIPE should be ignored in
// the process: a response to a client that is gone raises it otherwise.
#ifndef QUILLCORE_SERVICE_H
#define QUILLCORE_SERVICE_H

#include <pthread.h>
#include <quillcore/api.h>
#include <quillcore/context.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_MSG_ACT_REQ 1
#define QN_MSG_ACT_RSP 2

#define QN_MSG_ERR_OK 0
#define QN_MSG_ERR_NO_HANDLER 1     // no row serves this source and type; the body is empty
#define QN_MSG_ERR_HANDLER_FAILED 3 // the handler failed; the body is what it left

#define QN_MSG_SIZE_MAX 3072 // bytes of a request, header included

// Header of every message. Packed; the fields of more than one byte are in the host's byte order.
typedef struct __attribute__((packed)) qn_msg_hdr {
  uint8_t msg_type; // the operation
  uint8_t msg_act;  // QN_MSG_ACT_*
  uint8_t msg_err;  // QN_MSG_ERR_* in a response
  uint16_t msg_src; // the sender, as bits; see msg_src_mask of qn_api_entry_t
  uint16_t msg_len; // bytes of the body
  uint32_t msg_id;  // chosen by the client, copied into the response
} qn_msg_hdr_t;

// What a handler is given; valid during its call only.
struct qn_msg_req {
  int32_t fd;          // the connection; borrowed
  void* ctx;           // `instance` of the handler's row
  uint32_t msg_id;     // from the header
  uint16_t msg_src;    // from the header
  uint8_t msg_act;     // from the header, QN_MSG_ACT_REQ
  const uint8_t* body; // `body_len` bytes without alignment; not terminated when the request is full
  uint32_t body_len;
};

// How a service is set up. Borrowed, with the path, until the service has ended.
typedef struct qn_service_conf {
  const char* server_path; // at most QN_SOCK_PATH_MAX bytes
  int32_t backlog;         // for listen()
  uint32_t max_msg_len;    // largest msg_len that a request may declare
  uint32_t slot;           // index into the cycle's `services`, below QN_CYCLE_SERVICES; not tested
} qn_service_conf_t;

// Starts a service on a new detached thread; `conf` and `apis` are borrowed until it has ended. The
// thread's identity goes to `*thread` unless `thread` is null. One thread at a time starts services of a
// cycle. A second start in a slot takes the slot; the first service goes on, out of reach of a stop.
// Returns 0 when the thread exists, which says nothing about the socket: a failure to bind or listen is
// logged later (540 to 542, then 580 and 584), and so is one to make the loop (581, 582). -1 when the
// thread was not created (logged, 605); -2 for a null cycle or configuration and when the pool has no
// memory. A null `apis` serves nothing.
//
// Whether it serves tells a connection, tried until a deadline:
//
//   for (int tries = 0; tries < 500; tries++, usleep(10000)) {
//     if (qn_file_is_exist(path) && qn_sock_connect_unix_socket_server(path, &fd) == 0) break;
//   }
//
// One attempt does not: a file left by a process that has died refuses until the thread has replaced it,
// and where there is no file a connect takes a whole second.
QN_API int32_t qn_service_start_with_thread(qn_cycle_t* cycle, const qn_service_conf_t* conf,
                                            const qn_apis_t* apis, pthread_t* thread);

// Asks all services of the cycle to end; it neither waits nor wakes them. A sleeping service ends after
// it has served one more connection, request or close, so a caller that needs it gone connects to its
// socket once. A service whose thread has not yet reached its loop is not reached by the stop.
// Its socket file, listening descriptor and open connections stay until the process ends.
// Returns 0; -3 for a null cycle. Any thread may call it.
QN_API int32_t qn_service_stop_with_thread(qn_cycle_t* cycle);

// Makes an error body for a handler's response: `code`, 4 bytes in host byte order, then the formatted
// text of at most 127 bytes and its NUL. The block and its size go to `*rsp_body` and `*rsp_len`.
// No argument may be null. Any thread may call it.
// Returns 0; -1 when the text does not fit (logged, 587); -4 when memory is short (logged, 524). A
// failed call leaves both as they were.
QN_API int32_t qn_service_make_error_msg(uint32_t code, void** rsp_body, uint32_t* rsp_len,
                                         const char* fmt, ...) QN_PRINTF(4, 5);

QN_END_DECLS

#endif // QUILLCORE_SERVICE_H
