// Event base: making, registering and the loop.
//
// epoll names the descriptor, not the event. The list of events keeps the order of registration; beside
// it a table by descriptor gives the first event of each in constant time, and later events of the same
// descriptor hang behind it in order.
#include "service/event_base.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "core/heap.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/error_text.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"

namespace {

using qn::ErrorText;
using qn::ListLink;
using qn::Message;
using qn::Trace;
using qn::TraceScope;

constexpr char kModule[] = "event";

constexpr Message kNoCycle{QN_LOG_E, 430, kModule, "base_new", "missing qn context."};
constexpr Message kBaseFailed{QN_LOG_E, 432, kModule, "base_new", "malloc event base failed."};
constexpr Message kEpollFailed{QN_LOG_E, 433, kModule, "base_new", "epoll init failed."};
constexpr Message kNoBase{QN_LOG_W, 443, kModule, "event_new", "base is null."};
constexpr Message kNoCallback{QN_LOG_W, 444, kModule, "event_new", "event callback is null."};
constexpr Message kEventFailed{QN_LOG_W, 445, kModule, "event_new", "event malloc failed."};
constexpr Message kAlreadyAdded{QN_LOG_W, 447, kModule, "event_add",
                                "the event already in list, don't add again."};
constexpr Message kLoopWithoutBase{QN_LOG_W, 435, kModule, "base_loop", "event base is null."};
constexpr Message kWaiting{QN_LOG_D, 437, kModule, "base_loop", "wait epoll ......"};
constexpr Message kInterrupted{QN_LOG_D, 421, kModule, "epoll_dispatch", "epoll_wait occurr EINTR"};
constexpr Message kWaitFailed{QN_LOG_E, 422, kModule, "epoll_dispatch",
                              "epoll_wait failed:nfds=%d, errno=(%d,%s)"};
constexpr Message kDispatchFailed{QN_LOG_D, 438, kModule, "base_loop", "epoll dispatch failed.res=%d."};
constexpr Message kWaited{QN_LOG_D, 423, kModule, "epoll_dispatch", "epoll_wait return success, nfds=%d"};
constexpr Message kGrown{QN_LOG_D, 418, kModule, "epoll_dispatch",
                         "realloc epoll_op->events from %d to %d success."};
constexpr Message kGrowFailed{QN_LOG_W, 419, kModule, "epoll_dispatch",
                              "realloc epoll_op->events from %d to %d failed."};
constexpr Message kCounts{QN_LOG_D, 439, kModule, "base_loop", "event_count=%d, event_count_active=%d"};
constexpr Message kTimerReadFailed{QN_LOG_W, 425, kModule, "evtimer_process_active",
                                   "read error, expected %d bytes, but got %d"};
constexpr Message kPeerClosed{QN_LOG_D, 427, kModule, "process_active", "event fd=%d peer closed."};
constexpr Message kBatchBroken{QN_LOG_D, 428, kModule, "process_active",
                               "event processing break. ev_running=%d,ev_event_break=%d"};

constexpr Trace kTraceNew{kModule, "qn_ev_base_new", 431, "base_new", 434, "base_new"};
constexpr Trace kTraceLoop{kModule, "qn_ev_base_loop", 436, "base_loop", 440, "base_loop"};
constexpr Trace kTraceDispatch{kModule, "qn_event_epoll_dispatch", 420, "epoll_dispatch",
                               424,     "epoll_dispatch"};
constexpr Trace kTraceActive{kModule, "qn_ev_active_events", 416, "active_event", 417, "active_event"};
constexpr Trace kTraceProcess{
    kModule, "qn_event_process_active_events", 426, "process_active", 429, "process_active"};

constexpr int32_t kFirstCapacity = 64;
constexpr int32_t kLastCapacity = 2048; // a wait that fills it leaves it as it is
constexpr int32_t kDispatchError = -17;
constexpr uint64_t kTimerCallsMax = 5;
constexpr uint32_t kFirstTableSize = 64;
constexpr uint16_t kWatchFlags = QN_EV_READ | QN_EV_WRITE | QN_EV_TIMER;

constexpr struct {
  uint16_t events;
  uint32_t interest;
} kInterests[] = {
    {QN_EV_READ | QN_EV_TIMER, EPOLLIN},
    {QN_EV_WRITE, EPOLLOUT},
};

constexpr struct {
  uint32_t ready;
  uint32_t res;
} kResults[] = {
    {EPOLLIN, QN_EV_READ},
    {EPOLLOUT, QN_EV_WRITE},
    {EPOLLRDHUP, QN_EV_CLOSED},
};

uint8_t load_flag(uint8_t& flag) {
  return std::atomic_ref<uint8_t>(flag).load(std::memory_order_relaxed);
}

void store_flag(uint8_t& flag, uint8_t value) {
  std::atomic_ref<uint8_t>(flag).store(value, std::memory_order_relaxed);
}

qn_event_t& event_of_list_link(ListLink& link) {
  return qn::list_entry<qn_event_t>(link, offsetof(qn_event_t, list_link));
}

qn_event_t& event_of_active_link(ListLink& link) {
  return qn::list_entry<qn_event_t>(link, offsetof(qn_event_t, active_link));
}

// --- the table by descriptor ---

qn_event_t* first_event_of(const qn_ev_base_t& base, int32_t fd) {
  const uint32_t index = static_cast<uint32_t>(fd);
  return index < base.by_fd_size ? base.by_fd[index] : nullptr;
}

// Makes room for `fd`; the table only grows. False when memory is short: nothing has changed then.
bool table_reserve(qn_ev_base_t& base, int32_t fd) {
  const uint32_t index = static_cast<uint32_t>(fd);
  if (index < base.by_fd_size) return true;
  uint32_t size = base.by_fd_size != 0 ? base.by_fd_size : kFirstTableSize;
  while (size <= index) size *= 2;

  const size_t bytes = size * sizeof(qn_event_t*);
  qn_event_t** const table = static_cast<qn_event_t**>(qn_alloc(static_cast<uint32_t>(bytes)));
  if (table == nullptr) return false;
  memcpy_s(table, bytes, base.by_fd, base.by_fd_size * sizeof(qn_event_t*));
  qn_free(base.by_fd);
  base.by_fd = table;
  base.by_fd_size = size;
  return true;
}

void table_append(qn_ev_base_t& base, qn_event_t& event) {
  qn_event_t** slot = &base.by_fd[event.fd];
  while (*slot != nullptr) slot = &(*slot)->next_same_fd;
  event.next_same_fd = nullptr;
  *slot = &event;
}

void table_remove(qn_ev_base_t& base, qn_event_t& event) {
  qn_event_t** slot = &base.by_fd[event.fd];
  while (*slot != &event) slot = &(*slot)->next_same_fd;
  *slot = event.next_same_fd;
  event.next_same_fd = nullptr;
}

// --- epoll ---

int make_epoll() {
  const qn::StandardStreamsHeld held;
  return qn::StandardStreamsHeld::above(epoll_create1(EPOLL_CLOEXEC));
}

int32_t epoll_set(const qn_event_t& event, int command) {
  epoll_event interest = {};
  interest.events = EPOLLET | EPOLLRDHUP;
  for (const auto& row : kInterests) {
    if ((event.events & row.events) != 0) interest.events |= row.interest;
  }
  interest.data.fd = event.fd;
  return epoll_ctl(event.base->epoll_op.epfd, command, event.fd, &interest) == 0 ? 0 : -1;
}

int32_t epoll_watch(const qn_event_t& event) {
  if (epoll_set(event, EPOLL_CTL_ADD) == 0) return 0;
  return errno == EEXIST ? epoll_set(event, EPOLL_CTL_MOD) : -1;
}

uint32_t result_flags(uint32_t ready) {
  // An error, or a hang-up of both directions at once: whatever is watched shall run and find out.
  if ((ready & EPOLLERR) != 0 || (ready & (EPOLLHUP | EPOLLRDHUP)) == EPOLLHUP) {
    return QN_EV_READ | QN_EV_WRITE;
  }
  uint32_t res = 0;
  for (const auto& row : kResults) {
    if ((ready & row.ready) != 0) res |= row.res;
  }
  return res;
}

void qn_ev_active_events(qn_ev_base_t& base, int32_t fd, uint32_t res) {
  qn::trace_enter(kTraceActive);
  qn_event_t* const event = first_event_of(base, fd);
  if (event == nullptr) return;
  if ((event->status & QN_EV_STATUS_ACTIVE) != 0) {
    event->res |= res;
    return;
  }
  event->res = res;
  qn::list_append(base.active_list, event->active_link);
  base.event_count_active++;
  event->status |= QN_EV_STATUS_ACTIVE;
  qn::trace_leave(kTraceActive);
}

// Doubles the array when the wait has filled it. The entries have been handled, so nothing is copied; the
// old array stays in force when there is no memory for a new one.
void grow_array(qn_epoll_op_t& op, int32_t returned) {
  const int32_t filled = returned < kLastCapacity - 1 ? returned : kLastCapacity - 1;
  if (op.nevents > filled) return;

  const int32_t capacity = op.nevents * 2;
  const uint32_t size = static_cast<uint32_t>(capacity) * static_cast<uint32_t>(sizeof(epoll_event));
  epoll_event* const events = static_cast<epoll_event*>(qn_alloc(size));
  if (events == nullptr) {
    QN_LOG(kGrowFailed, op.nevents, capacity);
    return;
  }
  QN_LOG(kGrown, op.nevents, capacity);
  qn_free(op.events);
  op.events = events;
  op.nevents = capacity;
}

// A peer that closes with something of ours unread is an error, which hides the close, and no other edge
// comes. With this one the next wait tells the close, once the callback's read has taken the error.
void ask_again_behind_error(qn_ev_base_t& base, const epoll_event& entry) {
  constexpr uint32_t kErrorAndClose = EPOLLERR | EPOLLRDHUP;
  if ((entry.events & kErrorAndClose) == kErrorAndClose) qn_ev_base_rearm(base, entry.data.fd);
}

// Waits once and puts the events that became ready on the active list. Returns 0, EINTR included, or
// kDispatchError.
int32_t qn_event_epoll_dispatch(qn_ev_base_t& base, bool* interrupted) {
  const TraceScope trace(kTraceDispatch);
  qn_epoll_op_t& op = base.epoll_op;
  const int32_t nfds = epoll_wait(op.epfd, op.events, op.nevents, -1);
  const int32_t error = errno;
  *interrupted = nfds < 0 && error == EINTR;
  if (*interrupted) return QN_FAIL(0, kInterrupted);
  if (nfds < 0) return QN_FAIL(kDispatchError, kWaitFailed, nfds, error, ErrorText(error).text());
  QN_LOG(kWaited, nfds);
  for (int32_t i = 0; i < nfds; i++) {
    const uint32_t res = result_flags(op.events[i].events);
    if (res != 0) qn_ev_active_events(base, op.events[i].data.fd, res);
    ask_again_behind_error(base, op.events[i]);
  }
  grow_array(op, nfds);
  return 0;
}

// --- callbacks ---

void leave_active_list(qn_event_t& event) {
  qn::list_remove(event.active_link);
  event.status &= ~QN_EV_STATUS_ACTIVE;
  event.base->event_count_active--;
}

void call_timer(qn_event_t& event) {
  uint64_t count = 0;
  const ssize_t got = read(event.fd, &count, sizeof(count));
  if (got != static_cast<ssize_t>(sizeof(count))) {
    QN_LOG(kTimerReadFailed, static_cast<int>(sizeof(count)), static_cast<int>(got));
    return;
  }
  // A timer that expired many times while the loop was busy must not keep it busy.
  if (count > kTimerCallsMax) count = kTimerCallsMax;
  for (; count > 0; count--) event.callback(event.fd, static_cast<uint16_t>(event.res), event.arg);
}

void call_once(qn_event_t& event) {
  if (event.callback(event.fd, static_cast<uint16_t>(event.res), event.arg) != QN_EV_PEER_CLOSED) return;
  qn_event_del(&event);
  QN_LOG(kPeerClosed, event.fd);
}

// Closes the event's descriptor: room for what has waited for one.
void release_event(qn_ev_base_t& base, qn_event_t& event) {
  qn_event_free(&event);
  if (base.fd_to_rearm < 0) return;
  qn_ev_base_rearm(base, base.fd_to_rearm);
  base.fd_to_rearm = -1;
}

void process_event(qn_ev_base_t& base, qn_event_t& event) {
  if ((event.events & QN_EV_PERSIST) != 0 && (event.res & QN_EV_CLOSED) == 0) {
    leave_active_list(event);
  } else {
    qn_event_del(&event);
  }

  if ((event.events & QN_EV_TIMER) != 0) {
    call_timer(event);
  } else {
    call_once(event);
  }
  if (event.status == QN_EV_STATUS_DELETED) release_event(base, event);
}

void qn_event_process_active_events(qn_ev_base_t& base) {
  const TraceScope trace(kTraceProcess);
  for (ListLink* link = base.active_list.next; link != &base.active_list;) {
    ListLink* const next = link->next;
    process_event(base, event_of_active_link(*link));
    const uint8_t running = load_flag(base.ev_running);
    if (running == 0 || base.ev_event_break == 0) {
      QN_LOG(kBatchBroken, running, base.ev_event_break);
      return;
    }
    link = next;
  }
}

// Both lists are emptied; the descriptors stay as they are.
void release_events(qn_ev_base_t& base) {
  while (!qn::list_is_empty(base.active_list)) qn::list_remove(*base.active_list.next);
  while (!qn::list_is_empty(base.event_list)) {
    ListLink& link = *base.event_list.next;
    qn::list_remove(link);
    qn_free(&event_of_list_link(link));
  }
}

} // namespace

