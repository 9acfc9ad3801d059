// The handlers of hubd: each request is checked, then done as one step under the lock.
//
// A handler returns 0 and leaves its answer in *rsp_body and *rsp_len, or it leaves an error body there
// and returns -1. Either way the library sends the body and releases it.
#include "store_handlers.h"

#include <quillcore/log.h>
#include <quillcore/memory.h>
#include <quillcore/service.h>
#include <quillcore/thread.h>
#include <quillcore/utility.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "hub_protocol.h"
#include "interfaces.h"
#include "log_handler.h"
#include "request.h"
#include "sampler.h"

// The counter is a key of the store like any other, so that it survives restarts.
static char counter_name[] = "hubd.counter";
static const qn_str_t counter_key = {sizeof(counter_name) - 1, counter_name};

// The body of a request that names a key.
typedef struct keyed_body {
  char name[QN_KVS_KEY_MAX + 1]; // a copy: the store wants a terminator behind the key
  qn_str_t key;
  const uint8_t* value; // points into the request
  uint32_t value_len;
} keyed_body_t;

typedef int32_t operation_t(kvstore_t* store, const qn_msg_req_t* req, void** rsp_body,
                            uint32_t* rsp_len);

// Never trust a length that came over a socket: each is compared with what is really there.
static int parse_keyed_body(const qn_msg_req_t* req, keyed_body_t* out) {
  if (req->body_len < 1) return -1;

  const uint32_t len = req->body[0];
  if (len < 1 || len > QN_KVS_KEY_MAX || len > req->body_len - 1) return -1;

  const uint8_t* key = req->body + 1;
  if (memchr(key, '\0', len) != NULL) return -1; // the store would take the key to end there

  memcpy(out->name, key, len);
  out->name[len] = '\0';
  out->key = (qn_str_t){len, out->name};
  out->value = key + len;
  out->value_len = req->body_len - 1 - len;
  return 0;
}

// qn_kvs_get() with a reason. It gives -1 for an absent key and for an empty value alike, but touches the
// out arguments only in the second case, so a pointer of our own in there tells the two apart.
// Returns 0 and a block for the caller, or a HUB_ERR_* code and null.
static uint32_t look_up(kvstore_t* store, const qn_str_t* key, void** value, uint16_t* value_len) {
  static char untouched;

  *value = &untouched;
  if (qn_kvs_get(store, key, value, value_len) == 0) return 0;
  const int absent = *value == &untouched;
  *value = NULL;
  return absent ? HUB_ERR_UNKNOWN_KEY : HUB_ERR_NO_VALUE;
}

static int32_t do_put(kvstore_t* store, const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  keyed_body_t body;
  if (parse_keyed_body(req, &body) != 0) return request_refuse_malformed(req, rsp_body, rsp_len);

  if (body.value_len > QN_KVS_VALUE_MAX) {
    qn_service_make_error_msg(HUB_ERR_TOO_LONG, rsp_body, rsp_len, "a value of %u bytes, at most %d fit",
                              body.value_len, QN_KVS_VALUE_MAX);
    return -1;
  }
  // 0 means that the value is in the store and, unless the disk failed, in its file. A failed write is
  // in the log only; the next change writes the whole file again.
  if (qn_kvs_put(store, &body.key, body.value, (uint16_t)body.value_len) != 0) {
    qn_service_make_error_msg(HUB_ERR_CLASS_FULL, rsp_body, rsp_len, "no room for a value of %u bytes",
                              body.value_len);
    return -1;
  }
  return 0;
}

static int32_t do_get(kvstore_t* store, const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  keyed_body_t body;
  if (parse_keyed_body(req, &body) != 0 || body.value_len != 0) {
    return request_refuse_malformed(req, rsp_body, rsp_len);
  }

  void* value;
  uint16_t value_len = 0;
  const uint32_t failure = look_up(store, &body.key, &value, &value_len);
  if (failure != 0) {
    qn_service_make_error_msg(failure, rsp_body, rsp_len, "%s: %s", body.name,
                              failure == HUB_ERR_UNKNOWN_KEY ? "unknown key" : "the value is empty");
    return -1;
  }
  *rsp_body = value; // the store's block is the answer's block: whoever sends it releases it
  *rsp_len = value_len;
  return 0;
}

static int32_t do_delete(kvstore_t* store, const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  keyed_body_t body;
  if (parse_keyed_body(req, &body) != 0 || body.value_len != 0) {
    return request_refuse_malformed(req, rsp_body, rsp_len);
  }

  if (qn_kvs_delete(store, &body.key) != 0) {
    qn_service_make_error_msg(HUB_ERR_UNKNOWN_KEY, rsp_body, rsp_len, "%s: unknown key", body.name);
    return -1;
  }
  return 0;
}

