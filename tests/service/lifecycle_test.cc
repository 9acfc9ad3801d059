// Start, run, stop and end of services.
//
// A service's thread is detached, so its end shows in the process's list of threads; see Services.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>

#include "platform/standard_streams.h"
#include "service/running.h"
#include "service/service.h"
#include "support/capture.h"
#include "support/main.h"

namespace {

enum Type : uint8_t { kEcho = 1, kHold, kThread, kMeet };

struct ThreadNames {
  pthread_t thread;
  pid_t id;
};

int32_t tell_thread(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  const ThreadNames names = {pthread_self(), static_cast<pid_t>(syscall(SYS_gettid))};
  return answer({reinterpret_cast<const char*>(&names), sizeof(names)}, rsp_body, rsp_len);
}

// Returns when ten handlers are in it at once.
int32_t meet(const qn_msg_req_t* req, void**, uint32_t*) {
  pthread_barrier_wait(static_cast<pthread_barrier_t*>(req->ctx));
  return 0;
}

const std::vector<qn_api_entry_t> kRows = {
    {0xFFFF, kEcho, echo, nullptr},
    {0xFFFF, kHold, hold, nullptr},
    {0xFFFF, kThread, tell_thread, nullptr},
    {0xFFFF, kMeet, meet, nullptr},
};

void expect_served(const Client& client, uint32_t id = 1) {
  EXPECT_EQ(response(kEcho, 0, 1, id, "ping"), client.call(request(kEcho, 1, id, "ping")));
}

ThreadNames thread_of(const Client& client) {
  const std::string told = client.call(request(kThread, 1, 1));
  ThreadNames names = {};
  EXPECT_EQ(sizeof(qn_msg_hdr_t) + sizeof(names), told.size());
  told.copy(reinterpret_cast<char*>(&names), sizeof(names), sizeof(qn_msg_hdr_t));
  return names;
}

std::vector<uint32_t> logids_of_level(const StderrCapture& capture, const std::string& level) {
  std::vector<uint32_t> found;
  for (const Record& record : capture.records()) {
    if (record.level == level) found.push_back(record.logid);
  }
  return found;
}

bool is_cleared(const qn_service_t& record) {
  return record.cycle == nullptr && record.apis == nullptr && record.base == nullptr &&
         record.conf == nullptr;
}

class Lifecycle : public testing::Test {
 protected:
  int32_t start(uint32_t slot = 0) { return services_.start(slot, services_.table(kRows, &meeting_)); }

  const GateAt quiet_{0};
  Meeting meeting_;
  Services services_;
};

TEST_F(Lifecycle, RefusesAMissingCycleOrConfiguration) {
  const qn_service_conf_t conf = {"", 1, 0, 0};
  EXPECT_EQ(-2, qn_service_start_with_thread(nullptr, &conf, nullptr, nullptr));
  EXPECT_EQ(-2, qn_service_start_with_thread(services_.cycle(), nullptr, nullptr, nullptr));
  EXPECT_EQ(-3, qn_service_stop_with_thread(nullptr));
  EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle())) << "a cycle without services";
}

TEST_F(Lifecycle, RunsOnTheThreadThatStartNames) {
  pthread_t thread;
  ASSERT_EQ(0, services_.start_at(services_.path(0), 0, services_.table(kRows), 3061, &thread));
  EXPECT_NE(0, pthread_equal(thread, thread_of(Client(services_.path(0))).thread));

  ASSERT_EQ(0, services_.start(1, nullptr));
  EXPECT_EQ(response(kEcho, 1, 1, 2), Client(services_.path(1)).call(request(kEcho, 1, 2)))
      << "without a table nothing is served";
}

