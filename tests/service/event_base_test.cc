// The event base on real descriptors. Each run of the loop ends with a callback of the base's own event,
// the stopper, which becomes ready last.
#include "service/event_base.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <functional>

#include "support/capture.h"
#include "support/gate.h"
#include "support/main.h"

namespace {

constexpr uint16_t kRead = QN_EV_READ, kWrite = QN_EV_WRITE, kBoth = kRead | kWrite;
constexpr uint16_t kClosed = QN_EV_CLOSED, kTimer = QN_EV_TIMER, kPersist = QN_EV_PERSIST;
constexpr uint16_t kPersistentRead = kRead | kPersist;
constexpr int32_t kPeerClosed = QN_EV_PEER_CLOSED;

using Flags = std::vector<uint16_t>;

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

int counter(uint64_t value) {
  const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (value != 0) eventfd_write(fd, value);
  return fd;
}

using Ends = std::array<int, 2>; // ours and the peer's

enum Kind { kMessages, kPipe };

Ends make_ends(Kind kind) {
  Ends ends;
  EXPECT_EQ(0, kind == kPipe ? pipe2(ends.data(), O_CLOEXEC)
                             : socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()));
  return ends;
}

// One event, and what its callback saw.
struct Watch {
  qn_event_t* event = nullptr;
  int32_t result = 0; // what the callback returns
  std::function<void()> action;
  Flags flags; // of each call
};

int32_t note(int32_t fd, uint16_t flags, void* arg) {
  Watch& watch = *static_cast<Watch*>(arg);
  EXPECT_TRUE(is_open(fd));
  // One that goes is off its base before its callback runs.
  const bool goes = (flags & kClosed) != 0 || (watch.event->events & kPersist) == 0;
  EXPECT_EQ(goes ? QN_EV_STATUS_DELETED : QN_EV_STATUS_INSERTED, watch.event->status);
  watch.flags.push_back(flags);
  if (watch.action) watch.action();
  return watch.result;
}

class EventBase : public testing::Test {
 protected:
  EventBase() {
    watch(stopper_, kPersistentRead).action = [this] { qn_ev_base_stop(base_); };
  }
  ~EventBase() override {
    qn_ev_base_free(base_);
    close_descriptors_not_in(kept_);
  }

  Watch& make(int fd, uint16_t events) {
    Watch& watch = watches_.emplace_back();
    watch.event = qn_event_new(base_, fd, events, note, &watch);
    return watch;
  }

  Watch& watch(int fd, uint16_t events) {
    Watch& made = make(fd, events);
    EXPECT_EQ(0, qn_event_add(made.event)) << fd;
    return made;
  }

  // Handles all that is ready now.
  void run() {
    eventfd_write(stopper_, 1);
    qn_ev_base_loop(base_);
  }

  // Registered events beside the stopper.
  int others() const { return base_->event_count - 1; }

  const GateAt quiet_{0};
  const std::set<int> kept_ = open_descriptors();
  qn_cycle_t cycle_ = {}; // a base only stores the pointer
  qn_ev_base_t* const base_ = qn_ev_base_new(&cycle_);
  const int stopper_ = counter(0);
  std::deque<Watch> watches_;
};

TEST_F(EventBase, RefusesMissingArguments) {
  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  EXPECT_EQ(nullptr, qn_ev_base_new(nullptr));
  EXPECT_EQ(nullptr, qn_event_new(nullptr, stopper_, kRead, note, nullptr));
  EXPECT_EQ(nullptr, qn_event_new(base_, stopper_, kRead, nullptr, nullptr));
  qn_ev_base_loop(nullptr);
  EXPECT_EQ("430, 443, 444, 435", capture.brief());
}

