// Start, run, stop and end of services, and what becomes of their connections.
//
// A service's thread is detached, so its end shows in the process's list of threads; see Services.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <semaphore>

#include "platform/standard_streams.h"
#include "service/running.h"
#include "service/service.h"
#include "support/capture.h"
#include "support/gate.h"
#include "support/main.h"

namespace {

enum : uint8_t { kEcho = 1, kHold };

// A handler may wait here until the test lets it go on.
struct Meeting {
  pthread_t thread = {};
  std::counting_semaphore<> entered{0};
  std::counting_semaphore<> leave{0};
};

int32_t hold(const qn_msg_req_t* req, void**, uint32_t*) {
  Meeting& meeting = *static_cast<Meeting*>(req->ctx);
  meeting.thread = pthread_self();
  meeting.entered.release();
  return meeting.leave.acquire(), 0;
}

const std::vector<qn_api_entry_t> kRows = {{kSource, kEcho, echo, nullptr},
                                           {kSource, kHold, hold, nullptr}};

void expect_served(const Client& client) {
  EXPECT_EQ(response(kEcho, 1, "ping"), client.call(request(kEcho, 1, "ping")));
}

class Lifecycle : public testing::Test {
 protected:
  // A service and its first client.
  void start(pthread_t* thread = nullptr) {
    ASSERT_EQ(0, services_.start(0, services_.table(kRows, &meeting_), "", thread));
    first_ = connect();
  }
  std::unique_ptr<Client> connect() const { return std::make_unique<Client>(services_.path(0)); }

  // From hold_service() to let_go() the service is inside a handler: what arrives meanwhile is queued.
  void hold_service() {
    first_->send(request(kHold, 7));
    EXPECT_TRUE(meeting_.entered.try_acquire_for(std::chrono::seconds(30)));
  }
  void let_go() {
    meeting_.leave.release();
    EXPECT_EQ(response(kHold, 7), first_->receive());
  }
  void stop() { EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle())); }

  const GateAt quiet_{0};
  Meeting meeting_;
  Services services_;
  std::unique_ptr<Client> first_;
};

TEST_F(Lifecycle, RefusesAMissingCycleOrConfiguration) {
  const qn_service_conf_t conf = {"", 1, 0, 0};
  EXPECT_EQ(-2, qn_service_start_with_thread(nullptr, &conf, nullptr, nullptr));
  EXPECT_EQ(-2, qn_service_start_with_thread(services_.cycle(), nullptr, nullptr, nullptr));
  EXPECT_EQ(-3, qn_service_stop_with_thread(nullptr));
  EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle())) << "a cycle without services";
}

TEST_F(Lifecycle, StopTakesEffectBehindOneMoreEvent) {
  for (const std::string wake : {"request", "close", "connection"}) {
    SCOPED_TRACE(wake);
    const GateAt debug(QN_LOG_D);
    StderrCapture capture;
    pthread_t thread;
    start(&thread);
    auto other = connect();
    hold_service();
    let_go();
    EXPECT_TRUE(pthread_equal(thread, meeting_.thread));
    EXPECT_TRUE(eventually([&] { return capture.brief().ends_with("437"); })) << "it sleeps again";

    const qn_service_t* const record = services_.cycle()->services[0];
    stop();
    if (wake == "request") expect_served(*other);
    if (wake == "close") other->hang_up();
    if (wake == "connection") other = connect();
    ASSERT_TRUE(services_.ended());
    for (const uint32_t logid : {583, 543, 585, 586})
      EXPECT_EQ(1u, capture.records(logid).size()) << logid;
    EXPECT_EQ(record, services_.cycle()->services[0]) << "the slot keeps pointing at its record";
    EXPECT_TRUE(record->cycle == nullptr && record->apis == nullptr && record->base == nullptr &&
                record->conf == nullptr);
    EXPECT_EQ("(nothing)", first_->received()) << "open connections stay open";
    stop();
    first_.reset(), other.reset();
    ASSERT_TRUE(services_.end());
  }
}

TEST_F(Lifecycle, StopMayComeAtAnyMomentOfALife) {
  const std::jthread stopper([this](const std::stop_token& done) {
    while (!done.stop_requested()) stop();
  });
  for (uint32_t round = 0; round < 50; round++) {
    ASSERT_EQ(0, services_.start(round % 3, nullptr));
    ASSERT_EQ(0, services_.start(5, nullptr, "/none/path"));
    ASSERT_TRUE(services_.end()) << round;
  }
}

TEST_F(Lifecycle, TenServicesRunAtOnce) {
  const qn_apis_t* const apis = services_.table(kRows, &meeting_);
  std::deque<Client> clients;
  for (uint32_t slot = 0; slot < QN_CYCLE_SERVICES; slot++) {
    ASSERT_EQ(0, services_.start(slot, apis));
    clients.emplace_back(services_.path(slot)).send(request(kHold, 1));
    EXPECT_TRUE(meeting_.entered.try_acquire_for(std::chrono::seconds(30)));
  }
  meeting_.leave.release(QN_CYCLE_SERVICES);
  for (const Client& client : clients) EXPECT_EQ(response(kHold, 1), client.receive());
}

TEST_F(Lifecycle, ConnectionsBeyondTheDescriptorLimitWaitForACloseOrTheNextOne) {
  start();
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  for (const bool is_close : {true, false}) {
    auto other = connect();
    expect_served(*other);
    hold_service();
    const auto queued = connect();
    queued->send(request(kEcho, 2));
    const rlimit none = {1, before.rlim_max}; // poll() takes no more entries than this
    setrlimit(RLIMIT_NOFILE, &none);
    let_go();
    expect_served(*first_);
    setrlimit(RLIMIT_NOFILE, &before);
    expect_served(*first_);
    EXPECT_EQ("(nothing)", queued->received());
    if (is_close) {
      other->hang_up();
    } else {
      expect_served(*connect());
    }
    EXPECT_EQ(response(kEcho, 2), queued->receive());
  }
}

// Of a process without standard input and standard error.
TEST_F(Lifecycle, LeavesOneConnectionOnStandardInputAndNoneOnTheOtherStreams) {
  start();
  hold_service();
  const auto unserved = connect(), second = connect(), third = connect();
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100);
  const int error = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
  close(STDIN_FILENO);
  close(STDERR_FILENO);
  let_go();
  expect_served(*second);
  expect_served(*third);
  unserved->send(request(kEcho, 1));
  expect_served(*first_);
  EXPECT_EQ("(nothing)", unserved->received());
  EXPECT_EQ(FD_CLOEXEC, fcntl(STDIN_FILENO, F_GETFD));
  EXPECT_EQ(-1, fcntl(STDERR_FILENO, F_GETFD));
  dup2(input, STDIN_FILENO);
  dup2(error, STDERR_FILENO);
  close(input);
  close(error);
}

TEST_F(Lifecycle, ChildrenOfForkGetNoConnectionAcrossExecAndNoLock) {
  start();
  const std::set<int> inherited = open_descriptors();
  const std::jthread caller([this](const std::stop_token& done) {
    while (!done.stop_requested()) connect();
  });
  for (int i = 0; i < 100; i++) {
    const pid_t child = fork();
    if (child == 0) {
      int kept = pthread_mutex_trylock(&qn::g_standard_streams_lock);
      for (int fd = 0; fd < 1000; fd++) kept += !inherited.contains(fd) && fcntl(fd, F_GETFD) == 0;
      _exit(kept);
    }
    ASSERT_EQ(0, status_of(child)) << i;
  }
}

} // namespace
