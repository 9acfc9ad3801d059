// What several handlers of hubd need to look at a request and to refuse it.
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "hubd.h"

void hub_split(const qn_msg_req_t* req, hub_words_t* words) {
  memcpy(words->bytes, req->body, req->body_len); // there is room: the header came with it
  words->bytes[req->body_len] = '\0';
  words->len = req->body_len;
  words->count = 0;
  char* end = words->bytes + req->body_len;
  for (char* at = words->bytes; at <= end; at += strlen(at) + 1) {
    if (words->count < HUB_WORDS_MAX) words->word[words->count] = (qn_str_t){(uint32_t)strlen(at), at};
    words->count++;
  }
  for (uint32_t i = words->count; i < HUB_WORDS_MAX; i++) words->word[i] = (qn_str_t){0, end};
}

int hub_copy_word(const qn_str_t* word, char* field, uint32_t size) {
  if (word->len >= size) return -1;
  memcpy(field, word->data, word->len + 1);
  return 0;
}

// The kernel tells who connected; nothing that a client writes can change it.
int32_t hub_refuse_others(const qn_msg_req_t* req, const char* what, void** rsp_body, uint32_t* rsp_len) {
  struct ucred peer = {.uid = (uid_t)-1};
  socklen_t len = sizeof(peer);
  if (getsockopt(req->fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0 &&
      (peer.uid == 0 || peer.uid == geteuid())) {
    return 0;
  }
  HUB_LOG(QN_LOG_W, 9003, "hubd_user", "user %u may not %s.", (unsigned)peer.uid, what);
  return HUB_REFUSE(HUB_ERR_NOT_ALLOWED, "user %u may not %s", (unsigned)peer.uid, what);
}
