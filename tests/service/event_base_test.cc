// The event base on real descriptors. Each run of the loop ends with a callback of the base's own event,
// the stopper, which becomes ready last.
#include "service/event_base.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <deque>
#include <functional>

#include "service/running.h"
#include "support/capture.h"
#include "support/main.h"

namespace {

constexpr uint16_t kPersistentRead = QN_EV_READ | QN_EV_PERSIST;

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

int counter(uint64_t value) {
  const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (value != 0) eventfd_write(fd, value);
  return fd;
}

void write_bytes(int fd, const std::string& bytes) {
  EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
}

struct Ends {
  int near;
  int far;
};

Ends message_pair() {
  int fds[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds));
  return {fds[0], fds[1]};
}

Ends pipe_from_far() {
  int fds[2];
  EXPECT_EQ(0, pipe2(fds, O_NONBLOCK | O_CLOEXEC));
  return {fds[0], fds[1]};
}

Ends pipe_to_far() {
  const Ends ends = pipe_from_far();
  return {ends.far, ends.near};
}

// One event, and what its callback saw.
struct Watch {
  int fd = -1;
  qn_event_t* event = nullptr;
  int32_t result = 0; // what the callback returns
  std::function<void()> action;
  std::vector<uint16_t> flags; // of each call
  uint32_t status_when_called = 0;
  std::vector<int>* order = nullptr; // the descriptors of all calls of the base
};

int32_t note(int32_t fd, uint16_t flags, void* arg) {
  Watch& watch = *static_cast<Watch*>(arg);
  watch.flags.push_back(flags);
  watch.status_when_called = watch.event->status;
  watch.order->push_back(fd);
  if (watch.action) watch.action();
  return watch.result;
}

using Flags = std::vector<uint16_t>;

class EventBase : public testing::Test {
 protected:
  EventBase() : kept_(open_descriptors()), cycle_(qn_cycle_new()), base_(qn_ev_base_new(cycle_)) {
    stopper_ = counter(0);
    watch(stopper_, kPersistentRead).action = [this] { stop(); };
  }

  ~EventBase() override {
    if (base_ != nullptr) qn_ev_base_free(base_);
    qn_cycle_free(cycle_);
    close_descriptors_not_in(kept_);
  }

  Watch& make(int fd, uint16_t events) {
    Watch& watch = watches_.emplace_back();
    watch.fd = fd;
    watch.order = &order_;
    watch.event = qn_event_new(base_, fd, events, note, &watch);
    return watch;
  }

  Watch& watch(int fd, uint16_t events) {
    Watch& made = make(fd, events);
    EXPECT_EQ(0, qn_event_add(made.event)) << fd;
    return made;
  }

  static void remove(const Watch& watch) {
    qn_event_del(watch.event);
    qn_event_free(watch.event);
  }

  void stop() { qn_ev_base_stop(base_); }

  // Handles all that is ready now.
  void run() {
    eventfd_write(stopper_, 1);
    qn_ev_base_loop(base_);
    std::erase(order_, stopper_);
  }

  // Registered events beside the stopper.
  int others() const { return base_->event_count - 1; }

  const GateAt quiet_{0};
  std::set<int> kept_;
  qn_cycle_t* cycle_;
  qn_ev_base_t* base_;
  int stopper_;
  std::deque<Watch> watches_;
  std::vector<int> order_;
};

// Raises the soft limit of descriptors to the hard one for a scope.
class ManyDescriptors {
 public:
  ManyDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit raised = {before_.rlim_max, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &raised);
  }
  ~ManyDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  bool reach(rlim_t count) const { return before_.rlim_max >= count; }

 private:
  rlimit before_;
};

TEST_F(EventBase, RefusesMissingArguments) {
  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  EXPECT_EQ(nullptr, qn_ev_base_new(nullptr));
  EXPECT_EQ(nullptr, qn_event_new(nullptr, stopper_, QN_EV_READ, note, nullptr));
  EXPECT_EQ(nullptr, qn_event_new(base_, stopper_, QN_EV_READ, nullptr, nullptr));
  qn_ev_base_loop(nullptr);
  qn_event_del(nullptr);
  qn_event_free(nullptr);
  EXPECT_EQ((std::vector<uint32_t>{430, 443, 444, 435}), capture.logids());
}

