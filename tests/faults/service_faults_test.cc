// Event base, dispatch of one request, and a running service.
#include <gtest/gtest.h>
#include <poll.h>
#include <quillcore/service.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "faults/table.h"
#include "platform/guards.h"
#include "service/service.h"
#include "support/main.h"
#include "support/temp_dir.h"

namespace {

using namespace shim;

qn_cycle_t g_cycle = {}; // a base only stores the pointer

struct BaseFree {
  void operator()(qn_ev_base_t* base) const { qn_ev_base_free(base); }
};
using BasePtr = std::unique_ptr<qn_ev_base_t, BaseFree>;

struct BaseNew : Operation {
  BaseNew() { undisturbed = {1}; }
  int64_t run() override { return BasePtr(qn_ev_base_new(&g_cycle)) != nullptr; }
};

// Registers an event, the second one of its descriptor. Result 1 when it is registered.
struct Watch : Operation {
  Watch() {
    undisturbed = {1};
    run();
  }
  int64_t run() override {
    event = qn_event_new(base.get(), fd.get(), QN_EV_READ, ignore, this);
    return event != nullptr && qn_event_add(event) == 0;
  }
  void check(const Outcome& seen) override {
    if (seen.result == 1 || event == nullptr) return;
    EXPECT_EQ(QN_EV_STATUS_INIT, event->status);
    EXPECT_EQ(0, qn_event_add(event)) << "it can be added again";
  }
  static int32_t ignore(int32_t, uint16_t, void*) { return 0; }

  qn::UniqueFd fd{eventfd(0, EFD_CLOEXEC)};
  BasePtr base{qn_ev_base_new(&g_cycle)};
  qn_event_t* event = nullptr;
};

// Events that are ready, then one that ends the loop. Result: how many of the first kind were called.
struct Loop : Operation {
  Loop(int count, uint16_t flags) : events(count) {
    undisturbed = {count};
    for (int i = 0; i < count; i++) add(flags, called);
    add(QN_EV_READ, stop);
  }
  int64_t run() override {
    qn_ev_base_loop(base.get());
    return calls;
  }
  void check(const Outcome& seen) override {
    if (base->event_count != 0) qn_ev_base_loop(base.get());
    EXPECT_EQ(0, base->event_count) << "a loop that ended early can be run again";
    EXPECT_EQ(seen.has(425) ? 0 : events, calls);
  }
  void add(uint16_t flags, qn_ev_callback_t callback) {
    const int fd = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
    qn_event_add(qn_event_new(base.get(), fd, flags, callback, this));
  }
  static int32_t called(int32_t, uint16_t, void* arg) { return ++static_cast<Loop*>(arg)->calls; }
  static int32_t stop(int32_t, uint16_t, void* arg) {
    qn_ev_base_stop(static_cast<Loop*>(arg)->base.get());
    return 0;
  }

