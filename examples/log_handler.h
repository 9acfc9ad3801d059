// The handler of hubd that changes what is logged while it runs.
#ifndef LOG_HANDLER_H
#define LOG_HANDLER_H

#include <quillcore/context.h>

// A qn_msg_handler_t for HUB_MSG_LOG. Only root and hubd's own user may; it needs no instance.
int32_t handle_log(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);

#endif // LOG_HANDLER_H