TEST_F(EventBase, RegistersFreshAndDeletedEventsOnly) {
  const int fd = counter(0);
  Watch& idle = make(fd, QN_EV_PERSIST);
  EXPECT_EQ(0, qn_event_add(idle.event));
  EXPECT_EQ(QN_EV_STATUS_INIT, idle.event->status);
  EXPECT_EQ(0, others());

  Watch& event = watch(fd, kPersistentRead);
  EXPECT_EQ(QN_EV_STATUS_INSERTED, event.event->status);
  const GateAt warnings(QN_LOG_W);
  StderrCapture capture;
  EXPECT_EQ(-1, qn_event_add(event.event));
  EXPECT_EQ(Told{"447 W event event_add: the event already in list, don't add again."},
            told(capture.records()));
  EXPECT_EQ(1, others());

  qn_event_del(event.event);
  qn_event_del(event.event);
  EXPECT_EQ(QN_EV_STATUS_DELETED, event.event->status);
  EXPECT_EQ(0, others());
  eventfd_write(fd, 1);
  run();
  EXPECT_EQ(Flags{}, event.flags);

  EXPECT_EQ(0, qn_event_add(event.event));
  run();
  EXPECT_EQ(Flags{QN_EV_READ}, event.flags) << "registered again, and ready at once";

  qn_event_del(idle.event);
  EXPECT_EQ(QN_EV_STATUS_DELETED, idle.event->status);
  idle.event->fd = -1; // the other event owns it
  qn_event_free(idle.event);

  // What the kernel cannot watch stays as it was.
  const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  for (const int unwatchable : {-1, file, 19999}) {
    Watch& refused = make(unwatchable, QN_EV_READ);
    EXPECT_EQ(-1, qn_event_add(refused.event)) << unwatchable;
    EXPECT_EQ(QN_EV_STATUS_INIT, refused.event->status);
    qn_event_free(refused.event);
  }
  EXPECT_FALSE(is_open(file)) << "the event owned it";
  EXPECT_EQ(1, others());
}