  BasePtr base{qn_ev_base_new(&g_cycle)};
  int events;
  int calls = 0;
};

int32_t answer_nothing(const qn_msg_req_t*, void**, uint32_t*) { return 0; }

int32_t answer_body(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  *rsp_body = qn_alloc(4);
  *rsp_len = *rsp_body != nullptr ? 4 : 0;
  return *rsp_body != nullptr ? 0 : -1;
}

constexpr uint16_t kNoBody = 1, kBody = 2; // sources
qn_api_entry_t g_rows[] = {{kNoBody, 1, answer_nothing, nullptr}, {kBody, 1, answer_body, nullptr}};
constexpr qn_apis_t kApis = {2, g_rows};

void send_request(int fd, uint16_t source) {
  const qn_msg_hdr_t request = {1, QN_MSG_ACT_REQ, 0, source, 0, 5};
  send(fd, &request, sizeof(request), MSG_NOSIGNAL);
}

size_t drain(int fd) {
  size_t total = 0;
  char buffer[64];
  for (ssize_t got; (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) total += static_cast<size_t>(got);
  return total;
}

// One request on a connection; the response has a body.
struct Dispatch : Operation {
  Dispatch() {
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
    send_request(fds[1], kBody);
  }
  ~Dispatch() override {
    close(fds[0]);
    close(fds[1]);
  }
  int64_t run() override { return qn_service_process_msg(fds[0], QN_EV_READ, &service); }
  void check(const Outcome& seen) override {
    const size_t expected = sizeof(qn_msg_hdr_t) + (seen.has(524) ? 0 : 4);
    EXPECT_EQ(seen.result == 0 ? expected : 0, drain(fds[1]));
    drain(fds[0]); // a request that could not be read is still queued
    send_request(fds[1], kBody);
    EXPECT_EQ(0, run()) << "the next request is served";
    EXPECT_EQ(sizeof(qn_msg_hdr_t) + 4, drain(fds[1]));
  }

  int fds[2] = {-1, -1};
  qn_service_conf_t conf = {"", 1, 64, 0};
  qn_service_t service = {nullptr, &kApis, nullptr, &conf};
};

template <typename Condition>
void wait_until(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_TRUE(condition()) << "waited for too long";
}

// What a client meets. The result of a service that was started is the sum over its two clients.
constexpr int kSilence = 0; // also when the service has not come up or is gone
constexpr int kAnswered = 1;
constexpr int kClosed = 10;

// A service, asked by two clients one after the other and then ended. The faults hit the caller of the
// start and the service's thread, never the clients.
struct Service : Operation {
  Service() {
    undisturbed = {2 * kAnswered};
    exhaust(cycle->pool);
  }
  ~Service() override {
    clients.clear();
    close_descriptors_not_in(kept); // a service leaves its listener and its connections open
    qn_cycle_free(cycle);
  }

  static bool is_gone() { return threads_running() == 0; }

  // Returns -1 when the service is gone.
  int connect_client() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    clients.push_back(std::make_unique<qn::UniqueFd>(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)));
    const int fd = clients.back()->get();
    int result = -1;
    wait_until([&] {
      if (result != 0) result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
      return result == 0 || is_gone();
    });
    return result == 0 ? fd : -1;
  }

  // What a client gets is decided when one that came after it has its answer: the service takes
  // connections and requests in their order.
  int ask(bool disturbed) {
    const int fd = connect_client();
    if (fd < 0) return kSilence;
    send_request(fd, kNoBody);
    const auto is_ready = [fd] {
      pollfd asked = {fd, POLLIN, 0};
      return poll(&asked, 1, 0) > 0;
    };
    wait_until([&] { return is_ready() || is_gone() || (disturbed && fired()); });
    if (disturbed && fired() && ask(false) != kAnswered) return kSilence;
    if (!is_ready()) return kSilence;
    char response[64];
    return recv(fd, response, sizeof(response), MSG_DONTWAIT) > 0 ? kAnswered : kClosed;
  }

  int64_t run() override {
    const int32_t started = qn_service_start_with_thread(cycle, &conf, &kApis, nullptr);
    if (started != 0) return started;
    spare(true);
    const int first = ask(true), second = ask(true);
    // One more connection wakes the service, which sees then that it shall stop.
    EXPECT_EQ(0, qn_service_stop_with_thread(cycle));
    if (!is_gone()) connect_client();
    wait_until(is_gone);
    spare(false);
    return first + second;
  }

  void check(const Outcome& seen) override {
    const qn_service_t* const record = cycle->services[conf.slot];
    EXPECT_EQ(seen.result < 0, record == nullptr) << "a service that was not started has no slot";
    // A thread without a base leaves its record unchanged; every other one clears it.
    EXPECT_TRUE(record == nullptr || (record->conf == nullptr) != seen.has(582));
    clients.clear();
    const bool has_looped = seen.result > 0 || seen.has(422);
    EXPECT_TRUE(has_looped || open_descriptors() == kept);
  }

  TempDir dir;
  std::string path = dir.file("socket");
  qn_service_conf_t conf = {path.c_str(), 8, 64, 3};
  qn_cycle_t* cycle = qn_cycle_new();
  std::vector<std::unique_ptr<qn::UniqueFd>> clients;
  std::set<int> kept = open_descriptors();
};

} // namespace

