// The bus client: tables filled by the process, one thread that serves them.
//
// Life of the thread: connect, subscribe, run the business handlers once, serve until the loop ends. A
// lost connection is repaired from inside the loop.
extern "C" { // which headers from before 2020 do not say themselves
#include <libubus.h>
}

#include <pthread.h>
#include <quillcore/bus.h>

#include <atomic>
#include <csignal>
#include <cstddef>

#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/standard_streams.h"

namespace {

using qn::Message;
using qn::Trace;

constexpr char kModule[] = "qn_ubus";
constexpr char kAddHandler[] = "qn_ubus_add_handler";
constexpr char kAddEvent[] = "qn_ubus_add_event_handler";
constexpr char kStart[] = "qn_ubus_start";
constexpr char kLoop[] = "qn_ubus_loop";
constexpr char kRunBiz[] = "qn_ubus_run_biz_handler";
constexpr char kReconnect[] = "qn_ubus_reconnect_timer";
constexpr char kCaller[] = "nill";

constexpr Message kHandlersFull{QN_LOG_E, 626, kModule, kAddHandler,
                                "handler_counter=%u >= HANDLER_SIZE=%u"};
constexpr Message kHandlerUpdated{QN_LOG_I, 627, kModule, kAddHandler, "update type=%d ok."};
constexpr Message kHandlerAdded{QN_LOG_I, 628, kModule, kAddHandler,
                                "add type=%d ok. handler_counter=%d"};
constexpr Message kEventParam{QN_LOG_E, 0, kModule, kAddEvent, "param error, event_name=%s"};
constexpr Message kEventsFull{QN_LOG_E, 0, kModule, kAddEvent,
                              "register_event_counter=%u >= REGISTER_EVENT_SIZE=%u"};
constexpr Message kEventNameTooLong{QN_LOG_E, 0, kModule, kAddEvent, "strcpy_s error, event_name=%s"};
constexpr Message kEventAdded{QN_LOG_I, 0, kModule, kAddEvent,
                              "add event_name=%s ok. register_event_counter=%u"};
constexpr Message kNoPath{QN_LOG_E, 629, kModule, kStart, "path is NULL"};
constexpr Message kThreadFailed{QN_LOG_E, 631, kModule, kStart, "create ubus client thread failed."};
constexpr Trace kTraceStart{kModule, kStart, 630, kStart, 632, kStart, kCaller};
constexpr Message kPathTooLong{QN_LOG_E, 620, kModule, kLoop, "strcpy_s faile. path=%s."};
constexpr Message kConnectFailed{QN_LOG_E, 621, kModule, kLoop, "Failed to connect to ubus."};
constexpr Message kConnected{QN_LOG_I, 622, kModule, kLoop, "ubus_connect ok."};
constexpr Message kRegister{QN_LOG_I, 618, kModule, "qn_ubus_register_event",
                            "register_event type=%s START."};
constexpr Message kRegisterFailed{QN_LOG_E, 0, kModule, kLoop, "qn_ubus_register_event failed."};
constexpr Message kBizStart{QN_LOG_D, 618, kModule, kRunBiz, "RUN biz handler type=%u START."};
constexpr Message kBizEnd{QN_LOG_D, 619, kModule, kRunBiz, "RUN biz handler type=%u END. ret=%d"};
constexpr Message kBizFailed{QN_LOG_E, 0, kModule, kLoop, "qn_ubus_run_biz_handler failed."};
constexpr Message kBizDone{QN_LOG_I, 623, kModule, kLoop, "qn_ubus_run_biz_handler ok."};
constexpr Message kRunExit{QN_LOG_I, 624, kModule, kLoop, "exit uloop run ok."};
constexpr Message kDoneExit{QN_LOG_I, 625, kModule, kLoop, "exit uloop done ok."};
constexpr Message kReconnectFailed{QN_LOG_E, 616, kModule, kReconnect,
                                   "Failed to reconnect, trying again in %d seconds."};
constexpr Message kReconnected{QN_LOG_I, 617, kModule, kReconnect, "reconnected to ubus, new id: %08x"};

constexpr int kReconnectSeconds = 2;
constexpr int kMillisPerSecond = 1000;
constexpr unsigned int kSocketFlags = ULOOP_READ | ULOOP_BLOCKING;
constexpr int kRunForever = -1;

struct HandlerRow {
  uint32_t type;
  qn_ubus_biz_handler_t handler;
};

struct RegisterEventRow {
  char event_name[QN_UBUS_EVENT_NAME_MAX + 1];
  ubus_event_handler_t handler;
};

void qn_ubus_reconnect_timer(uloop_timeout* timer);

HandlerRow handlers[HANDLER_SIZE];
uint32_t handler_counter = 0;
RegisterEventRow register_events[REGISTER_EVENT_SIZE];
uint32_t register_event_counter = 0;
ubus_context* ubus_ctx = nullptr;
char ubus_path[QN_UBUS_PATH_MAX + 1];
uloop_timeout reconnect_timer = {};

// Of each row's subscription. The bus keeps them as long as the connection lives, and a reconnect
// subscribes with the same ones again.
ubus_event_handler event_handlers[REGISTER_EVENT_SIZE];

bool joining = false; // the first subscription or an attempt to come back is under way
bool lost_meanwhile = false;

// --- signals ---

// uloop takes SIGINT and SIGTERM for itself and gives them back only when it is done. Where the thread
// ends before that, the process could not be ended by them any more. And a run of the loop begins by
// forgetting a signal that has come: it is noted here on its way to uloop's handler, and the loop's first
// timer looks.
std::atomic<bool> end_signal_came{false};
std::atomic<void (*)(int)> loop_handler{nullptr};
static_assert(std::atomic<bool>::is_always_lock_free && decltype(loop_handler)::is_always_lock_free);

void on_end_signal(int number) {
  end_signal_came = true;
  loop_handler.load()(number);
}

void end_again(uloop_timeout*) {
  if (end_signal_came) uloop_cancelled = true;
}

class EndSignals {
 public:
  EndSignals() {
    for (Row& row : rows_) sigaction(row.number, nullptr, &row.before);
  }

