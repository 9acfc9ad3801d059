// Switches of the log for a running daemon: who asks, what is asked, then the change and its memory.
#include "log_switches.h"

#include <pthread.h>
#include <quillcore/memory.h>
#include <quillcore/service.h>
#include <quillcore/utility.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

// The sizes are those of qn_log_permit_config_t, so that what fits here fits there.
typedef struct log_switch {
  uint8_t step;  // QN_LOG_PERMIT_*
  char role[8];  // "default" for the level of all others
  char name[64]; // of a logid, in digits, or of a biz_name; empty for the other steps
  char value[8]; // "on", "off" or a level
} log_switch_t;

// Handlers of different services run at once; the lock makes a change and its memory one step.
static struct {
  pthread_mutex_t lock;
  log_switch_t rows[LOG_SWITCHES_MAX];
  uint32_t count;
} set = {.lock = PTHREAD_MUTEX_INITIALIZER};

static int32_t refuse(uint32_t code, const char* why, void** rsp_body, uint32_t* rsp_len) {
  qn_service_make_error_msg(code, rsp_body, rsp_len, "%s", why);
  return -1;
}

// The kernel tells who connected; nothing that a client writes can change it.
static int is_trusted(int32_t fd) {
  struct ucred peer = {.uid = (uid_t)-1};
  socklen_t len = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0 &&
      (peer.uid == 0 || peer.uid == geteuid())) {
    return 1;
  }
  qn_log_core_adpater(QN_LOG_W, 0, "log_switches", 1, 1, "log_switches_user",
                      "user %u may not look at the log's switches.", (unsigned)peer.uid);
  return 0;
}

// Takes one text, a byte with its length and the bytes, and terminates the copy.
static int take_text(const uint8_t** at, uint32_t* left, char* out, size_t size) {
  if (*left < 1) return -1;
  const uint32_t len = (*at)[0];
  if (len >= size || len > *left - 1 || memchr(*at + 1, '\0', len) != NULL) return -1;
  memcpy(out, *at + 1, len);
  out[len] = '\0';
  *at += 1 + len;
  *left -= 1 + len;
  return 0;
}

static int parse(const qn_msg_req_t* req, log_switch_t* out) {
  const uint8_t* at = req->body + 1;
  uint32_t left = req->body_len - 1;
  memset(out, 0, sizeof(*out));
  out->step = req->body[0];
  if (take_text(&at, &left, out->role, sizeof(out->role)) != 0 ||
      take_text(&at, &left, out->name, sizeof(out->name)) != 0 ||
      take_text(&at, &left, out->value, sizeof(out->value)) != 0 || left != 0) {
    return -1;
  }
  const int is_named = out->step == QN_LOG_PERMIT_LOGID || out->step == QN_LOG_PERMIT_BIZ;
  return is_named == (out->name[0] != '\0') ? 0 : -1;
}

static int same_switch(const log_switch_t* left, const log_switch_t* right) {
  return left->step == right->step && strcmp(left->role, right->role) == 0 &&
         strcmp(left->name, right->name) == 0;
}

static log_switch_t* find(const log_switch_t* wanted) {
  for (uint32_t i = 0; i < set.count; i++) {
    if (same_switch(&set.rows[i], wanted)) return &set.rows[i];
  }
  return NULL;
}

static int32_t change(const log_switch_t* it) {
  qn_log_permit_config_t config = {.mask = it->step};
  // Four bytes are enough to tell "on" and "off" from all others.
  memcpy(config.console_permit, it->value, sizeof(config.console_permit) - 1);
  memcpy(config.trace_permit, it->value, sizeof(config.trace_permit) - 1);
  memcpy(config.role, it->role, sizeof(config.role));
  memcpy(config.level, it->value, sizeof(config.level));
  memcpy(config.permit, it->value, sizeof(config.permit));
  memcpy(config.biz_name, it->name, sizeof(config.biz_name));
  config.logid = qn_str2num(it->name, 10);
  return qn_log_set_log_permit_config(&config);
}

// A single switch that is off is as it was at the start: it is forgotten.
static void remember(const log_switch_t* it, log_switch_t* known) {
  const int is_single = it->step == QN_LOG_PERMIT_LOGID || it->step == QN_LOG_PERMIT_BIZ;
  if (!is_single || strcmp(it->value, "on") == 0) {
    *(known != NULL ? known : &set.rows[set.count++]) = *it;
  } else if (known != NULL) {
    *known = set.rows[--set.count];
  }
}

static int32_t handle_set(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  log_switch_t it;
  if (parse(req, &it) != 0) return refuse(LOG_SWITCHES_MALFORMED, "malformed body", rsp_body, rsp_len);
  log_switch_t* known = find(&it);
  if (known == NULL && set.count == LOG_SWITCHES_MAX)
    return refuse(LOG_SWITCHES_FULL, "too many switches are set: reset first", rsp_body, rsp_len);
  if (change(&it) != 0)
    return refuse(LOG_SWITCHES_NOT_TAKEN, "the log did not take the change", rsp_body, rsp_len);
  remember(&it, known);
  return 0;
}

static int32_t handle_reset(void** rsp_body, uint32_t* rsp_len) {
  const qn_log_permit_config_t config = {.reset = 1};
  set.count = 0; // the maps are gone even when new ones could not be made
  if (qn_log_set_log_permit_config(&config) == 0) return 0;
  return refuse(LOG_SWITCHES_NOT_TAKEN, "no memory for the permissions", rsp_body, rsp_len);
}

static uint8_t* put_text(uint8_t* at, const char* text) {
  const size_t len = strlen(text);
  *at = (uint8_t)len;
  memcpy(at + 1, text, len);
  return at + 1 + len;
}

static int32_t handle_get(void** rsp_body, uint32_t* rsp_len) {
  uint8_t* body = qn_alloc(LOG_SWITCHES_MAX * sizeof(log_switch_t)); // a text's length for its terminator
  if (body == NULL) return -1;
  uint8_t* at = body;
  for (uint32_t i = 0; i < set.count; i++) {
    const log_switch_t* it = &set.rows[i];
    *at++ = it->step;
    at = put_text(put_text(put_text(at, it->role), it->name), it->value);
  }
  *rsp_len = (uint32_t)(at - body);
  if (*rsp_len == 0) {
    qn_free(body); // a block of length 0 would be nobody's
    return 0;
  }
  *rsp_body = body;
  return 0;
}

static int is_set(uint8_t step) {
  return step == QN_LOG_PERMIT_LEVEL || step == QN_LOG_PERMIT_BIZ || step == QN_LOG_PERMIT_LOGID ||
         step == QN_LOG_PERMIT_CONSOLE || step == QN_LOG_PERMIT_TRACE;
}

int32_t log_switches_handle(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  if (!is_trusted(req->fd)) return refuse(LOG_SWITCHES_NOT_ALLOWED, "not allowed", rsp_body, rsp_len);
  const uint8_t step = req->body_len > 0 ? req->body[0] : LOG_SWITCHES_GET;
  int32_t result;
  pthread_mutex_lock(&set.lock);
  if (req->body_len > 0 && is_set(step)) {
    result = handle_set(req, rsp_body, rsp_len);
  } else if (req->body_len == 1 && step == LOG_SWITCHES_RESET) {
    result = handle_reset(rsp_body, rsp_len);
  } else if (req->body_len == 1 && step == LOG_SWITCHES_GET) {
    result = handle_get(rsp_body, rsp_len);
  } else {
    result = refuse(LOG_SWITCHES_MALFORMED, "malformed body", rsp_body, rsp_len);
  }
  pthread_mutex_unlock(&set.lock);
  return result;
}