std::vector<Row> service_rows() {
  const Make base_new = make<BaseNew>(), watch = make<Watch>(), dispatch = make<Dispatch>();
  const Make many = make<Loop>(140, QN_EV_READ); // more than the first array holds twice
  const Make timer = make<Loop>(1, QN_EV_TIMER);
  const Make serve = make<Service>();
  const Outcome served = {2 * kAnswered};
  const Outcome no_event = {kAnswered + kClosed, {524, 445, 579}};
  const Outcome no_response = {kAnswered + kSilence, {524, 567}};
  const Outcome one_silent = {kAnswered + kSilence};
  const Outcome one_closed = {kAnswered + kClosed};
  // The base and its array; the listener's event and its place in the table; event and response of each
  // client.
  std::vector<Outcome> no_memory = {
      {0, {524, 432, 582}}, {0, {524, 433, 582}}, {0, {524, 445, 581, 584}}};
  no_memory.insert(no_memory.end(), {{0, {524, 584}}, no_event, no_response, no_event, no_response});
  return {
      {"base_new", base_new, "malloc", ENOMEM, {{0, {524, 432}}, {0, {524, 433}}}},
      {"base_new", base_new, "epoll_create1", EMFILE, {{0, {433}}}},
      {"watch", watch, "malloc", ENOMEM, {{0, {524, 445}}}},
      {"watch", watch, "EPOLL_CTL_ADD", ENOSPC, {{0}}},
      {"watch", watch, "EPOLL_CTL_MOD", ENOMEM, {{0}}},
      {"loop", many, "malloc", ENOMEM, {{140, {524, 419}}}},
      {"loop", many, "epoll_wait", EINTR, {{140, {421}}, {140, {421}}}},
      {"loop", many, "epoll_wait", EBADF, {{0, {422, 438}}, {64, {422, 438}}}},
      {"timer", timer, "read", EAGAIN, {{0, {425}}}},
      {"timer", timer, "read", 0, {{0, {425}}}, kShort},
      {"timer", timer, "read", 0, {{0, {425}}}, kNothing},

      {"dispatch", dispatch, "malloc", ENOMEM, {{0, {524}}, {-2, {524, 567}}}}, // the handler's is first
      {"dispatch", dispatch, "read", EIO, {{-1}, {0}}},
      {"dispatch", dispatch, "write", EAGAIN, {{0, {562}}}},
      {"dispatch", dispatch, "write", EAGAIN, {{-1, {562, 562, 562, 562}}}, kFailAlways},
      {"dispatch", dispatch, "write", EINTR, {{0, {562}}}},
      {"dispatch", dispatch, "write", EPIPE, {{-1, {562, 563}}}},
      {"dispatch", dispatch, "write", EIO, {{-1, {562, 564}}}},
      {"dispatch", dispatch, "write", 0, {{0}}, kShort},
      {"dispatch", dispatch, "write", 0, {{-1, {565}}}, kNothing},

      {"service", serve, "posix_memalign", ENOMEM, {{-2, {526, 414}}}},
      {"service", serve, "pthread_create", EAGAIN, {{-1, {605}}}},
      {"service", serve, "pthread_attr_init", ENOMEM, {{2, {603}}}},
      {"service", serve, "epoll_create1", EMFILE, {{0, {433, 582}}}},
      {"service", serve, "socket", EMFILE, {{0, {540, 580, 584}}}},
      {"service", serve, "bind", EADDRINUSE, {{0, {541, 580, 584}}}},
      {"service", serve, "listen", EADDRINUSE, {{0, {542, 580, 584}}}},
      {"service", serve, "read", EIO, {one_silent, served, one_silent, served}},
      {"service", serve, "write", EIO, {{1, {562, 564}}, {1, {562, 564}}}},
      {"service", serve, "epoll_wait", EBADF, {{0, {422, 438}}}, kFail, kUntried},
      // Whether the connection that wakes the service is still taken is up to the scheduler.
      {"service", serve, "EPOLL_CTL_ADD", ENOSPC, {{0, {584}}, one_closed, one_closed}, kFail, kUntried},
      // A connection that could not be taken waits for the next one to come.
      {"service", serve, "accept", EMFILE, {served, served, served, served}, kFail, kUntried},
      {"service", serve, "malloc", ENOMEM, no_memory, kFail, kUntried},
  };
}