  // Where uloop has taken it: a handler of the process stays, and uloop has left it alone.
  void note_on_the_way() {
    for (Row& row : rows_) {
      sigaction(row.number, nullptr, &row.taken);
      if (row.taken.sa_handler == row.before.sa_handler) continue;
      loop_handler = row.taken.sa_handler;
      struct sigaction noting = row.taken;
      noting.sa_handler = on_end_signal;
      sigaction(row.number, &noting, nullptr);
    }
  }

  void leave_to_uloop() const { put_back(&Row::taken); }
  void leave_to_process() const { put_back(&Row::before); }

 private:
  struct Row {
    int number;
    struct sigaction before, taken;
  };

  // What the process has set in the meantime stays.
  void put_back(struct sigaction Row::*kept) const {
    for (const Row& row : rows_) {
      struct sigaction current = {};
      sigaction(row.number, nullptr, &current);
      if (current.sa_handler == on_end_signal) sigaction(row.number, &(row.*kept), nullptr);
    }
  }

  Row rows_[2] = {{SIGINT, {}, {}}, {SIGTERM, {}, {}}};
};

// --- subscriptions and business handlers ---

enum class Occasion { kFirst, kAgain };

// All rows, also after one has failed. Returns the results, ORed.
int subscribe(Occasion occasion) {
  int failure = 0;
  for (uint32_t i = 0; i < register_event_counter; i++) {
    const RegisterEventRow& row = register_events[i];
    if (row.handler == nullptr) continue;
    if (occasion == Occasion::kFirst) QN_LOG(kRegister, row.event_name);
    failure |= ubus_register_event_handler(ubus_ctx, &event_handlers[i], row.event_name);
  }
  return failure;
}

int32_t run_business_handlers() {
  int32_t failure = 0;
  for (uint32_t i = 0; i < handler_counter; i++) {
    const HandlerRow& row = handlers[i];
    if (row.handler == nullptr) continue;
    QN_LOG(kBizStart, row.type);
    const int32_t result = row.handler(ubus_ctx);
    failure |= result;
    QN_LOG(kBizEnd, row.type, result);
  }
  return failure;
}

void clear_event_handlers() {
  for (uint32_t i = 0; i < REGISTER_EVENT_SIZE; i++) {
    memset_s(&event_handlers[i], sizeof(event_handlers[i]), 0, sizeof(event_handlers[i]));
    event_handlers[i].cb = register_events[i].handler;
  }
}

// --- repairing a lost connection ---

// The socket is watched first: if the broker goes away during the subscription, the loop sees it. One
// that cannot be watched is as good as lost.
bool rejoin() {
  qn::fill_standard_streams(); // one may have been closed since
  if (ubus_reconnect(ubus_ctx, ubus_path) != 0) {
    // Its descriptor is closed, and the next attempt would close the number once more, whoever has it.
    ubus_ctx->sock.fd = -1;
    return false;
  }
  if (lost_meanwhile || uloop_fd_add(&ubus_ctx->sock, kSocketFlags) != 0) return false;
  if (subscribe(Occasion::kAgain) == 0 && !lost_meanwhile) return true;
  // Left in the loop, the dead socket would start another attempt beside the timer.
  uloop_fd_delete(&ubus_ctx->sock);
  return false;
}

// What is done meanwhile starts no attempt of its own when the connection is lost: it is noted.
template <typename Result>
Result join_by(Result (*steps)()) {
  joining = true;
  lost_meanwhile = false;
  const Result result = steps();
  joining = false;
  return result;
}

void qn_ubus_reconnect_timer(uloop_timeout*) {
  if (join_by(rejoin)) {
    // A timer still pending would tear the good connection down.
    uloop_timeout_cancel(&reconnect_timer);
    QN_LOG(kReconnected, ubus_ctx->local_id);
    return;
  }
  QN_LOG(kReconnectFailed, kReconnectSeconds);
  uloop_timeout_set(&reconnect_timer, kReconnectSeconds * kMillisPerSecond);
}

// Comes from the loop, which has taken a dead socket out before it tells, or from inside any call that
// waits for an answer. An attempt that waits then counts as failed. A handler's call has to end first: on
// a connection made anew under it, a libubus from before May 2025 waits for ever for an answer of the old
// one.
void qn_ubus_connection_lost(ubus_context* ctx) {
  if (joining) {
    lost_meanwhile = true;
  } else if (ctx->sock.registered) {
    uloop_timeout_set(&reconnect_timer, 0); // the attempt is what the loop does next
  } else {
    qn_ubus_reconnect_timer(&reconnect_timer);
  }
}

// --- the thread ---

void free_context() {
  uloop_timeout_cancel(&reconnect_timer); // an attempt may be due
  ubus_free(ubus_ctx);
  ubus_ctx = nullptr;
}

bool connect_bus(const char* path) {
  if (strcpy_s(ubus_path, sizeof(ubus_path), path) != 0) return QN_FAIL(false, kPathTooLong, path);
  ubus_ctx = ubus_connect(ubus_path);
  if (ubus_ctx == nullptr) return QN_FAIL(false, kConnectFailed);
  QN_LOG(kConnected);
  ubus_ctx->connection_lost = qn_ubus_connection_lost;
  if (uloop_fd_add(&ubus_ctx->sock, kSocketFlags) == 0) return true;
  QN_LOG(kConnectFailed);
  free_context();
  return false;
}

// The failure word is looked at once behind each step.
bool join_bus() {
  clear_event_handlers();
  if (join_by<int>([] { return subscribe(Occasion::kFirst); }) != 0) {
    QN_LOG(kRegisterFailed);
    free_context();
    return false;
  }
  if (lost_meanwhile) qn_ubus_reconnect_timer(&reconnect_timer);
  if (run_business_handlers() != 0) {
    QN_LOG(kBizFailed);
    free_context();
    return false;
  }
  QN_LOG(kBizDone);
  return true;
}

void run_loop() {
  uloop_timeout first = {};
  first.cb = end_again;
  uloop_timeout_set(&first, 0);
  uloop_run_timeout(kRunForever);
  uloop_timeout_cancel(&first);
}

void* qn_ubus_loop(void* arg) {
  reconnect_timer.cb = qn_ubus_reconnect_timer;
  EndSignals signals;
  // The loop would take the status of children that other threads wait for.
  uloop_handle_sigchld = false;
  uloop_cancelled = false; // an earlier loop of the process may have left it set
  uloop_init();
  const bool connected = connect_bus(static_cast<const char*>(arg)); // which may make the loop, too
  signals.note_on_the_way();
  if (!connected || !join_bus()) {
    signals.leave_to_process();
    return nullptr;
  }
  if (!uloop_cancelled) run_loop(); // a signal or a handler may have ended it already
  free_context();
  QN_LOG(kRunExit);
  signals.leave_to_uloop();
  uloop_done();
  QN_LOG(kDoneExit);
  return nullptr;
}

} // namespace

