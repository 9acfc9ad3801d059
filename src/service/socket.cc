// AF_UNIX sockets of type SOCK_SEQPACKET.
#include <quillcore/socket.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/error_text.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"

namespace {

using qn::ErrorText;
using qn::Message;
using qn::StandardStreamsHeld;
using qn::Trace;
using qn::UniqueFd;

constexpr char kModule[] = "socket";

constexpr Message kRead{QN_LOG_D, 533, kModule, "qn_sock_safe_read", "read total_bytes_read=%d."};
constexpr Message kGetFlagsFailed{QN_LOG_E, 534, kModule, "sock_set_nonblock",
                                  "fcntl F_GETFL failed. socket fd=%d, errno=(%d,%s)"};
constexpr Message kSetFlagsFailed{QN_LOG_E, 535, kModule, "sock_set_nonblock",
                                  "fcntl F_SETFL failed. socket fd=%d, errno=(%d,%s)"};
constexpr Message kServerNoPath{QN_LOG_W, 537, kModule, "create_unix_socket_server",
                                "server_path is null."};
constexpr Message kServerNoOut{QN_LOG_W, 538, kModule, "create_unix_socket_server",
                               "out param sock_fd is null."};
constexpr Message kReadyToBind{QN_LOG_D, 539, kModule, "create_unix_socket_server",
                               "ready to bind server_path=%s"};
constexpr Message kServerSocketFailed{QN_LOG_E, 540, kModule, "create_unix_socket_server",
                                      "create unix socket failed.server_path=%s, errno=(%d,%s)"};
constexpr Message kBindFailed{QN_LOG_E, 541, kModule, "create_uds",
                              "bind uds fd failed.server_path=%s, errno=(%d,%s)"};
constexpr Message kListenFailed{QN_LOG_E, 542, kModule, "create_uds",
                                "listen uds fd=%d failed.server_path=%s, errno=(%d,%s)"};
constexpr Message kServerMade{QN_LOG_I, 543, kModule, "create_uds",
                              "create uds success, server_path=%s, listener_fd=%d"};
constexpr Message kClientNoPath{QN_LOG_W, 546, kModule, "connect_uds", "server_path is null."};
constexpr Message kClientNoOut{QN_LOG_W, 547, kModule, "connect_uds", "out param sock_fd is null."};
constexpr Message kClientSocketFailed{QN_LOG_E, 548, kModule, "connect_uds",
                                      "create uds failed. server_path=%s, errno=(%d,%s)"};
constexpr Message kConnectFailed{QN_LOG_E, 549, kModule, "connect_unix_socket_server",
                                 "connect unix socket failed. server_path=%s, errno=(%d,%s)"};
constexpr Message kSendTimeoutFailed{QN_LOG_E, 551, kModule, "qn_sock_set_fd_send_timeout",
                                     "set sock fd SO_SNDTIMEO failed. timout=(%d,%d)"};
constexpr Message kRecvTimeoutFailed{QN_LOG_E, 552, kModule, "qn_sock_set_fd_recv_timeout",
                                     "set sock fd SO_RCVTIMEO failed. timout=(%d,%d)"};

constexpr Trace kTraceServer{
    kModule, "qn_sock_create_unix_socket_server", 536, "create_unix_socket_server", 544, "create_uds"};
constexpr Trace kTraceClient{kModule, "qn_sock_connect_unix_socket_server", 545, "connect_uds",
                             550,     "connect_unix_socket_server"};

constexpr size_t kPathSize = QN_SOCK_PATH_MAX + 1; // one byte less than the address has room for
constexpr time_t kGraceSeconds = 1;

static_assert(sizeof(sockaddr_un) == 110 && offsetof(sockaddr_un, sun_path) == 2);

// Close-on-exec from birth: another thread may fork and exec at any moment.
UniqueFd make_socket() {
  const StandardStreamsHeld held;
  return UniqueFd(StandardStreamsHeld::above(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)));
}

bool make_address(const char* path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  return strncpy_s(address->sun_path, kPathSize, path, kPathSize) == 0;
}

const sockaddr* as_sockaddr(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// Puts a socket file at the path, in place of one left there. A path that does not fit unlinks nothing.
// Returns 0 or the errno of the failure.
int bind_path(int fd, const char* path) {
  sockaddr_un address;
  if (!make_address(path, &address)) return ENAMETOOLONG;
  if (path[0] == '\0') return EINVAL; // the kernel would choose a name, and no client would know it
  unlink(path);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));

  const socklen_t length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path));
  return bind(fd, as_sockaddr(address), length) == 0 ? 0 : errno;
}

