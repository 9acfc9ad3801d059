// Event base, dispatch of one request, and a running service.
#include <gtest/gtest.h>
#include <quillcore/service.h>
#include <sys/eventfd.h>

#include <cerrno>

#include "faults/table.h"
#include "platform/guards.h"
#include "service/running.h"
#include "support/main.h"

namespace {

using namespace shim;

qn_cycle_t g_cycle = {}; // a base only stores the pointer

using BasePtr = std::unique_ptr<qn_ev_base_t, FreeBy<qn_ev_base_free>>;

// A second event of its descriptor. Result 1 when it is registered.
struct Watch : Operation {
  Watch() {
    undisturbed = {1};
    run();
  }
  int64_t run() override {
    event = qn_event_new(base.get(), fd.get(), QN_EV_READ, ignore, this);
    return event != nullptr && qn_event_add(event) == 0;
  }
  void check(const Outcome&) override {
    const bool is_fresh = event->status == QN_EV_STATUS_INIT;
    EXPECT_EQ(is_fresh ? 0 : -1, qn_event_add(event));
  }
  static int32_t ignore(int32_t, uint16_t, void*) { return 0; }

  qn::UniqueFd fd{eventfd(0, EFD_CLOEXEC)};
  BasePtr base{qn_ev_base_new(&g_cycle)};
  qn_event_t* event = nullptr;
};

// Events that are ready, then one that ends the loop. Result: how many of the first kind were called.
struct Loop : Operation {
  explicit Loop(int count) : events(count) {
    undisturbed = {count};
    for (int i = 0; i < count; i++) add(called);
    add(stop);
  }
  int64_t run() override {
    qn_ev_base_loop(base.get());
    return calls;
  }
  void check(const Outcome&) override {
    if (base->event_count != 0) qn_ev_base_loop(base.get());
    EXPECT_EQ(0, base->event_count) << "a loop that ended early can be run again";
    EXPECT_EQ(events, calls);
  }
  void add(qn_ev_callback_t callback) {
    const int fd = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
    qn_event_add(qn_event_new(base.get(), fd, QN_EV_READ, callback, this));
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

int32_t answer_body(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  *rsp_body = qn_alloc(4);
  *rsp_len = *rsp_body != nullptr ? 4 : 0;
  return *rsp_body != nullptr ? 0 : -1;
}

qn_api_entry_t g_row = {kSource, 1, answer_body, nullptr};
constexpr qn_apis_t kApis = {1, &g_row};

// One request on a connection; the response has a body.
struct Dispatch : Operation {
  int64_t run() override { return connection.serve(request(1, 5)); }
  void check(const Outcome& seen) override {
    const size_t answered = seen.has(524) ? kHeader : kHeader + 4;
    EXPECT_EQ(seen.result == 0 ? answered : 0, take_all(connection.ends[1]).size());
    take_all(connection.ends[0]); // a request that could not be read is still queued
    EXPECT_EQ(0, run()) << "the next request is served";
    EXPECT_EQ(kHeader + 4, take_all(connection.ends[1]).size());
  }

  static constexpr size_t kHeader = sizeof(qn_msg_hdr_t);
  Connection connection{{g_row}};
};

// What a client of a running service meets.
constexpr int kAnswered = 1;
constexpr int kClosed = 10;

// A service, asked by clients one after the other and then ended. The faults hit the caller of the start
// and the service's thread, never the clients. The result of one that goes on is the sum over its first
// two clients. Connections and requests are taken in their order, so what became of those is decided when
// the third one has its answer.
struct Service : Operation {
  Service() {
    undisturbed = {2 * kAnswered};
    exhaust(services.cycle()->pool);
  }

  int64_t run() override {
    const int32_t started = services.start(3, &kApis);
    if (started != 0) return started;
    spare(true);
    const auto is_gone = [this] { return services.is_gone(); };
    std::deque<Client> clients;
    while (clients.size() < 3 && !is_gone()) {
      const Client& client = clients.emplace_back(services.path(3), is_gone);
      client.send(request(1, 5));
      const bool may_be_left = clients.size() < 3;
      EXPECT_TRUE(
          eventually([&] { return client.has_received() || is_gone() || (may_be_left && fired()); }));
    }
    const bool runs = !is_gone();
    int64_t result = 0;
    for (size_t i = 0; runs && i < 2; i++) {
      const std::string got = clients[i].received();
      result += got == "(closed)" ? kClosed : got == "(nothing)" ? 0 : kAnswered;
    }
    clients.clear();
    has_left_descriptors = !runs && open_descriptors() != kept;
    EXPECT_TRUE(services.end());
    spare(false);
    return result;
  }

  void check(const Outcome& seen) override {
    const qn_service_t* const record = services.cycle()->services[3];
    EXPECT_EQ(seen.result < 0, record == nullptr) << "a service that was not started has no slot";
    // A thread without a base leaves its record unchanged; every other one clears it.
    EXPECT_TRUE(record == nullptr || (record->conf == nullptr) != seen.has(582));
    EXPECT_EQ(seen.has(422), has_left_descriptors) << "one that has looped leaves its listener open";
  }

  Services services;
  std::set<int> kept = open_descriptors();
  bool has_left_descriptors = false;
};

} // namespace

std::vector<Row> service_rows() {
  const Make dispatch = make<Dispatch>();
  const Make many = make<Loop>(140); // more than the first array holds twice
  const Make serve = make<Service>();
  const Outcome served = {2 * kAnswered}, one_closed = {kAnswered + kClosed};
  // The base and its array; the listener's event and its place in the table; the first client's event.
  const std::vector<Outcome> no_memory = {{0, {524, 432, 582}},
                                          {0, {524, 433, 582}},
                                          {0, {524, 445, 581, 584}},
                                          {0, {524, 584}},
                                          {kAnswered + kClosed, {524, 445, 579}}};
  return {
      {"watch", make<Watch>(), "EPOLL_CTL_MOD", ENOMEM, {{0}}},
      {"loop", many, "malloc", ENOMEM, {{140, {524, 419}}}},
      {"loop", many, "epoll_wait", EINTR, {{140, {421}}, {140, {421}}}},
      {"loop", many, "epoll_wait", EBADF, {{0, {422, 438}}, {64, {422, 438}}}},

      {"dispatch", dispatch, "malloc", ENOMEM, {{0, {524}}, {-2, {524, 567}}}}, // the handler's is first
      {"dispatch", dispatch, "read", EIO, {{-1}, {0}}},
      {"dispatch", dispatch, "write", EAGAIN, {{0, {562}}}},
      {"dispatch", dispatch, "write", EAGAIN, {{-1, {562, 562, 562, 562}}}, kFailAlways},
      {"dispatch", dispatch, "write", EINTR, {{0, {562}}}},
      {"dispatch", dispatch, "write", EPIPE, {{-1, {562, 563}}}},
      {"dispatch", dispatch, "write", ECONNRESET, {{-1, {562, 564}}}},
      {"dispatch", dispatch, "write", 0, {{0}}, kShort},
      {"dispatch", dispatch, "write", 0, {{-1, {565}}}, kNothing},

      {"service", serve, "posix_memalign", ENOMEM, {{-2, {526, 414}}}},
      {"service", serve, "pthread_create", EAGAIN, {{-1, {605}}}},
      {"service", serve, "pthread_attr_init", ENOMEM, {{2, {603}}}},
      {"service", serve, "epoll_create1", EMFILE, {{0, {433, 582}}}},
      {"service", serve, "bind", EADDRINUSE, {{0, {541, 580, 584}}}},
      {"service", serve, "epoll_wait", EBADF, {{0, {422, 438}}}, kFail, kUntried},
      {"service", serve, "EPOLL_CTL_ADD", ENOSPC, {{0, {584}}, one_closed, one_closed}, kFail, kUntried},
      // A connection that could not be taken waits for the next one.
      {"service", serve, "accept", EMFILE, {served, served, served, served}, kFail, kUntried},
      {"service", serve, "malloc", ENOMEM, no_memory, kFail, kUntried},
  };
}
