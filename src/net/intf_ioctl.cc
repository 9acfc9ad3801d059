// Questions that the kernel answers by ioctl().
#include <quillcore/interface.h>

#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <linux/ethtool.h>

#include "net/null_pointer.h"
#include "platform/interface_request.h"

namespace {

using qn::IntfRequest;
using qn::UniqueFd;

// The C libraries differ in the type of an ioctl's number.
template <typename Number>
Number number_type(int (*)(int, Number, ...));
using IoctlNumber = decltype(number_type(&ioctl));

// Fills in the request and asks; false for every failure, without a word.
bool ask(const char* intf_name, IoctlNumber what, IntfRequest* request) {
  const UniqueFd fd = qn::make_request_socket();
  return fd.valid() && request->set_name(intf_name) && ioctl(fd.get(), what, request) == 0;
}

bool driver_is(const char* intf_name, const char* driver) {
  const UniqueFd fd = qn::make_request_socket();
  if (!fd.valid()) {
    printf("Failed to create socket, errno=%d\n", errno);
    return false;
  }
  struct ethtool_drvinfo info = {};
  info.cmd = ETHTOOL_GDRVINFO;
  IntfRequest request;
  if (!request.set_name(intf_name)) return false;
  request.ifr_data = reinterpret_cast<char*>(&info);
  if (ioctl(fd.get(), SIOCETHTOOL, static_cast<ifreq*>(&request)) != 0) return false;
  return strncmp(info.driver, driver, sizeof(info.driver)) == 0;
}

} // namespace

uint32_t QnIntfIsExist(const char* intf_name) {
  if (intf_name == nullptr) {
    qn::print_null_pointer("QnIntfIsExist", 155);
    return 0;
  }
  IntfRequest request;
  return ask(intf_name, SIOCGIFINDEX, &request) ? 1 : 0;
}

uint32_t QnIntfIsUp(const char* intf_name) {
  if (intf_name == nullptr) {
    qn::print_null_pointer("QnIntfIsUp", 637);
    return 0;
  }
  IntfRequest request;
  return ask(intf_name, SIOCGIFFLAGS, &request) && (request.ifr_flags & IFF_UP) != 0 ? 1 : 0;
}

int32_t QnIntfNameToIndex(const char* intf_name) {
  if (intf_name == nullptr) {
    qn::print_null_pointer("QnIntfNameToIndex", 329);
    return 0;
  }
  IntfRequest request;
  return ask(intf_name, SIOCGIFINDEX, &request) ? request.ifr_ifindex : 0;
}

uint32_t QnIntfIsVEthDev(const char* intf_name) {
  if (intf_name == nullptr) {
    qn::print_null_pointer("QnIntfIsVEthDev", 455);
    return 0;
  }
  return driver_is(intf_name, "veth") ? 1 : 0;
}

uint32_t QnIntfIsBridgeDev(const char* intf_name) {
  if (intf_name == nullptr) {
    qn::print_null_pointer("QnIntfIsBridgeDev", 494);
    return 0;
  }
  return driver_is(intf_name, "bridge") ? 1 : 0;
}
