// Context: the cycle, which is the root of what lives as long as the process, and the handler tables by
// which a process says which function serves which message.
//
// Threads: a cycle and its pool have no lock; one thread at a time makes cycles, tables and rows.
// qn_apis_get_callback() only reads and may run on many threads while nobody writes to the rows.
#ifndef QUILLCORE_CONTEXT_H
#define QUILLCORE_CONTEXT_H

#include <quillcore/api.h>
#include <quillcore/memory.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_CYCLE_PROCESS_WORDS 74
#define QN_CYCLE_SERVICES 10

typedef struct qn_service qn_service_t; // opaque
typedef struct qn_msg_req qn_msg_req_t; // see service.h

// Serves one request; called on the service's thread. To answer with a body it stores a block from
// qn_alloc() or malloc() in `*rsp_body` and its size in bytes, at most 65535, in `*rsp_len`; both start
// as null and 0. The caller takes the block over and releases it, unless the stored size is 0.
// Returns 0 for success; anything else becomes QN_MSG_ERR_HANDLER_FAILED in the response.
typedef int32_t qn_msg_handler_t(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);

// One row of a handler table.
typedef struct qn_api_entry {
  uint16_t msg_src_mask;     // sources that this row serves, as bits; 0 switches the row off
  uint8_t msg_type;          // the message type that this row serves
  qn_msg_handler_t* handler; // null switches the row off
  void* instance;            // handed to the handler as `ctx`
} qn_api_entry_t;

// A handler table. The rows are borrowed.
typedef struct qn_apis {
  uint16_t count;
  qn_api_entry_t* rows;
} qn_apis_t;

// The process's root object. It lies in its own pool.
typedef struct qn_cycle {
  uint8_t state;                                  // 0
  qn_pool_t* pool;                                // holds the cycle and all that lives as long as it
  uint32_t worker_role;                           // see qn_cycle_set_worker_role()
  uintptr_t process_area[QN_CYCLE_PROCESS_WORDS]; // the process's own, zero at first
  qn_service_t* services[QN_CYCLE_SERVICES];      // by slot; see service.h
} qn_cycle_t;

// Makes a cycle with a pool of 32768-byte blocks. The caller ends it with qn_cycle_free().
// Returns null when memory is short (519 or 521 on the console); nothing is left behind then.
QN_API qn_cycle_t* qn_cycle_new(void);

// Stores a number for the process's own use; the library does not read it. `cycle` must not be null.
QN_API void qn_cycle_set_worker_role(qn_cycle_t* cycle, uint32_t role);

// Releases the cycle's pool with all that was allocated from it, the cycle included. The threads of its
// services must have ended. Null is ignored.
QN_API void qn_cycle_free(qn_cycle_t* cycle);

// Makes a handler table over `count` rows, cut to 16 bits. The rows are not copied and must outlive it.
// Returns null if `pool` or `rows` is null or the pool has no memory.
QN_API qn_apis_t* qn_apis_new(qn_pool_t* pool, uint32_t count, qn_api_entry_t* rows);

// Finds the first row, in table order, that is switched on, serves `msg_type` and shares a bit of its
// mask with `msg_src`.
// Returns the row, borrowed from the table; null when none fits or `apis` is null.
QN_API qn_api_entry_t* qn_apis_get_callback(const qn_apis_t* apis, uint16_t msg_src, uint8_t msg_type);

// Copies `count` rows into `pool` and stores `instance` in each copy, so that one static table can serve
// several instances.
// Returns the copy; null if `pool` or `rows` is null, if the size does not fit 32 bits or if the pool
// has no memory.
QN_API qn_api_entry_t* qn_service_inject_instance(qn_pool_t* pool, const qn_api_entry_t* rows,
                                                  uint32_t count, void* instance);

QN_END_DECLS

#endif // QUILLCORE_CONTEXT_H