// Gives a server that has not bound yet one second of grace. Returns 0 or the errno of the first attempt.
int connect_with_grace(int fd, const sockaddr_un& address) {
  if (connect(fd, as_sockaddr(address), sizeof(address)) == 0) return 0;
  const int error = errno;
  if (error != ENOENT) return error;
  struct timespec left = {.tv_sec = kGraceSeconds, .tv_nsec = 0};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) continue;
  return connect(fd, as_sockaddr(address), sizeof(address)) == 0 ? 0 : error;
}

bool set_timeout(int32_t fd, int option, uint32_t seconds, uint32_t microseconds) {
  struct timeval timeout = {};
  timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(seconds);
  timeout.tv_usec = static_cast<decltype(timeout.tv_usec)>(microseconds);
  return setsockopt(fd, SOL_SOCKET, option, &timeout, sizeof(timeout)) == 0;
}

} // namespace

int32_t qn_sock_safe_read(int32_t fd, void* buf, uint32_t len, uint32_t* bytes_read) {
  uint8_t* const bytes = static_cast<uint8_t*>(buf);
  uint32_t total = 0;
  do {
    const ssize_t got = read(fd, bytes + total, len - total);
    if (got < 1) break;
    total += static_cast<uint32_t>(got);
  } while (total < len);
  QN_LOG(kRead, total);
  if (total == 0) return -1;
  *bytes_read = total;
  return 0;
}

int32_t qn_sock_set_nonblock(int32_t fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return QN_FAIL(-1, kGetFlagsFailed, fd, QN_ERRNO);
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return QN_FAIL(-1, kSetFlagsFailed, fd, QN_ERRNO);
  return 0;
}

int32_t qn_sock_create_unix_socket_server(const char* server_path, int32_t backlog, int32_t* sock_fd) {
  qn::trace_enter(kTraceServer);
  if (server_path == nullptr) return QN_FAIL(-2, kServerNoPath);
  if (sock_fd == nullptr) return QN_FAIL(-2, kServerNoOut);
  QN_LOG(kReadyToBind, server_path);
  UniqueFd fd = make_socket();
  if (!fd.valid()) return QN_FAIL(-1, kServerSocketFailed, server_path, QN_ERRNO);
  if (const int error = bind_path(fd.get(), server_path))
    return QN_FAIL(-1, kBindFailed, server_path, error, ErrorText(error).text());
  if (listen(fd.get(), backlog) != 0) return QN_FAIL(-1, kListenFailed, fd.get(), server_path, QN_ERRNO);
  *sock_fd = fd.release();
  QN_LOG(kServerMade, server_path, *sock_fd);
  qn::trace_leave(kTraceServer);
  return 0;
}

int32_t qn_sock_connect_unix_socket_server(const char* server_path, int32_t* sock_fd) {
  qn::trace_enter(kTraceClient);
  if (server_path == nullptr) return QN_FAIL(-2, kClientNoPath);
  if (sock_fd == nullptr) return QN_FAIL(-2, kClientNoOut);
  UniqueFd fd = make_socket();
  if (!fd.valid()) return QN_FAIL(-1, kClientSocketFailed, server_path, QN_ERRNO);
  sockaddr_un address;
  if (!make_address(server_path, &address)) return -1;
  if (const int error = connect_with_grace(fd.get(), address))
    return QN_FAIL(-1, kConnectFailed, server_path, error, ErrorText(error).text());
  *sock_fd = fd.release();
  qn::trace_leave(kTraceClient);
  return 0;
}

int32_t qn_sock_set_fd_send_timeout(int32_t fd, uint32_t seconds, uint32_t microseconds) {
  if (set_timeout(fd, SO_SNDTIMEO, seconds, microseconds)) return 0;
  QN_LOG(kSendTimeoutFailed, seconds, microseconds);
  return -1;
}

int32_t qn_sock_set_fd_recv_timeout(int32_t fd, uint32_t seconds, uint32_t microseconds) {
  if (set_timeout(fd, SO_RCVTIMEO, seconds, microseconds)) return 0;
  QN_LOG(kRecvTimeoutFailed, seconds, microseconds);
  return -1;
}