TEST_F(EventBase, TellsWhatBecameReady) {
  constexpr uint16_t kRead = QN_EV_READ, kWrite = QN_EV_WRITE, kBoth = kRead | kWrite;
  constexpr uint16_t kClosed = QN_EV_CLOSED;
  const struct {
    const char* name;
    Ends (*make)();
    uint16_t watched;
    void (*act)(Ends);
    uint16_t flags;
    bool stays;
  } rows[] = {
      {"input", message_pair, kRead, [](Ends e) { write_bytes(e.far, "x"); }, kRead, true},
      {"room", message_pair, kWrite, [](Ends) {}, kWrite, true},
      {"both", message_pair, kBoth, [](Ends e) { write_bytes(e.far, "x"); }, kBoth, true},
      {"close", message_pair, kRead, [](Ends e) { close(e.far); }, kRead | kClosed, false},
      {"input and close", message_pair, kRead, [](Ends e) { write_bytes(e.far, "x"), close(e.far); },
       kRead | kClosed, false},
      {"shutdown", message_pair, kRead, [](Ends e) { shutdown(e.far, SHUT_WR); }, kRead | kClosed, false},
      {"close, room watched", message_pair, kWrite, [](Ends e) { close(e.far); }, kWrite | kClosed,
       false},
      {"close with a message unread is an error", message_pair, kRead,
       [](Ends e) { write_bytes(e.near, "x"), close(e.far); }, kBoth, true},
      {"hang-up of a writer", pipe_from_far, kRead, [](Ends e) { close(e.far); }, kBoth, true},
      {"input and hang-up of a writer", pipe_from_far, kRead,
       [](Ends e) { write_bytes(e.far, "x"), close(e.far); }, kBoth, true},
      {"hang-up of a reader is an error", pipe_to_far, kWrite, [](Ends e) { close(e.far); }, kBoth, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Ends ends = row.make();
    Watch& event = make(ends.near, row.watched | QN_EV_PERSIST);
    row.act(ends);
    ASSERT_EQ(0, qn_event_add(event.event));
    run();
    EXPECT_EQ(Flags{row.flags}, event.flags);
    EXPECT_EQ(row.stays, is_open(ends.near));
    EXPECT_EQ(row.stays ? 1 : 0, others());
    // An event that goes is off its base before its callback runs.
    EXPECT_EQ(row.stays ? QN_EV_STATUS_INSERTED : QN_EV_STATUS_DELETED, event.status_when_called);
    if (row.stays) remove(event);
  }
}

TEST_F(EventBase, TellsACloseThatAnErrorHasHidden) {
  const Ends ends = message_pair();
  Watch& event = watch(ends.near, kPersistentRead);
  Watch& last = watch(ends.near, QN_EV_WRITE | QN_EV_PERSIST);
  run(); // room
  event.flags.clear();
  char byte;
  event.action = [&] { EXPECT_GT(1, read(ends.near, &byte, 1)) << "takes the error"; };
  write_bytes(ends.near, "unread");
  close(ends.far);
  run();
  EXPECT_EQ(Flags{QN_EV_READ | QN_EV_WRITE}, event.flags);
  run();
  EXPECT_EQ((Flags{QN_EV_READ | QN_EV_WRITE, QN_EV_WRITE | QN_EV_CLOSED}), event.flags)
      << "and room: what was asked for last";
  EXPECT_FALSE(is_open(ends.near));
  qn_event_del(last.event);
  last.event->fd = -1; // the other event owned it
  qn_event_free(last.event);
}

TEST_F(EventBase, ReportsAnEdgeOnce) {
  const Ends ends = message_pair();
  Watch& event = watch(ends.near, kPersistentRead);
  write_bytes(ends.far, "one");
  run();
  run();
  EXPECT_EQ(1u, event.flags.size()) << "unread input is no new edge";
  write_bytes(ends.far, "two");
  run();
  EXPECT_EQ(2u, event.flags.size());
}

TEST_F(EventBase, SkipsUrgentInputAndDescriptorsWithoutAnEvent) {
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
  Watch& urgent = watch(fds[0], kPersistentRead);
  epoll_event only_urgent = {.events = EPOLLPRI | EPOLLET, .data = {.fd = fds[0]}};
  ASSERT_EQ(0, epoll_ctl(base_->epoll_op.epfd, EPOLL_CTL_MOD, fds[0], &only_urgent));
  const bool sent_urgent = send(fds[1], "!", 1, MSG_OOB) == 1; // the kernel may be built without it
  pollfd ready = {fds[0], POLLPRI, 0};
  EXPECT_EQ(sent_urgent, poll(&ready, 1, 0) == 1);

  // Below and above the numbers that the base has seen, and a number that is no descriptor.
  const int unknown = counter(1);
  for (const int data : {unknown, 1 << 20, -1}) {
    const int fd = dup(unknown);
    epoll_event entry = {.events = EPOLLIN, .data = {.fd = data}};
    ASSERT_EQ(0, epoll_ctl(base_->epoll_op.epfd, EPOLL_CTL_ADD, fd, &entry));
  }
  const Watch& known = watch(counter(1), kPersistentRead);
  run();
  EXPECT_EQ(Flags{QN_EV_READ}, known.flags);
  EXPECT_EQ(Flags{}, urgent.flags);
  EXPECT_EQ(QN_EV_STATUS_INSERTED, urgent.event->status);
}

TEST_F(EventBase, GivesReadinessToTheEventRegisteredFirst) {
  const int fd = counter(0);
  Watch& first = watch(fd, kPersistentRead);
  Watch& second = watch(fd, kPersistentRead);
  Watch& third = watch(fd, kPersistentRead);
  const auto calls_after = [&](bool ready) {
    if (ready) eventfd_write(fd, 1);
    run();
    return std::vector<size_t>{first.flags.size(), second.flags.size(), third.flags.size()};
  };
  EXPECT_EQ(3, others());
  EXPECT_EQ((std::vector<size_t>{1, 0, 0}), calls_after(true));

  // The kernel knows the descriptor once, so it is out of epoll until one of its events is added again.
  qn_event_del(first.event);
  EXPECT_EQ((std::vector<size_t>{1, 0, 0}), calls_after(true));
  EXPECT_EQ(0, qn_event_add(first.event));
  EXPECT_EQ((std::vector<size_t>{1, 1, 0}), calls_after(false));

  // The order is second, third, first now; one in the middle and the last one go.
  qn_event_del(third.event);
  qn_event_del(first.event);
  EXPECT_EQ(0, qn_event_add(third.event));
  EXPECT_EQ((std::vector<size_t>{1, 2, 0}), calls_after(false));
  qn_event_del(second.event);
  EXPECT_EQ(0, qn_event_add(second.event));
  EXPECT_EQ((std::vector<size_t>{1, 2, 1}), calls_after(false));
  EXPECT_EQ(0, qn_event_add(first.event));
}

TEST_F(EventBase, KeepsOrReleasesAnEventAfterItsCallback) {
  const struct {
    const char* name;
    uint16_t events;
    int32_t result;
    bool stays;
    bool reported;
  } rows[] = {
      {"persistent", kPersistentRead, 0, true, false},
      {"persistent, failing", kPersistentRead, -1, true, false},
      {"persistent, peer closed", kPersistentRead, QN_EV_PEER_CLOSED, false, true},
      {"one-shot", QN_EV_READ, 0, false, false},
      {"one-shot, peer closed", QN_EV_READ, QN_EV_PEER_CLOSED, false, true},
      {"timer", QN_EV_TIMER | QN_EV_PERSIST, QN_EV_PEER_CLOSED, true, false},
      {"one-shot timer", QN_EV_TIMER, 0, false, false},
  };
  const GateAt debug(QN_LOG_D);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    StderrCapture capture;
    const int fd = counter(1);
    Watch& event = watch(fd, row.events);
    event.result = row.result;
    bool open_when_called = false;
    event.action = [&] { open_when_called = is_open(fd); };
    run();
    EXPECT_EQ(Flags{QN_EV_READ}, event.flags);
    EXPECT_TRUE(open_when_called);
    EXPECT_EQ(row.stays, is_open(fd));
    EXPECT_EQ(row.stays ? 1 : 0, others());
    const std::string closed =
        "427 D event process_active: event fd=" + std::to_string(fd) + " peer closed.";
    EXPECT_EQ(row.reported ? Told{closed} : Told{}, told(capture.records(427)));
    if (row.stays) remove(event);
  }
}

