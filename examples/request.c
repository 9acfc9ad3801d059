// What several handlers of hubd need to look at a request.
#include <string.h>

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
