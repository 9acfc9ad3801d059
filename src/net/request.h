// One ioctl() about one interface, on a socket of its own.
#ifndef QN_NET_REQUEST_H
#define QN_NET_REQUEST_H

// The C library's header comes before the kernel's.
#include <net/if.h>

#include <linux/sockios.h>

#include "platform/guards.h"

namespace qn {

// A zeroed request that carries the name, cut to 15 bytes.
struct IntfRequest : ifreq {
  IntfRequest() : ifreq() {}
  bool set_name(const char* intf_name);
};

// A socket that any of these ioctls works on.
UniqueFd make_request_socket();

// The line for a null name or buffer. `number` is that of the call site.
void print_null_pointer(const char* function, int number);

} // namespace qn

#endif // QN_NET_REQUEST_H
