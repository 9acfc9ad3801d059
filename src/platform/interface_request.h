// One ioctl() about one interface, on a socket of its own.
#ifndef QN_PLATFORM_INTERFACE_REQUEST_H
#define QN_PLATFORM_INTERFACE_REQUEST_H

// The C library's header comes before the kernel's.
#include <net/if.h>
#include <sys/socket.h>

#include <linux/sockios.h>

#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"

namespace qn {

// A zeroed request that carries the name, cut to 15 bytes.
struct IntfRequest : ifreq {
  IntfRequest() : ifreq() {}
  bool set_name(const char* intf_name) {
    return strncpy_s(ifr_name, sizeof(ifr_name), intf_name, sizeof(ifr_name) - 1) == 0;
  }
};

// A socket that any of these ioctls works on. Above the standard streams: to write a record to a stream
// socket that is not connected would raise SIGPIPE.
inline UniqueFd make_request_socket(int family = AF_INET, int type = SOCK_DGRAM) {
  const StandardStreamsHeld held;
  return UniqueFd(held.above(socket(family, type | SOCK_CLOEXEC, 0)));
}

} // namespace qn

#endif // QN_PLATFORM_INTERFACE_REQUEST_H
