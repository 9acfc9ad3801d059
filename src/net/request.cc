// One ioctl() about one interface.
#include "net/request.h"

#include <sys/socket.h>

#include <cstdio>

#include "platform/bounded_string.h"

namespace qn {

bool IntfRequest::set_name(const char* intf_name) {
  return strncpy_s(ifr_name, sizeof(ifr_name), intf_name, sizeof(ifr_name) - 1) == 0;
}

UniqueFd make_request_socket() { return UniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); }

void print_null_pointer(const char* function, int number) {
  printf("%s(%d)] NULLPTR Error !!!\r\n", function, number);
}

} // namespace qn
