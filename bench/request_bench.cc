// A request of 64 bytes and its response between two threads on one core.
//
// On one core no time is hidden: what client, kernel and server spend on a request adds up. All clients
// of a benchmark live on one thread; each has at most one request in flight.
#include <quillcore/service.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "request_sdbus.h"
#include "request_servers.h"

namespace {

using namespace bench;

constexpr size_t kBody = 64;
constexpr size_t kMessage = sizeof(qn_msg_hdr_t) + kBody; // what goes over the socket, each way
constexpr size_t kIdle = 1000;

constexpr Server kServers[] = {
    {"limit", SOCK_SEQPACKET, start_bare_epoll},
    {"ours", SOCK_SEQPACKET, start_ours},
#ifdef HAVE_LIBUV
    {"libuv", SOCK_STREAM, start_libuv},
#endif
#ifdef HAVE_LIBEVENT
    {"libevent", SOCK_STREAM, start_libevent},
#endif
};

// From here on every thread of the process runs on the processor that it runs on now.
void stay_on_one_core() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
  must(sched_setaffinity(0, sizeof(one), &one) == 0, "sched_setaffinity");
}

// Both ends of every connection are descriptors of this process.
void allow_descriptors() {
  rlimit limit{};
  must(getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
  limit.rlim_cur = limit.rlim_max;
  must(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
  must(limit.rlim_cur > 2 * kIdle + 100, "room for the descriptors of idle connections");
}

class Connection {
 public:
  Connection(const std::string& path, int socket_type)
      : fd_(socket(AF_UNIX, socket_type | SOCK_CLOEXEC, 0)) {
    must(fd_ >= 0, "socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    // A server may still be on its way to listen().
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      must(errno == ENOENT || errno == ECONNREFUSED, "connect");
      must(std::chrono::steady_clock::now() < deadline, "connect within ten seconds");
      std::this_thread::yield();
    }
  }
  ~Connection() { close(fd_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send() {
    constexpr qn_msg_hdr_t kHeader = {1, QN_MSG_ACT_REQ, 0, 1, kBody, 7};
    char message[kMessage] = {};
    memcpy(message, &kHeader, sizeof(kHeader));
    must(write(fd_, message, sizeof(message)) == sizeof(message), "write of a request");
  }
  void receive() {
    char message[kMessage];
    must(read(fd_, message, sizeof(message)) == sizeof(message), "read of a response");
  }

 private:
  int fd_;
};

using Connections = std::vector<std::unique_ptr<Connection>>;

Connections connect(const std::string& path, int socket_type, size_t count) {
  Connections made;
  for (size_t i = 0; i < count; i++) made.push_back(std::make_unique<Connection>(path, socket_type));
  return made;
}

void exchange(const Connections& clients) {
  for (const auto& client : clients) client->send();
  for (const auto& client : clients) client->receive();
}

void request(benchmark::State& state, const std::string& path, int socket_type, size_t active,
             size_t idle) {
  const Connections sleeping = connect(path, socket_type, idle);
  const Connections clients = connect(path, socket_type, active);
  // Connections of the run before are closed behind the client's back: let the server catch up.
  for (int i = 0; i < 100; i++) exchange(clients);
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(active))) exchange(clients);
}

constexpr struct {
  const char* operation;
  size_t active;
  size_t idle;
} kLoads[] = {
    {"request, one client", 1, 0},
    {"request, eight in flight", 8, 0},
    {"request, 1000 idle", 1, kIdle},
};

} // namespace

void bench::register_all() {
  static const TemporaryDirectory sockets("/tmp");
  stay_on_one_core();
  allow_descriptors();
  for (const Server& server : kServers) {
    const std::string path = sockets.path() + "/" + server.who;
    server.start(path);
    for (const auto& load : kLoads) {
      add(load.operation, server.who, [path, server, load](benchmark::State& state) {
        request(state, path, server.socket_type, load.active, load.idle);
      });
    }
  }
#ifdef HAVE_SYSTEMD
  add("request, one client", "sd-bus", request_sdbus);
#endif
}