qn_ev_base_t* qn_ev_base_new(qn_cycle_t* cycle) {
  if (cycle == nullptr) return QN_FAIL_CONSOLE(nullptr, kNoCycle);
  const TraceScope trace(kTraceNew);
  qn::HeapPtr<qn_ev_base_t> base = qn::make_heap<qn_ev_base_t>();
  if (!base) return QN_FAIL(nullptr, kBaseFailed);
  qn::UniqueFd epfd(make_epoll());
  qn::HeapPtr<epoll_event> events;
  if (epfd.valid()) {
    events.reset(static_cast<epoll_event*>(qn_alloc(kFirstCapacity * sizeof(epoll_event))));
  }
  if (!events) return QN_FAIL(nullptr, kEpollFailed);
  qn::list_init(base->active_list);
  qn::list_init(base->event_list);
  base->cycle = cycle;
  base->fd_to_rearm = -1;
  base->epoll_op = {events.release(), kFirstCapacity, epfd.release()};
  return base.release();
}

void qn_ev_base_loop(qn_ev_base_t* base) {
  if (base == nullptr) {
    QN_CONSOLE(kLoopWithoutBase);
    return;
  }
  const TraceScope trace(kTraceLoop);
  store_flag(base->ev_running, 1);
  base->ev_event_break = 1;
  while (load_flag(base->ev_running) != 0) {
    QN_LOG(kWaiting);
    bool interrupted = false;
    const int32_t result = qn_event_epoll_dispatch(*base, &interrupted);
    if (result != 0) {
      QN_LOG(kDispatchFailed, result);
      return;
    }
    if (interrupted) continue;
    QN_LOG(kCounts, base->event_count, base->event_count_active);
    if (base->event_count_active != 0) qn_event_process_active_events(*base);
  }
}

