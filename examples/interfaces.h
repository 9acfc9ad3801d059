// The interfaces of the machine, kept in a table by name and told on request.
#ifndef INTERFACES_H
#define INTERFACES_H

#include <stdint.h>

#include "hub_protocol.h"

// Makes the empty table. Returns 0, or -1 without memory.
int hub_interfaces_init(void);

// A qn_msg_handler_t for HUB_MSG_INTERFACES. The table is brought up to date by each request that asks
// from the beginning. Runs on the service's thread alone, as all handlers do, and needs no lock.
int32_t handle_interfaces(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);

// A qn_msg_handler_t for HUB_MSG_PAIR. Only root and hubd's own user may.
int32_t handle_pair(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);

#endif // INTERFACES_H
