// One side of a conversation with hubd: connect, ask, read the answer.
//
// Threads: one thread at a time uses a client.
#ifndef HUB_CLIENT_H
#define HUB_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "hub_protocol.h"

typedef struct hub_client {
  int32_t fd;
  uint16_t source;  // HUB_SRC_*, the sender of all requests
  uint32_t next_id; // each request has a number of its own
} hub_client_t;

// What came back. A body shorter than `body` is followed by a zero byte.
typedef struct hub_answer {
  uint8_t msg_err; // QN_MSG_ERR_*
  uint32_t body_len;
  uint8_t body[QN_MSG_SIZE_MAX];
} hub_answer_t;

// How a request ended.
typedef enum hub_result {
  HUB_DONE,      // answered with QN_MSG_ERR_OK
  HUB_REFUSED,   // answered with another msg_err
  HUB_NO_ANSWER, // nothing that answers this request came in time, or hubd is gone. It may have been
                 // done or not; the connection is of no further use.
} hub_result_t;

// Connects to the hubd at `path`. No send and no wait for an answer takes longer than `timeout_ms`.
// Returns 0 and a client that hub_disconnect() ends; -1 if nobody listens there.
int hub_connect(hub_client_t* client, const char* path, uint16_t source, uint32_t timeout_ms);

void hub_disconnect(hub_client_t* client);

// Asks for `msg_type` with `body_len` bytes of body and waits for the answer, one request at a time.
// `declared_len` goes into msg_len of the header; anything but `body_len` makes the message a wrong one.
hub_result_t hub_exchange(hub_client_t* client, uint8_t msg_type, const void* body, size_t body_len,
                          uint16_t declared_len, hub_answer_t* answer);

// The requests of hub_protocol.h. A key or value that does not fit a message is HUB_NO_ANSWER, unsent.
hub_result_t hub_put(hub_client_t* client, const char* key, const void* value, size_t value_len,
                     hub_answer_t* answer);
hub_result_t hub_get(hub_client_t* client, const char* key, hub_answer_t* answer);
hub_result_t hub_delete(hub_client_t* client, const char* key, hub_answer_t* answer);
hub_result_t hub_count(hub_client_t* client, hub_answer_t* answer);

// A request whose body is a step, if `step` is not null, and `count` texts of at most 255 bytes.
hub_result_t hub_tell(hub_client_t* client, uint8_t msg_type, const uint8_t* step,
                      const char* const* texts, size_t count, hub_answer_t* answer);

// The code of a refusal, 0 if it has none; its text is in `*text`, empty if it has none.
uint32_t hub_error(const hub_answer_t* answer, const char** text);

#endif // HUB_CLIENT_H
