// What several handlers of hubd need to look at a request.
#include "request.h"

#include <quillcore/log.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "hub_protocol.h"

int request_is_trusted(const qn_msg_req_t* req, uid_t* uid) {
  struct ucred peer;
  socklen_t len = sizeof(peer);
  *uid = (uid_t)-1;
  if (getsockopt(req->fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0) return 0;
  *uid = peer.uid;
  return peer.uid == 0 || peer.uid == geteuid();
}

int request_take_text(cursor_t* cursor, char* out, size_t size) {
  if (cursor->left < 1) return -1;
  const uint32_t len = cursor->at[0];
  if (len >= size || len > cursor->left - 1 || memchr(cursor->at + 1, '\0', len) != NULL) return -1;
  memcpy(out, cursor->at + 1, len);
  out[len] = '\0';
  cursor->at += 1 + len;
  cursor->left -= 1 + len;
  return 0;
}

int32_t request_refuse_malformed(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  qn_service_make_error_msg(HUB_ERR_MALFORMED, rsp_body, rsp_len, "malformed body of %u bytes",
                            req->body_len);
  return -1;
}

int32_t request_refuse_user(uid_t uid, const char* what, void** rsp_body, uint32_t* rsp_len) {
  qn_log_core_adpater(QN_LOG_W, 9003, "hubd", 1, 1, "hubd_user", "user %u may not %s.", (unsigned)uid,
                      what);
  qn_service_make_error_msg(HUB_ERR_NOT_ALLOWED, rsp_body, rsp_len, "user %u may not %s", (unsigned)uid,
                            what);
  return -1;
}