// Reads the stored counter; 0 if there is none yet. A counter that cannot be read is an error and not a
// reason to begin again from 0.
static int read_counter(kvstore_t* store, int32_t* number) {
  void* value;
  uint16_t value_len = 0;
  const uint32_t failure = look_up(store, &counter_key, &value, &value_len);
  if (failure == HUB_ERR_UNKNOWN_KEY) {
    *number = 0;
    return 0;
  }
  if (failure != 0) return -1;

  char* text = qn_strdup(value, value_len); // a stored value has no terminator
  qn_free(value);
  *number = qn_str2num(text, 10); // 0 also for no text and for no number, and no counter is 0
  qn_free(text);
  return *number > 0 && *number < INT32_MAX ? 0 : -1;
}

static int32_t do_count(kvstore_t* store, const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  if (req->body_len != 0) return request_refuse_malformed(req, rsp_body, rsp_len);

  int32_t number;
  if (read_counter(store, &number) != 0) {
    qn_service_make_error_msg(HUB_ERR_DAMAGED, rsp_body, rsp_len, "%s is no number to count on from",
                              counter_name);
    return -1;
  }
  // Everything that can fail comes before the change: no number is used up without being told.
  uint32_t* answer = qn_alloc(sizeof(*answer));
  if (answer == NULL) return -1;

  if (qn_kvs_put_fmt(store, &counter_key, "%d", number + 1) != 0) {
    qn_free(answer);
    qn_service_make_error_msg(HUB_ERR_CLASS_FULL, rsp_body, rsp_len, "no room for %s", counter_name);
    return -1;
  }
  *answer = (uint32_t)number + 1;
  *rsp_body = answer;
  *rsp_len = sizeof(*answer);
  return 0;
}

// The road of every handler. The store locks each of its calls by itself; this lock makes a read and the
// write that follows one step, and keeps the store open until the step is done.
static int32_t run(operation_t* operation, const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  hub_store_t* hub = req->ctx;
  int32_t result = -1;

  pthread_mutex_lock(&hub->lock);
  if (hub->store != NULL) {
    result = operation(hub->store, req, rsp_body, rsp_len);
  } else {
    qn_service_make_error_msg(HUB_ERR_CLOSING, rsp_body, rsp_len, "the daemon is shutting down");
  }
  hub->served++;
  // One record for each request, and one that is there for whoever switches it on.
  qn_log_core_adpater(QN_LOG_I, 9001, "hubd", 1, 1, "hubd_request", "request %u served, result=%d.",
                      hub->served, result);
  qn_log_core_adpater(QN_LOG_D, 9002, "hubd", 1, 1, "hubd_request", "request %u came from fd=%d, id=%u.",
                      hub->served, req->fd, req->msg_id);
  pthread_mutex_unlock(&hub->lock);
  return result;
}

static int32_t handle_put(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return run(do_put, req, rsp_body, rsp_len);
}

static int32_t handle_get(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return run(do_get, req, rsp_body, rsp_len);
}

static int32_t handle_delete(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return run(do_delete, req, rsp_body, rsp_len);
}

static int32_t handle_count(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return run(do_count, req, rsp_body, rsp_len);
}

void hub_store_init(hub_store_t* hub, kvstore_t* store) {
  qn_pthread_mutex_init(&hub->lock);
  hub->store = store;
  hub->served = 0;
}

void hub_store_close(hub_store_t* hub) {
  pthread_mutex_lock(&hub->lock);
  qn_kvs_close(hub->store);
  hub->store = NULL;
  pthread_mutex_unlock(&hub->lock);
}

int hub_store_put_text(hub_store_t* hub, const char* key, const char* text) {
  char name[QN_KVS_KEY_MAX + 1];
  const size_t len = strlen(key);
  if (len > QN_KVS_KEY_MAX) return -1;
  memcpy(name, key, len + 1);
  const qn_str_t counted = {(uint32_t)len, name};

  int result = -1;
  pthread_mutex_lock(&hub->lock);
  if (hub->store != NULL) result = qn_kvs_put_fmt(hub->store, &counted, "%s", text);
  pthread_mutex_unlock(&hub->lock);
  return result;
}

qn_apis_t* hub_store_apis(qn_pool_t* pool, hub_store_t* hub) {
  // Constant: the same rows could serve a second store. The copy that is made of them carries `hub`.
  static const qn_api_entry_t rows[] = {
      {HUB_SRC_CONFIG, HUB_MSG_PUT, handle_put, NULL},
      {HUB_SRC_CONFIG | HUB_SRC_MONITOR, HUB_MSG_GET, handle_get, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_DELETE, handle_delete, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_COUNT, handle_count, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_LOG, handle_log, NULL},
      {HUB_SRC_CONFIG | HUB_SRC_MONITOR, HUB_MSG_INTERFACES, handle_interfaces, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_CHILD, handle_child, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_PAIR, handle_pair, NULL},
  };
  const uint32_t count = sizeof(rows) / sizeof(rows[0]);

  return qn_apis_new(pool, count, qn_service_inject_instance(pool, rows, count, hub));
}