TEST_F(Lifecycle, StopTakesEffectBehindOneMoreEvent) {
  const struct {
    const char* name;
    std::function<void(Client& client, pid_t thread)> wake;
  } rows[] = {
      {"a request", [](Client& client, pid_t) { expect_served(client, 7); }},
      {"a close", [](Client& client, pid_t) { client.hang_up(); }},
      {"a connection",
       [this](Client&, pid_t) {
         const Client late(services_.path(0));
         EXPECT_TRUE(services_.ended());
         EXPECT_EQ("(nothing)", late.received()) << "accepted, and left open";
       }},
      {"a signal",
       [](Client&, pid_t thread) {
         EXPECT_TRUE(eventually([&] { return syscall(SYS_tgkill, getpid(), thread, SIGUSR1) != 0; }));
       }},
  };
  struct sigaction interrupt = {}, before;
  interrupt.sa_handler = [](int) {};
  sigaction(SIGUSR1, &interrupt, &before);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    {
      const GateAt debug(QN_LOG_D);
      StderrCapture capture;
      ASSERT_EQ(0, start());
      const qn_service_t* const record = services_.record(0);
      ASSERT_NE(nullptr, record);
      const Client idle(services_.path(0));
      Client client(services_.path(0));
      expect_served(idle);
      const pid_t thread = thread_of(client).id;
      EXPECT_TRUE(eventually([&] { return capture.logids().back() == 437; })) << "it sleeps again";

      EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle()));
      row.wake(client, thread);
      ASSERT_TRUE(services_.ended());
      EXPECT_EQ((std::vector<uint32_t>{583, 543, 585, 586}), logids_of_level(capture, "I"));

      EXPECT_EQ(record, services_.record(0)) << "the slot keeps pointing at its record";
      EXPECT_TRUE(is_cleared(*record));
      EXPECT_EQ("(nothing)", idle.received()) << "open connections stay open";
      EXPECT_TRUE(std::filesystem::is_socket(services_.path(0)));
      const Client unserved(services_.path(0)); // the listening socket stays open too
      EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle()));
    }
    ASSERT_TRUE(services_.end());
  }
  sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(Lifecycle, StopLeavesTheRestOfABatchUnserved) {
  ASSERT_EQ(0, start());
  const Client first(services_.path(0)), second(services_.path(0));
  expect_served(second);
  {
    Held held(first, meeting_, request(kHold, 1, 1));
    second.send(request(kEcho, 1, 2));
    EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle()));
  }
  EXPECT_EQ(response(kHold, 0, 1, 1, "held"), first.receive());
  EXPECT_TRUE(services_.ended());
  EXPECT_EQ("(nothing)", second.received());
}

TEST_F(Lifecycle, EndsWhenItsSocketCannotBeMade) {
  const std::string path = services_.path(0) + "/none";
  const GateAt errors(QN_LOG_E);
  StderrCapture capture;
  ASSERT_EQ(0, services_.start_at(path, 3, services_.table(kRows)));
  ASSERT_TRUE(services_.ended());
  EXPECT_EQ((std::vector<uint32_t>{541, 580, 584}), capture.logids());
  ASSERT_NE(nullptr, services_.record(3));
  EXPECT_TRUE(is_cleared(*services_.record(3)));
  EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle()));
}

TEST_F(Lifecycle, SecondStartTakesTheSlot) {
  const qn_apis_t* const apis = services_.table(kRows);
  const std::string first_path = services_.path(1), second_path = services_.path(2);
  ASSERT_EQ(0, services_.start_at(first_path, 0, apis));
  qn_service_t* const first = services_.cycle()->services[0];
  const Client client(first_path);
  expect_served(client);
  ASSERT_EQ(0, services_.start_at(second_path, 0, apis));
  EXPECT_NE(first, services_.record(0));
  Client second(second_path);
  expect_served(second);

  EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle()));
  for (uint32_t id = 0; id < 3; id++) expect_served(client, id);
  services_.cycle()->services[1] = first; // in reach of a stop again
}

TEST_F(Lifecycle, AcceptsAllConnectionsOfOneWakeUp) {
  ASSERT_EQ(0, start());
  const Client client(services_.path(0));
  Held held(client, meeting_, request(kHold, 1, 1));
  const Client queued[3] = {Client(services_.path(0)), Client(services_.path(0)),
                            Client(services_.path(0))};
  held.release();
  for (const Client& one : queued) expect_served(one);
}

TEST_F(Lifecycle, ConnectionsBeyondTheDescriptorLimitWaitForACloseOrTheNextOne) {
  ASSERT_EQ(0, start());
  const Client client(services_.path(0));
  Client idle(services_.path(0));
  expect_served(idle);
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const auto queue_one = [&] {
    Held held(client, meeting_, request(kHold, 1, 1));
    auto queued = std::make_unique<Client>(services_.path(0));
    queued->send(request(kEcho, 1, 2));
    const rlimit none = {1, before.rlim_max}; // poll() takes no more entries than this
    setrlimit(RLIMIT_NOFILE, &none);
    held.release();
    EXPECT_EQ(response(kHold, 0, 1, 1, "held"), client.receive());
    expect_served(client);
    setrlimit(RLIMIT_NOFILE, &before);
    expect_served(client);
    EXPECT_EQ("(nothing)", queued->received());
    return queued;
  };
  const auto first = queue_one();
  idle.hang_up();
  EXPECT_EQ(response(kEcho, 0, 1, 2), first->receive());

  const auto second = queue_one();
  const Client next(services_.path(0));
  EXPECT_EQ(response(kEcho, 0, 1, 2), second->receive());
  expect_served(next);
}

