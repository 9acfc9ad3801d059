// A running service, and how its parts meet.
#ifndef QN_SERVICE_SERVICE_H
#define QN_SERVICE_SERVICE_H

#include <quillcore/service.h>

#include "service/event_base.h"

struct qn_service {
  qn_cycle_t* cycle;
  const qn_apis_t* apis;
  qn_ev_base_t* base; // null until the thread has made it and after the end
  const qn_service_conf_t* conf;
};

// Callback of a connection's event, with the service as `arg`: reads one request, calls its handler and
// sends the response. Returns 0 when a response was sent; -1 for nothing read, a refused request or a
// failed send; -2 when memory for the response is short.
int32_t qn_service_process_msg(int32_t fd, uint16_t flags, void* arg);

#endif // QN_SERVICE_SERVICE_H
