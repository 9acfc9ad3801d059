// What the parts of hubd share.
#ifndef HUBD_H
#define HUBD_H

#include <pthread.h>
#include <quillcore/quillcore.h>
#include <stdint.h>

#include "hub_protocol.h"

// A record of hubd's own; a logid is one place in the code.
#define HUB_LOG(level, logid, biz_name, ...) QN_LOG_RECORD(level, logid, "hubd", biz_name, __VA_ARGS__)

// --- request.c: what several handlers need.

#define HUB_WORDS_MAX 3

typedef struct hub_words {
  uint32_t count;               // may be more than HUB_WORDS_MAX
  qn_str_t word[HUB_WORDS_MAX]; // the first ones; empty where there are less
  uint32_t len;
  char bytes[QN_MSG_SIZE_MAX]; // the body, which itself has no terminator
} hub_words_t;

// Splits a request's body into its words.
void hub_split(const qn_msg_req_t* req, hub_words_t* words);

// The result of a handler that refuses: leaves `code` and a text of at most 127 bytes as the error body.
#define HUB_REFUSE(code, ...) (qn_service_make_error_msg(code, rsp_body, rsp_len, __VA_ARGS__), -1)

// --- store_handlers.c

// What the handlers of the store work on; each of their rows carries its address. It lives as long as the
// process: the service's thread is detached, so there is no moment at which it is known to be gone.
typedef struct hub_store {
  pthread_mutex_t lock; // covers `store` and lets a close wait for the one who uses it
  kvstore_t* store;     // null once it is closed
  uint32_t served;      // requests so far
} hub_store_t;

qn_msg_handler_t handle_put, handle_get, handle_delete;

// Stores the last event under "mesh.last", from any thread. Returns 0; -1 when it is not on disk.
int hub_store_put_event(hub_store_t* hub, const char* text);

// Waits for the one who uses the store and closes it. Later requests are answered with HUB_ERR_CLOSING.
void hub_store_close(hub_store_t* hub);

// --- interfaces.c

qn_msg_handler_t handle_interfaces, handle_pair;

// --- sampler.c: the supervised child. Any thread may call these.

qn_msg_handler_t handle_child;

enum hub_step {
  HUB_CHILD_STATUS,
  HUB_CHILD_START,
  HUB_CHILD_STOP,  // by the stop word or two seconds later by force; it stays stopped
  HUB_CHILD_WATCH, // once a second: one that has ended, or whose heart has stopped, is started again
};

// Takes a step with the child. Returns 0; -1 when it could not be started (logged).
int hub_child(enum hub_step step);

// --- bus_handlers.c

// Joins the bus at `path`, which stays valid, and keeps the last event of the mesh in the store.
// Returns 0; -1 when the thread could not be started. Whether the bus is there the log alone tells.
int hub_bus_start(const char* path, hub_store_t* hub);

#endif // HUBD_H