void qn_ev_base_stop(qn_ev_base_t* base) { store_flag(base->ev_running, 0); }

void qn_ev_base_rearm(qn_ev_base_t& base, int32_t fd) {
  const qn_event_t* event = first_event_of(base, fd);
  if (event == nullptr) return;
  // What the kernel watches is what the event added last asked for.
  while (event->next_same_fd != nullptr) event = event->next_same_fd;
  epoll_set(*event, EPOLL_CTL_MOD);
}

void qn_ev_base_free(qn_ev_base_t* base) {
  release_events(*base);
  if (base->epoll_op.epfd >= 0) close(base->epoll_op.epfd);
  qn_free(base->epoll_op.events);
  qn_free(base->by_fd);
  qn_free(base);
}

qn_event_t* qn_event_new(qn_ev_base_t* base, int32_t fd, uint16_t events, qn_ev_callback_t callback,
                         void* arg) {
  if (base == nullptr) return QN_FAIL(nullptr, kNoBase);
  if (callback == nullptr) return QN_FAIL(nullptr, kNoCallback);
  qn_event_t* const event = qn::make_heap<qn_event_t>().release();
  if (event == nullptr) return QN_FAIL(nullptr, kEventFailed);
  qn::list_init(event->list_link);
  qn::list_init(event->active_link);
  event->base = base;
  event->fd = fd;
  event->events = events;
  event->callback = callback;
  event->arg = arg;
  event->status = QN_EV_STATUS_INIT;
  return event;
}

