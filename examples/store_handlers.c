// The handlers of hubd's store.
//
// A handler returns 0 and leaves its answer in *rsp_body and *rsp_len, or it leaves an error body there
// and returns -1. Either way the library sends the body and releases it.
#include <errno.h>
#include <string.h>

#include "hubd.h"

typedef int32_t operation_t(kvstore_t* store, const hub_words_t* words, void** rsp_body,
                            uint32_t* rsp_len);

// The value is all behind the key, NULs included. A change that the store took leaves errno 0 when it is
// on disk, too, else the reason.
static int32_t do_put(kvstore_t* store, const hub_words_t* words, void** rsp_body, uint32_t* rsp_len) {
  const qn_str_t* key = &words->word[0];
  const uint32_t value_len = words->len - key->len - 1;
  if (qn_kvs_put(store, key, words->word[1].data, (uint16_t)value_len) != 0) {
    return HUB_REFUSE(HUB_ERR_NO_ROOM, "no room for a value of %u bytes", value_len);
  }
  return errno == 0 ? 0 : HUB_REFUSE(HUB_ERR_NOT_ON_DISK, "not on disk: %s", strerror(errno));
}

// A get gives -1 for an absent key and for an empty value alike, but touches the out arguments only in
// the second case, so a pointer of our own in there tells the two apart.
static int32_t do_get(kvstore_t* store, const hub_words_t* words, void** rsp_body, uint32_t* rsp_len) {
  static char untouched;
  const qn_str_t* key = &words->word[0];
  void* value = &untouched;
  uint16_t value_len = 0;
  if (qn_kvs_get(store, key, &value, &value_len) == 0) {
    *rsp_body = value; // the store's block is the answer's block
    *rsp_len = value_len;
    return 0;
  }
  if (value == &untouched) return HUB_REFUSE(HUB_ERR_UNKNOWN_KEY, "%s: unknown key", key->data);
  return HUB_REFUSE(HUB_ERR_NO_VALUE, "%s: the value is empty", key->data);
}

static int32_t do_delete(kvstore_t* store, const hub_words_t* words, void** rsp_body, uint32_t* rsp_len) {
  const qn_str_t* key = &words->word[0];
  if (qn_kvs_delete(store, key) != 0)
    return HUB_REFUSE(HUB_ERR_UNKNOWN_KEY, "%s: unknown key", key->data);
  return errno == 0 ? 0 : HUB_REFUSE(HUB_ERR_NOT_ON_DISK, "not on disk: %s", strerror(errno));
}

// The road of every handler: never trust what came over the socket, then work under the lock.
static int32_t run(operation_t* operation, int takes_value, const qn_msg_req_t* req, void** rsp_body,
                   uint32_t* rsp_len) {
  hub_words_t words;
  hub_split(req, &words);
  const uint32_t key_len = words.word[0].len;
  const int fits = takes_value ? words.count >= 2 : words.count == 1;
  if (!fits || key_len < 1 || key_len > QN_KVS_KEY_MAX) {
    return HUB_REFUSE(HUB_ERR_MALFORMED, "malformed body of %u bytes", req->body_len);
  }

  hub_store_t* hub = req->ctx;
  pthread_mutex_lock(&hub->lock);
  const int32_t result = hub->store != NULL ? operation(hub->store, &words, rsp_body, rsp_len)
                                            : HUB_REFUSE(HUB_ERR_CLOSING, "hubd is shutting down");
  // One record for each request, and one that is there for whoever switches it on.
  hub->served++;
  HUB_LOG(QN_LOG_I, 9001, "hubd_request", "request %u served, result=%d.", hub->served, result);
  HUB_LOG(QN_LOG_D, 9002, "hubd_request", "request %u came from fd=%d, id=%u.", hub->served, req->fd,
          req->msg_id);
  pthread_mutex_unlock(&hub->lock);
  return result;
}

int32_t handle_put(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return run(do_put, 1, req, rsp_body, rsp_len);
}

int32_t handle_get(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return run(do_get, 0, req, rsp_body, rsp_len);
}

int32_t handle_delete(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return run(do_delete, 0, req, rsp_body, rsp_len);
}

int hub_store_put_event(hub_store_t* hub, const char* text) {
  static const qn_str_t key = {9, "mesh.last"};
  int result = -1;
  pthread_mutex_lock(&hub->lock);
  if (hub->store != NULL && qn_kvs_put_fmt(hub->store, &key, "%s", text) == 0 && errno == 0) result = 0;
  pthread_mutex_unlock(&hub->lock);
  return result;
}

void hub_store_close(hub_store_t* hub) {
  pthread_mutex_lock(&hub->lock);
  qn_kvs_close(hub->store);
  hub->store = NULL;
  pthread_mutex_unlock(&hub->lock);
}
