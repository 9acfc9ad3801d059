// The two operations that change interfaces: veth pairs, and ports of a bridge.
#include <quillcore/interface.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/log_record.h"
#include "net/null_pointer.h"
#include "platform/interface_request.h"
#include "platform/past_signals.h"

namespace {

using qn::IntfRequest;
using qn::UniqueFd;

constexpr char kNullName[] = "QnIntfAddIfToBridge";
constexpr int kNullNumber = 531;

// Between fork() and exec the child of a process with threads may do nothing else.
[[noreturn]] void exec_ip(const char* intf_name, const char* peer_name) {
  execlp("ip", "ip", "link", "add", intf_name, "type", "veth", "peer", "name", peer_name, nullptr);
  _exit(-1);
}

// Whether the child ended by itself with status 0.
bool child_succeeded(pid_t child) {
  int status = 0;
  return qn::wait_past_signals(child, &status) && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A failure is told and has no result: the interface exists all the same.
void bring_up(const char* intf_name) {
  const UniqueFd fd = qn::make_request_socket();
  if (!fd.valid()) {
    printf("Failed to create socket, errno=%d\n", errno);
    return;
  }
  IntfRequest request;
  if (!request.set_name(intf_name) || ioctl(fd.get(), SIOCGIFFLAGS, static_cast<ifreq*>(&request)) != 0) {
    printf("Failed to get device %s flags, errno:%d\n", intf_name, errno);
    return;
  }
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  if (ioctl(fd.get(), SIOCSIFFLAGS, static_cast<ifreq*>(&request)) != 0) {
    printf("Failed to set tap device %s flags, errno:%d\n", intf_name, errno);
  }
}

} // namespace

int32_t QnIntfCreateVEthPair(const char* intf_name, const char* peer_name) {
  // A null name would end the command's arguments early and make another pair than the one asked for.
  if (intf_name == nullptr || peer_name == nullptr) return -1;
  const pid_t child = fork();
  if (child < 0) {
    printf("Failed to fork new process, errno=%d\n", errno);
    return -1;
  }
  if (child == 0) exec_ip(intf_name, peer_name);
  if (!child_succeeded(child)) {
    printf("Child process work failed, errno=%d\n", errno);
    return -1;
  }
  bring_up(intf_name);
  bring_up(peer_name);
  return 0;
}

int32_t QnIntfAddIfToBridge(const char* bridge_name, const char* intf_name) {
  if (bridge_name == nullptr) {
    qn::print_null_pointer(kNullName, kNullNumber);
    return -1;
  }
  const UniqueFd fd = qn::make_request_socket(AF_UNIX);
  if (!fd.valid()) {
    printf("Create socket failed, errno=%d.\n", errno);
    return -1;
  }
  const int32_t index = QnIntfNameToIndex(intf_name);
  if (index == 0) {
    printf("Interface %s is not exist.\n", qn::or_dash(intf_name));
    return -1;
  }
  IntfRequest request;
  if (!request.set_name(bridge_name)) return -1;
  request.ifr_ifindex = index;
  // The kernel answers EBUSY for a port of a bridge, of this one or another.
  if (ioctl(fd.get(), SIOCBRADDIF, static_cast<ifreq*>(&request)) != 0 && errno != EBUSY) {
    printf("Add interface %s to bridge %s failed, errno=%d.\n", intf_name, bridge_name, errno);
    return -1;
  }
  return 0;
}
