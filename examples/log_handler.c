// The handler of hubd that changes what is logged while it runs: who asks, what is asked, then the
// change.
#include "log_handler.h"

#include <quillcore/log.h>
#include <quillcore/service.h>
#include <quillcore/utility.h>
#include <stddef.h>
#include <string.h>

#include "hub_protocol.h"
#include "request.h"

// The field that the value of each step goes to.
static int put_value(qn_log_permit_config_t* config, const char* value) {
  char* field;
  size_t size;
  switch (config->mask) {
    case QN_LOG_PERMIT_LEVEL:
      field = config->level;
      size = sizeof(config->level);
      break;
    case QN_LOG_PERMIT_CONSOLE:
      field = config->console_permit;
      size = sizeof(config->console_permit);
      break;
    case QN_LOG_PERMIT_TRACE:
      field = config->trace_permit;
      size = sizeof(config->trace_permit);
      break;
    default:
      field = config->permit;
      size = sizeof(config->permit);
      break;
  }
  const size_t len = strlen(value);
  if (len >= size) return -1;
  memcpy(field, value, len + 1);
  return 0;
}

static int is_step(uint8_t step) {
  return step == HUB_LOG_RESET || step == QN_LOG_PERMIT_LEVEL || step == QN_LOG_PERMIT_BIZ ||
         step == QN_LOG_PERMIT_LOGID || step == QN_LOG_PERMIT_CONSOLE || step == QN_LOG_PERMIT_TRACE;
}

static int parse_change(const qn_msg_req_t* req, qn_log_permit_config_t* config) {
  memset(config, 0, sizeof(*config));
  if (req->body_len < 1 || !is_step(req->body[0])) return -1;

  config->mask = req->body[0];
  config->reset = req->body[0] == HUB_LOG_RESET;
  cursor_t cursor = {req->body + 1, req->body_len - 1};
  char value[sizeof(config->level)];
  if (request_take_text(&cursor, config->role, sizeof(config->role)) != 0 ||
      request_take_text(&cursor, config->biz_name, sizeof(config->biz_name)) != 0 ||
      request_take_text(&cursor, value, sizeof(value)) != 0 || cursor.left != 0) {
    return -1;
  }
  if (config->mask == QN_LOG_PERMIT_LOGID) config->logid = qn_str2num(config->biz_name, 10);
  return put_value(config, value);
}

int32_t handle_log(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  uid_t uid;
  if (!request_is_trusted(req, &uid))
    return request_refuse_user(uid, "change the log", rsp_body, rsp_len);

  qn_log_permit_config_t config;
  if (parse_change(req, &config) != 0) return request_refuse_malformed(req, rsp_body, rsp_len);

  if (qn_log_set_log_permit_config(&config) != 0) {
    qn_service_make_error_msg(HUB_ERR_LOG_CHANGE, rsp_body, rsp_len, "the log did not take the change");
    return -1;
  }
  return 0;
}