// Of a process without standard input and standard error.
TEST_F(Lifecycle, LeavesOneConnectionOnStandardInputAndNoneOnTheOtherStreams) {
  ASSERT_EQ(0, start());
  const Client client(services_.path(0));
  Held held(client, meeting_, request(kHold, 1, 1));
  const Client queued[3] = {Client(services_.path(0)), Client(services_.path(0)),
                            Client(services_.path(0))};
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100);
  const int error = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
  close(STDIN_FILENO);
  close(STDERR_FILENO);
  held.release();
  EXPECT_EQ(response(kHold, 0, 1, 1, "held"), client.receive());
  for (const int i : {1, 2}) expect_served(queued[i]);
  queued[0].send(request(kEcho, 1, 1));
  expect_served(client);
  EXPECT_EQ("(nothing)", queued[0].received());
  EXPECT_EQ(FD_CLOEXEC, fcntl(STDIN_FILENO, F_GETFD));
  EXPECT_EQ(-1, fcntl(STDERR_FILENO, F_GETFD));
  dup2(input, STDIN_FILENO);
  dup2(error, STDERR_FILENO);
  close(input);
  close(error);
}

TEST_F(Lifecycle, ChildrenOfForkGetNoConnectionAcrossExecAndNoLock) {
  ASSERT_EQ(0, start());
  const std::set<int> inherited = open_descriptors();
  std::jthread caller([this](const std::stop_token& done) {
    while (!done.stop_requested()) const Client client(services_.path(0));
  });
  for (int i = 0; i < 200; i++) {
    const pid_t child = fork();
    if (child == 0) {
      int kept = pthread_mutex_trylock(&qn::g_standard_streams_lock);
      for (int fd = 0; fd < 1000; fd++) kept += !inherited.contains(fd) && fcntl(fd, F_GETFD) == 0;
      _exit(kept);
    }
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(0, status) << i;
  }
}

TEST_F(Lifecycle, TenServicesRunAtOnce) {
  pthread_barrier_t all;
  pthread_barrier_init(&all, nullptr, QN_CYCLE_SERVICES);
  const qn_apis_t* const apis = services_.table(kRows, &all);
  {
    std::deque<Client> clients;
    for (uint32_t slot = 0; slot < QN_CYCLE_SERVICES; slot++) {
      ASSERT_EQ(0, services_.start(slot, apis));
      clients.emplace_back(services_.path(slot));
    }
    for (const Client& client : clients) client.send(request(kMeet, 1, 1));
    for (const Client& client : clients) EXPECT_EQ(response(kMeet, 0, 1, 1), client.receive());
  }
  EXPECT_TRUE(services_.end());
  pthread_barrier_destroy(&all);
}

TEST_F(Lifecycle, StartsAndStopsAThousandTimes) {
  for (uint32_t round = 0; round < 1000; round++) {
    const std::set<int> before = open_descriptors();
    ASSERT_EQ(0, start());
    {
      const Client client(services_.path(0));
      expect_served(client, round);
      ASSERT_EQ(0, qn_service_stop_with_thread(services_.cycle()));
    } // its close is the event that the service sees the stop behind
    ASSERT_TRUE(services_.ended());
    ASSERT_TRUE(is_cleared(*services_.record(0)));
    close_descriptors_not_in(before); // the listener stays open by contract
  }
}

TEST_F(Lifecycle, ServesManyClientsAtOnce) {
  ASSERT_EQ(0, start());
  const std::string path = services_.path(0);
  const auto talk = [&path](uint32_t who) {
    for (uint32_t round = 0; round < 20; round++) {
      const Client client(path);
      for (uint32_t i = 0; i < 25; i++) {
        const uint32_t id = who << 16 | round << 8 | i;
        const std::string body(id % 3000, static_cast<char>('a' + who));
        ASSERT_EQ(response(kEcho, 0, 1, id, body), client.call(request(kEcho, 1, id, body)));
      }
    }
  };
  std::vector<std::thread> threads;
  for (uint32_t who = 0; who < 6; who++) threads.emplace_back(talk, who);
  for (std::thread& thread : threads) thread.join();
}

TEST_F(Lifecycle, StopMayComeAtAnyMomentOfALife) {
  const std::jthread stopper([this](const std::stop_token& done) {
    while (!done.stop_requested()) EXPECT_EQ(0, qn_service_stop_with_thread(services_.cycle()));
  });
  for (uint32_t round = 0; round < 200; round++) {
    ASSERT_EQ(0, start(round % 3));
    ASSERT_EQ(0, services_.start_at(services_.path(9) + "/none", 5, nullptr));
    ASSERT_TRUE(services_.end()) << round;
  }
}

} // namespace
