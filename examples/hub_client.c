// A client of hubd over one SOCK_SEQPACKET connection: one send() is one message, one recv() is one.
#include "hub_client.h"

#include <errno.h>
#include <quillcore/socket.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

int hub_connect(hub_client_t* client, const char* path, uint16_t source, uint32_t timeout_ms) {
  int32_t fd;
  if (qn_sock_connect_unix_socket_server(path, &fd) != 0) return -1;

  // Without these a client waits for ever: a request with a wrong header is never answered.
  const uint32_t seconds = timeout_ms / 1000;
  const uint32_t microseconds = timeout_ms % 1000 * 1000;
  if (qn_sock_set_fd_send_timeout(fd, seconds, microseconds) != 0 ||
      qn_sock_set_fd_recv_timeout(fd, seconds, microseconds) != 0) {
    close(fd);
    return -1;
  }
  *client = (hub_client_t){.fd = fd, .source = source, .next_id = 1};
  return 0;
}

void hub_disconnect(hub_client_t* client) {
  close(client->fd);
  client->fd = -1;
}

// Header and body go out in one call, because that makes them one message. MSG_NOSIGNAL: a hubd that is
// gone is an error of this call and not a SIGPIPE.
static int send_message(int fd, const qn_msg_hdr_t* header, const void* body, size_t body_len) {
  uint8_t message[QN_MSG_SIZE_MAX];
  if (body_len > HUB_BODY_MAX) return -1;

  memcpy(message, header, sizeof(*header));
  if (body_len != 0) memcpy(message + sizeof(*header), body, body_len);
  const size_t size = sizeof(*header) + body_len;

  ssize_t sent;
  do {
    sent = send(fd, message, size, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent == (ssize_t)size ? 0 : -1;
}

// recv() and not qn_sock_safe_read(): that one fills the whole buffer, so on a blocking socket it would
// go on waiting for a second message until the time-out.
static int receive_message(int fd, qn_msg_hdr_t* header, hub_answer_t* answer) {
  uint8_t message[QN_MSG_SIZE_MAX];
  ssize_t received;
  do {
    received = recv(fd, message, sizeof(message), 0);
  } while (received < 0 && errno == EINTR);
  if (received < (ssize_t)sizeof(*header)) return -1; // a time-out, the end of the stream or rubbish

  memcpy(header, message, sizeof(*header));
  const size_t body_len = (size_t)received - sizeof(*header);
  if (header->msg_len != body_len) return -1;

  memset(answer, 0, sizeof(*answer));
  memcpy(answer->body, message + sizeof(*header), body_len);
  answer->body_len = (uint32_t)body_len;
  answer->msg_err = header->msg_err;
  return 0;
}

hub_result_t hub_exchange(hub_client_t* client, uint8_t msg_type, const void* body, size_t body_len,
                          uint16_t declared_len, hub_answer_t* answer) {
  const qn_msg_hdr_t request = {
      .msg_type = msg_type,
      .msg_act = QN_MSG_ACT_REQ,
      .msg_src = client->source,
      .msg_len = declared_len,
      .msg_id = client->next_id++,
  };
  if (send_message(client->fd, &request, body, body_len) != 0) return HUB_NO_ANSWER;

  qn_msg_hdr_t response;
  if (receive_message(client->fd, &response, answer) != 0) return HUB_NO_ANSWER;
  // The number ties an answer to its request: one that comes after its time-out is not taken for the
  // answer to the next request.
  if (response.msg_act != QN_MSG_ACT_RSP || response.msg_id != request.msg_id ||
      response.msg_type != request.msg_type || response.msg_src != request.msg_src) {
    return HUB_NO_ANSWER;
  }
  return answer->msg_err == QN_MSG_ERR_OK ? HUB_DONE : HUB_REFUSED;
}

static hub_result_t exchange_keyed(hub_client_t* client, uint8_t msg_type, const char* key,
                                   const void* value, size_t value_len, hub_answer_t* answer) {
  uint8_t body[HUB_BODY_MAX];
  const size_t key_len = strlen(key);
  if (key_len > UINT8_MAX || 1 + key_len + value_len > sizeof(body)) return HUB_NO_ANSWER;

  body[0] = (uint8_t)key_len;
  memcpy(body + 1, key, key_len + 1); // the value goes over the terminator
  if (value_len != 0) memcpy(body + 1 + key_len, value, value_len);
  const size_t body_len = 1 + key_len + value_len;
  return hub_exchange(client, msg_type, body, body_len, (uint16_t)body_len, answer);
}

hub_result_t hub_put(hub_client_t* client, const char* key, const void* value, size_t value_len,
                     hub_answer_t* answer) {
  return exchange_keyed(client, HUB_MSG_PUT, key, value, value_len, answer);
}

hub_result_t hub_get(hub_client_t* client, const char* key, hub_answer_t* answer) {
  return exchange_keyed(client, HUB_MSG_GET, key, NULL, 0, answer);
}

hub_result_t hub_delete(hub_client_t* client, const char* key, hub_answer_t* answer) {
  return exchange_keyed(client, HUB_MSG_DELETE, key, NULL, 0, answer);
}

hub_result_t hub_count(hub_client_t* client, hub_answer_t* answer) {
  return hub_exchange(client, HUB_MSG_COUNT, NULL, 0, 0, answer);
}

hub_result_t hub_tell(hub_client_t* client, uint8_t msg_type, const uint8_t* step,
                      const char* const* texts, size_t count, hub_answer_t* answer) {
  uint8_t body[HUB_BODY_MAX];
  size_t body_len = 0;
  if (step != NULL) body[body_len++] = *step;
  for (size_t i = 0; i < count; i++) {
    const size_t len = strlen(texts[i]);
    if (len > UINT8_MAX || body_len + 1 + len > sizeof(body)) return HUB_NO_ANSWER;
    body[body_len++] = (uint8_t)len;
    memcpy(body + body_len, texts[i], len);
    body_len += len;
  }
  return hub_exchange(client, msg_type, body, body_len, (uint16_t)body_len, answer);
}

uint32_t hub_error(const hub_answer_t* answer, const char** text) {
  uint32_t code = 0;
  *text = "";
  if (answer->msg_err != QN_MSG_ERR_HANDLER_FAILED || answer->body_len <= sizeof(code)) return 0;

  memcpy(&code, answer->body, sizeof(code)); // the body has no alignment
  *text = (const char*)answer->body + sizeof(code);
  return code;
}