int32_t qn_event_add(qn_event_t* event) {
  if ((event->status & (QN_EV_STATUS_INIT | QN_EV_STATUS_DELETED)) == 0)
    return QN_FAIL(-1, kAlreadyAdded);
  if ((event->events & kWatchFlags) == 0) return 0;

  qn_ev_base_t& base = *event->base;
  if (event->fd < 0 || !table_reserve(base, event->fd)) return -1;
  if (epoll_watch(*event) != 0) return -1;
  table_append(base, *event);
  qn::list_append(base.event_list, event->list_link);
  base.event_count++;
  event->status = QN_EV_STATUS_INSERTED;
  return 0;
}

void qn_event_del(qn_event_t* event) {
  if (event == nullptr) return;
  qn_ev_base_t& base = *event->base;
  if ((event->status & QN_EV_STATUS_ACTIVE) != 0) leave_active_list(*event);
  if ((event->status & QN_EV_STATUS_INSERTED) != 0) {
    qn::list_remove(event->list_link);
    table_remove(base, *event);
    epoll_ctl(base.epoll_op.epfd, EPOLL_CTL_DEL, event->fd, nullptr);
    base.event_count--;
  }
  event->status = QN_EV_STATUS_DELETED;
}

void qn_event_free(qn_event_t* event) {
  if (event == nullptr) return;
  if (event->fd >= 0) close(event->fd);
  qn_free(event);
}