TEST_F(EventBase, CallsATimerOncePerExpiryButAtMostFiveTimes) {
  const auto bytes_of = [](uint64_t count) {
    return std::string(reinterpret_cast<const char*>(&count), sizeof(count));
  };
  const struct {
    std::string bytes; // what a read gives; none for the end of the stream
    size_t calls;
    Told told;
  } rows[] = {
      {bytes_of(0), 0, {}},
      {bytes_of(5), 5, {}},
      {bytes_of(6), 5, {}},
      {bytes_of(1000000), 5, {}},
      {"abc", 0, {"425 W event evtimer_process_active: read error, expected 8 bytes, but got 3"}},
      {"", 0, {"425 W event evtimer_process_active: read error, expected 8 bytes, but got 0"}},
  };
  const GateAt warnings(QN_LOG_W);
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.bytes));
    const Ends ends = pipe_from_far();
    Watch& timer = watch(ends.near, QN_EV_TIMER | QN_EV_PERSIST);
    write_bytes(ends.far, row.bytes);
    if (row.bytes.empty()) close(ends.far);
    StderrCapture capture;
    run();
    EXPECT_EQ(row.calls, timer.flags.size());
    EXPECT_EQ(row.told, told(capture.records()));
    EXPECT_EQ(QN_EV_STATUS_INSERTED, timer.event->status);
    remove(timer);
  }

  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const Watch& timer = watch(fd, QN_EV_TIMER | QN_EV_PERSIST);
  const itimerspec soon = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_nsec = 1}};
  timerfd_settime(fd, 0, &soon, nullptr);
  pollfd ready = {fd, POLLIN, 0};
  ASSERT_EQ(1, poll(&ready, 1, 30000));
  run();
  EXPECT_EQ(Flags{QN_EV_READ}, timer.flags);
}

TEST_F(EventBase, StopsBehindTheCallbackThatStopsIt) {
  const int fds[] = {counter(1), counter(1), counter(UINT64_MAX - 1)}; // the last has no room left
  watch(fds[0], kPersistentRead).action = [this] { stop(); };
  watch(fds[1], QN_EV_READ);
  const Watch& last = watch(fds[2], QN_EV_READ | QN_EV_WRITE | QN_EV_PERSIST);
  const GateAt debug(QN_LOG_D);
  {
    StderrCapture capture;
    qn_ev_base_loop(base_);
    EXPECT_EQ(Told{"428 D event process_active: event processing break. ev_running=0,ev_event_break=1"},
              told(capture.records(428)));
  }
  EXPECT_EQ(std::vector<int>{fds[0]}, order_);
  EXPECT_EQ(2, base_->event_count_active);

  // They wait for the next run, and what becomes ready meanwhile is added to what they know.
  eventfd_t value;
  eventfd_read(fds[2], &value);
  const GateAt errors(QN_LOG_E);
  run();
  EXPECT_EQ((std::vector<int>{fds[0], fds[1], fds[2]}), order_);
  EXPECT_EQ(Flags{QN_EV_READ | QN_EV_WRITE}, last.flags);
  EXPECT_EQ(0, base_->event_count_active);
  EXPECT_EQ(2, others());

  // One that still waits is released with its base, but not its descriptor.
  eventfd_write(fds[0], 1);
  eventfd_write(fds[2], 1);
  qn_ev_base_loop(base_);
  EXPECT_EQ(1, base_->event_count_active);
  const int epfd = base_->epoll_op.epfd;
  qn_ev_base_free(base_);
  base_ = nullptr;
  EXPECT_FALSE(is_open(epfd));
  EXPECT_TRUE(is_open(fds[2]));
}