TEST_F(EventBase, RegistersFreshAndDeletedEventsOnly) {
  const int fd = counter(1), file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  Watch& event = watch(fd, kPersistentRead);
  const GateAt warnings(QN_LOG_W);
  StderrCapture capture;
  EXPECT_EQ(-1, qn_event_add(event.event));
  EXPECT_EQ("447", capture.brief());
  qn_event_del(event.event);
  qn_event_del(event.event);
  EXPECT_EQ(0, others());
  run();
  EXPECT_EQ(Flags{}, event.flags);
  EXPECT_EQ(0, qn_event_add(event.event));
  run();
  run();
  EXPECT_EQ(Flags{kRead}, event.flags) << "ready at once; unread input is no new edge";

  for (const auto& [unwatched, events, result] :
       {std::tuple{-1, kPersist, 0}, {-1, kRead, -1}, {file, kRead, -1}}) {
    Watch& other = make(unwatched, events);
    EXPECT_EQ(result, qn_event_add(other.event));
    EXPECT_EQ(QN_EV_STATUS_INIT, other.event->status);
    qn_event_free(other.event);
  }
  EXPECT_FALSE(is_open(file)) << "the event owned it";
  EXPECT_EQ(1, others());
}

TEST_F(EventBase, CallsAnEventAndKeepsOrReleasesIt) {
  const auto send = [](const std::string& bytes) {
    return [=](Ends ends) { EXPECT_NE(-1, write(ends[1], bytes.data(), bytes.size())); };
  };
  const auto expiries = [&](uint64_t count) {
    return send({reinterpret_cast<const char*>(&count), sizeof(count)});
  };
  const auto hang_up = [](Ends ends) { close(ends[1]); };
  const auto shut_down = [](Ends ends) { shutdown(ends[1], SHUT_WR); };
  const struct {
    const char* name;
    Kind kind;
    uint16_t events;
    std::function<void(Ends)> act;
    int32_t result; // of the callback
    Flags flags;    // of its calls
    bool stays;
    const char* told = "";
  } rows[] = {
      {"input", kMessages, kPersistentRead, send("x"), 0, {kRead}, true},
      {"a failing callback", kMessages, kPersistentRead, send("x"), -1, {kRead}, true},
      {"both", kMessages, kBoth | kPersist, send("x"), 0, {kBoth}, true},
      {"one-shot", kMessages, kRead, send("x"), 0, {kRead}, false},
      {"close", kMessages, kPersistentRead, hang_up, 0, {kRead | kClosed}, false},
      {"close, room watched", kMessages, kWrite | kPersist, hang_up, 0, {kWrite | kClosed}, false},
      {"shutdown", kMessages, kPersistentRead, shut_down, 0, {kRead | kClosed}, false},
      {"hang-up, no close", kPipe, kPersistentRead, hang_up, 0, {kBoth}, true},
      {"told by its callback", kMessages, kPersistentRead, send("x"), kPeerClosed, {kRead}, false, "427"},
      {"timer", kPipe, kTimer | kPersist, expiries(5), kPeerClosed, Flags(5, kRead), true},
      {"late timer", kPipe, kTimer | kPersist, expiries(6), 0, Flags(5, kRead), true},
      {"idle timer", kPipe, kTimer | kPersist, expiries(0), 0, {}, true},
      {"broken timer", kPipe, kTimer | kPersist, send("abc"), 0, {}, true, "425 8 3"},
      {"one-shot timer", kPipe, kTimer, expiries(1), 0, {kRead}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Ends ends = make_ends(row.kind);
    Watch& event = watch(ends[0], row.events);
    event.result = row.result;
    row.act(ends);
    const GateAt debug(QN_LOG_D);
    StderrCapture capture;
    run();
    EXPECT_EQ(row.flags, event.flags);
    EXPECT_NE(std::string::npos, capture.brief().find(row.told));
    EXPECT_EQ(row.stays ? 1 : 0, others());
    EXPECT_EQ(row.stays, is_open(ends[0]));
    if (row.stays) qn_event_del(event.event), qn_event_free(event.event);
  }
}

TEST_F(EventBase, TellsACloseThatAnErrorHasHidden) {
  const Ends ends = make_ends(kMessages);
  Watch& first = watch(ends[0], kPersistentRead);
  Watch& last = watch(ends[0], kWrite | kPersist);
  char byte = 'u';
  first.action = [&] { EXPECT_GT(1, read(ends[0], &byte, 1)) << "takes the error"; };
  EXPECT_EQ(1, write(ends[0], &byte, 1)); // and never read
  close(ends[1]);
  run();
  EXPECT_EQ(Flags{kBoth}, first.flags);
  run();
  EXPECT_EQ((Flags{kBoth, kWrite | kClosed}), first.flags) << "and room: what was asked for last";
  EXPECT_FALSE(is_open(ends[0]));
  qn_event_del(last.event);
  last.event->fd = -1; // the other event owned it
  qn_event_free(last.event);
}

TEST_F(EventBase, GivesReadinessToTheEventRegisteredFirst) {
  const int fd = counter(0);
  Watch& first = watch(fd, kPersistentRead);
  Watch& second = watch(fd, kPersistentRead);
  Watch& third = watch(fd, kPersistentRead);
  const auto calls_when_ready = [&] {
    eventfd_write(fd, 1);
    run();
    return std::array{first.flags.size(), second.flags.size(), third.flags.size()};
  };
  EXPECT_EQ((std::array<size_t, 3>{1, 0, 0}), calls_when_ready());
  // The kernel knows the descriptor once, so it is out of epoll until one of its events is added again.
  qn_event_del(first.event);
  EXPECT_EQ((std::array<size_t, 3>{1, 0, 0}), calls_when_ready());
  EXPECT_EQ(0, qn_event_add(first.event));
  EXPECT_EQ((std::array<size_t, 3>{1, 1, 0}), calls_when_ready());
  // The order is second, third, first now; one in the middle and the first one go.
  qn_event_del(third.event);
  qn_event_del(second.event);
  EXPECT_EQ(0, qn_event_add(third.event));
  EXPECT_EQ((std::array<size_t, 3>{2, 1, 0}), calls_when_ready());
  EXPECT_EQ(0, qn_event_add(second.event)); // the base frees it
}

TEST_F(EventBase, StopsBehindTheCallbackThatStopsIt) {
  const int full = counter(UINT64_MAX - 1); // no room left
  watch(counter(1), kPersistentRead).action = [this] { qn_ev_base_stop(base_); };
  const Watch& last = watch(full, kBoth | kPersist);
  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  qn_ev_base_loop(base_);
  EXPECT_EQ("437, 423 2, 439 3 2, 428 0 1", capture.brief());
  EXPECT_EQ(Flags{}, last.flags);

  // It waits for the next run, and what becomes ready meanwhile is added to what it knows.
  eventfd_t value;
  eventfd_read(full, &value);
  run();
  EXPECT_EQ(Flags{kBoth}, last.flags);
}

TEST_F(EventBase, GrowsItsArrayAndItsTable) {
  constexpr int kCount = 4500; // 64 + 128 + ... + 1024 + 2048 + 468
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < kCount + 100) GTEST_SKIP() << "the limit of descriptors is too low";
  for (int i = 0; i < kCount; i++) watch(counter(1), kPersistentRead);
  // Descriptors that have no event, inside the table and outside, and one that is none.
  for (const int unknown : {base_->epoll_op.epfd, 1 << 20, -1}) {
    epoll_event entry = {.events = EPOLLIN | EPOLLET, .data = {.fd = unknown}};
    ASSERT_EQ(0, epoll_ctl(base_->epoll_op.epfd, EPOLL_CTL_ADD, counter(1), &entry));
  }
  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  run();
  EXPECT_EQ(
      "437, 423 64, 418 64 128, 439 4501 64, 437, 423 128, 418 128 256, 439 4501 128, "
      "437, 423 256, 418 256 512, 439 4501 256, 437, 423 512, 418 512 1024, 439 4501 512, "
      "437, 423 1024, 418 1024 2048, 439 4501 1024, 437, 423 2048, 439 4501 2048, "
      "437, 423 472, 439 4501 469, 428 0 1",
      capture.brief());
  for (const Watch& event : watches_) ASSERT_EQ(Flags{kRead}, event.flags) << event.event->fd;
}

} // namespace