int32_t qn_ubus_init(void) {
  memset_s(handlers, sizeof(handlers), 0, sizeof(handlers));
  return 0;
}

int32_t qn_ubus_add_handler(uint32_t type, qn_ubus_biz_handler_t handler) {
  if (handler_counter >= HANDLER_SIZE) return QN_FAIL(-1, kHandlersFull, handler_counter, HANDLER_SIZE);
  for (uint32_t i = 0; i < handler_counter; i++) {
    if (handlers[i].type != type) continue;
    handlers[i].handler = handler;
    QN_LOG(kHandlerUpdated, type);
    return 0;
  }
  handlers[handler_counter] = {type, handler};
  handler_counter++;
  QN_LOG(kHandlerAdded, type, handler_counter);
  return 0;
}

int32_t qn_ubus_add_event_handler(const char* event_name, qn_ubus_event_handler_t handler) {
  if (event_name == nullptr || handler == nullptr)
    return QN_FAIL(-1, kEventParam, event_name != nullptr ? event_name : "NULL");
  if (register_event_counter != 0)
    return QN_FAIL(-1, kEventsFull, register_event_counter, REGISTER_EVENT_SIZE);
  RegisterEventRow& row = register_events[0];
  if (strcpy_s(row.event_name, sizeof(row.event_name), event_name) != 0)
    return QN_FAIL(-1, kEventNameTooLong, event_name);
  register_event_counter++;
  row.handler = handler;
  QN_LOG(kEventAdded, row.event_name, register_event_counter);
  return 0;
}

int32_t qn_ubus_start(const char* path) {
  if (path == nullptr) return QN_FAIL(-1, kNoPath);
  qn::trace_enter(kTraceStart);
  qn::fill_standard_streams();
  pthread_t thread;
  if (pthread_create(&thread, nullptr, qn_ubus_loop, const_cast<char*>(path)) != 0)
    return QN_FAIL(-1, kThreadFailed);
  pthread_detach(thread);
  qn::trace_leave(kTraceStart);
  return 0;
}

int32_t qn_ubus_stop(void) { return 0; }