TEST_F(EventBase, SeesAStopWhenASignalInterruptsItsWait) {
  struct sigaction interrupt = {}, before;
  interrupt.sa_handler = [](int) {};
  sigaction(SIGUSR1, &interrupt, &before);
  std::atomic<bool> ended = false;
  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  std::thread loop([&] { qn_ev_base_loop(base_), ended = true; });
  EXPECT_TRUE(eventually([&] { return !capture.records(437).empty(); })) << "the loop is about to wait";
  stop();
  EXPECT_TRUE(eventually([&] { return pthread_kill(loop.native_handle(), SIGUSR1), ended.load(); }));
  loop.join();
  EXPECT_EQ((std::vector<uint32_t>{437, 421}), capture.logids());
  sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(EventBase, LeavesTheLoopWhenItCannotWait) {
  watch(counter(1), kPersistentRead).action = [this] {
    close(base_->epoll_op.epfd);
    base_->epoll_op.epfd = -1;
  };
  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  qn_ev_base_loop(base_);
  Told end = told(capture.records());
  end.erase(end.begin(), end.end() - std::min<ptrdiff_t>(2, std::ssize(end)));
  EXPECT_EQ((Told{"422 E event epoll_dispatch: epoll_wait failed:nfds=-1, errno=(9,Bad file descriptor)",
                  "438 D event base_loop: epoll dispatch failed.res=-17."}),
            end);
  EXPECT_EQ(1, base_->ev_running);
}

TEST_F(EventBase, GrowsItsArrayFromWaitToWait) {
  constexpr int kCount = 4500; // 64 + 128 + ... + 1024 + 2048 + 468
  const ManyDescriptors limit;
  if (!limit.reach(kCount + 100)) GTEST_SKIP() << "the limit of descriptors is too low";
  for (int i = 0; i < kCount; i++) watch(counter(1), kPersistentRead);

  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  run();
  Told waits, steps;
  for (const int count : {64, 128, 256, 512, 1024, 2048, 469}) {
    waits.push_back("423 D event epoll_dispatch: epoll_wait return success, nfds=" +
                    std::to_string(count));
  }
  for (const int count : {64, 128, 256, 512, 1024}) {
    steps.push_back("418 D event epoll_dispatch: realloc epoll_op->events from " + std::to_string(count) +
                    " to " + std::to_string(2 * count) + " success.");
  }
  EXPECT_EQ(waits, told(capture.records(423)));
  EXPECT_EQ(steps, told(capture.records(418)));
  EXPECT_EQ(2048, base_->epoll_op.nevents);
  for (const Watch& event : watches_) ASSERT_EQ(Flags{QN_EV_READ}, event.flags) << event.fd;
}

TEST_F(EventBase, FindsEventsByDescriptorsOfAnySize) {
  const ManyDescriptors limit;
  std::vector<Watch*> found;
  for (const int number : {200, 64, 63, 65, 127, 128, 129, 1023, 1024, 2047, 2048, 4000}) {
    if (!limit.reach(static_cast<rlim_t>(number) + 10))
      GTEST_SKIP() << "the limit of descriptors is too low";
    const int ready = counter(1);
    found.push_back(&watch(fcntl(ready, F_DUPFD_CLOEXEC, number), kPersistentRead));
  }
  // Events come to the base during a callback too, in numbers that it has never seen.
  const int higher = fcntl(found[0]->fd, F_DUPFD_CLOEXEC, 4090);
  found[0]->action = [&] { found.push_back(&watch(higher, kPersistentRead)); };
  run();
  ASSERT_EQ(13u, found.size());
  run();
  for (const Watch* event : found) EXPECT_EQ(Flags{QN_EV_READ}, event->flags) << event->fd;
}

} // namespace
