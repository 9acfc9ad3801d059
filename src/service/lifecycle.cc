// Start, run and stop of a service on its own detached thread.
#include <fcntl.h>
#include <quillcore/socket.h>
#include <quillcore/thread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "core/log_record.h"
#include "core/pool.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"
#include "service/service.h"

namespace {

using qn::Message;
using qn::MutexGuard;
using qn::StandardStreamsHeld;
using qn::UniqueFd;

constexpr char kModule[] = "qn_service";

constexpr Message kAcceptEventFailed{QN_LOG_E, 579, kModule, "service_accept", "new event timer failed."};
constexpr Message kServerFailed{QN_LOG_E, 580, kModule, "create_socket_server",
                                "create unix socket server failed."};
constexpr Message kListenerEventFailed{QN_LOG_E, 581, kModule, "create_socket_server",
                                       "new event timer failed."};
constexpr Message kBaseFailed{QN_LOG_E, 582, kModule, "service_loop", "new event base failed."};
constexpr Message kBaseMade{QN_LOG_I, 583, kModule, "service_loop", "new event base success."};
constexpr Message kStartFailed{QN_LOG_E, 584, kModule, "service_loop", "start unix socket server failed"};
constexpr Message kLoopStarts{QN_LOG_I, 585, kModule, "service_loop", "quillnet service loop start."};
constexpr Message kLoopExits{QN_LOG_I, 586, kModule, "service_loop", "quillnet service loop exit."};

constexpr uint16_t kEventFlags = QN_EV_READ | QN_EV_PERSIST;
constexpr int32_t kNullArgument = -2;
constexpr int32_t kNoMemory = -2;
constexpr int32_t kStopWithoutCycle = -3;

// Covers the slots of every cycle and the `base` of every record, so that a stop never writes into a
// base that its thread has released. Nothing is logged or allocated under it.
constinit pthread_mutex_t g_stop_lock = PTHREAD_MUTEX_INITIALIZER;

void publish_base(qn_service_t& service, qn_ev_base_t* base) {
  const MutexGuard guard(g_stop_lock);
  service.base = base;
}

void clear_record(qn_service_t& service) {
  const MutexGuard guard(g_stop_lock);
  memset_s(&service, sizeof(service), 0, sizeof(service));
}

// An event that has taken the descriptor over, or null: the guard still owns the descriptor then.
qn_event_t* make_event(qn_service_t& service, UniqueFd& fd, qn_ev_callback_t callback) {
  qn_event_t* const event = qn_event_new(service.base, fd.get(), kEventFlags, callback, &service);
  if (event != nullptr) fd.release();
  return event;
}

// Registers an event. One that cannot be registered is released with its descriptor.
int32_t register_event(qn_event_t* event) {
  const int32_t result = qn_event_add(event);
  if (result != 0) qn_event_free(event);
  return result;
}

// The listener's next connection, close-on-exec before all else.
int accept_close_on_exec(int32_t listener, socklen_t* length) {
  sockaddr_un peer;
  // NOLINTNEXTLINE(android-cloexec-accept): the flag is set in the next line
  const int fd = accept(listener, reinterpret_cast<sockaddr*>(&peer), length);
  if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

// The same, out of reach of fork() and never as standard output or standard error.
int accept_connection(int32_t listener, bool streams_are_open, socklen_t* length) {
  int fd = -1;
  if (streams_are_open) {
    const MutexGuard guard(qn::g_standard_streams_lock);
    fd = accept_close_on_exec(listener, length);
  } else {
    const StandardStreamsHeld held(STDOUT_FILENO);
    fd = accept_close_on_exec(listener, length);
  }
  return fd == STDIN_FILENO ? fd : StandardStreamsHeld::above(fd);
}

// Accepting has ended. What is queued still gets no edge of its own any more.
int32_t leave_queue(qn_ev_base_t& base, int32_t listener, int last, int error) {
  if (last == STDIN_FILENO) {
    // In a process that has closed its standard input one connection stays there, open and unserved;
    // those behind it get other numbers.
    qn_ev_base_rearm(base, listener);
  } else {
    base.fd_to_rearm = error == EAGAIN ? -1 : listener;
  }
  return 0;
}

// Edges are reported once, so it takes all connections that are queued.
int32_t qn_service_accept(int32_t listener, uint16_t /*flags*/, void* arg) {
  qn_service_t& service = *static_cast<qn_service_t*>(arg);
  // Asked once a wake-up, not for each connection.
  const bool streams_are_open = StandardStreamsHeld::are_streams(STDOUT_FILENO);
  socklen_t length = sizeof(sockaddr_un);
  for (;;) {
    UniqueFd fd(accept_connection(listener, streams_are_open, &length));
    if (fd.get() < 1) return leave_queue(*service.base, listener, fd.release(), errno);
    qn_sock_set_nonblock(fd.get());
    qn_event_t* const event = make_event(service, fd, qn_service_process_msg);
    if (event == nullptr) {
      QN_LOG(kAcceptEventFailed);
      continue;
    }
    register_event(event);
  }
}

int32_t qn_service_create_socket_server(qn_service_t& service) {
  int32_t listener = -1;
  const int32_t result =
      qn_sock_create_unix_socket_server(service.conf->server_path, service.conf->backlog, &listener);
  if (result != 0) return QN_FAIL(result, kServerFailed);
  UniqueFd fd(listener);
  qn_sock_set_nonblock(fd.get());
  qn_event_t* const event = make_event(service, fd, qn_service_accept);
  if (event == nullptr) return QN_FAIL(-1, kListenerEventFailed);
  return register_event(event);
}

// The base leaves the record before it is released.
void free_base(qn_service_t& service) {
  qn_ev_base_t* const base = service.base;
  publish_base(service, nullptr);
  qn_ev_base_free(base);
}

void* qn_service_loop(void* arg) {
  qn_service_t& service = *static_cast<qn_service_t*>(arg);
  qn_ev_base_t* const base = qn_ev_base_new(service.cycle);
  if (base == nullptr) return QN_FAIL(nullptr, kBaseFailed);
  QN_LOG(kBaseMade);
  publish_base(service, base);
  if (qn_service_create_socket_server(service) != 0) {
    QN_LOG(kStartFailed);
    free_base(service);
    clear_record(service);
    return nullptr;
  }
  QN_LOG(kLoopStarts);
  qn_ev_base_loop(base);
  free_base(service);
  QN_LOG(kLoopExits);
  clear_record(service);
  return nullptr;
}

} // namespace

int32_t qn_service_start_with_thread(qn_cycle_t* cycle, const qn_service_conf_t* conf,
                                     const qn_apis_t* apis, pthread_t* thread) {
  if (cycle == nullptr || conf == nullptr) return kNullArgument;
  qn_service_t* const service = qn::pcalloc_object<qn_service_t>(cycle->pool);
  if (service == nullptr) return kNoMemory;
  service->cycle = cycle;
  service->apis = apis;
  service->conf = conf;

  pthread_t created;
  const uint32_t slot = conf->slot;
  const int32_t result = qn_pthread_new(&created, qn_service_loop, service);
  if (result != 0) return result;
  if (thread != nullptr) *thread = created;
  qn_pthread_detach(created);

  const MutexGuard guard(g_stop_lock);
  cycle->services[slot] = service;
  return 0;
}

int32_t qn_service_stop_with_thread(qn_cycle_t* cycle) {
  if (cycle == nullptr) return kStopWithoutCycle;
  const MutexGuard guard(g_stop_lock);
  for (qn_service_t* const service : cycle->services) {
    if (service != nullptr && service->base != nullptr) qn_ev_base_stop(service->base);
  }
  return 0;
}
