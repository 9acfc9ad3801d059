// The supervised child of hubd: it reads the counters of every interface once a second, works out what
// went through in that second, and beats its heart.
//
// Parent and child share one mapping for the results; the pipes of the child carry nothing but words. The
// child ends on the stop word, on SIGTERM, and by itself when its parent is gone.
//
// Threads: every function may be called from any thread; a lock keeps them apart.
#ifndef SAMPLER_H
#define SAMPLER_H

#include <stdint.h>

#include "hub_protocol.h"

typedef struct hub_rates {
  uint64_t rx_bytes_per_s;
  uint64_t tx_bytes_per_s;
} hub_rates_t;

// Makes the mapping and starts the child. Returns 0; -1 when either failed (logged).
int hub_sampler_start(void);

// Looks after the child; to be called about once a second. A child that has ended is started anew, and
// one whose heart has stopped is ended by force first. A child that was stopped on request stays stopped.
void hub_sampler_watch(void);

// Ends the child, first by the stop word and, if it is still there two seconds later, by force. Returns
// with the child reaped.
void hub_sampler_stop(void);

// Finds what the last sample says of an interface. Returns 0; -1 when it says nothing.
int hub_sampler_rates(const char* intf_name, hub_rates_t* rates);

// A qn_msg_handler_t for HUB_MSG_CHILD.
int32_t handle_child(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);

#endif // SAMPLER_H
