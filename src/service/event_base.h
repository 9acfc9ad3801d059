// Event base: an edge-triggered loop on epoll for one thread.
//
// A base belongs to the thread that runs its loop. Everything here runs there, callbacks included, one at
// a time and never nested; the one exception is qn_ev_base_stop().
//
// Life of an event, by its status:
//
//   new -> INIT -> (add) INSERTED -> (ready) INSERTED|ACTIVE -> (processed, persistent) INSERTED
//                                                            -> (one-shot or peer closed) DELETED
//
// A one-shot event and one whose peer has closed are deleted before their callback runs; after it the
// descriptor is closed and the record released. So a callback needs no action of its own when a peer
// closes. A callback must not delete or free another event of its base.
//
// A peer that closes with something unread is told twice: as an error, which is input and room at once,
// and when the callback has read, which takes the error, as closed.
#ifndef QN_SERVICE_EVENT_BASE_H
#define QN_SERVICE_EVENT_BASE_H

#include <quillcore/context.h>
#include <sys/epoll.h>

#include <cstdint>

#include "container/list.h"

// Flags of `events` and of a callback's result flags.
constexpr uint16_t QN_EV_READ = 0x01;    // watch for input; input is ready
constexpr uint16_t QN_EV_WRITE = 0x02;   // watch for room; writing is possible
constexpr uint16_t QN_EV_PERSIST = 0x10; // stays registered after it has fired
constexpr uint16_t QN_EV_TIMER = 0x20;  // the descriptor yields an 8-byte expiry count, as a timerfd does
constexpr uint16_t QN_EV_CLOSED = 0x40; // result only: the peer has closed

// Bits of an event's status.
constexpr uint32_t QN_EV_STATUS_INSERTED = 1; // on the base's list and known to epoll
constexpr uint32_t QN_EV_STATUS_ACTIVE = 2;   // ready and not yet processed
constexpr uint32_t QN_EV_STATUS_DELETED = 64; // off both lists, out of epoll
constexpr uint32_t QN_EV_STATUS_INIT = 128;   // just created, never added

// From a callback: the peer has closed, give the event up. Every other result is ignored.
constexpr int32_t QN_EV_PEER_CLOSED = -20;

using qn_ev_callback_t = int32_t (*)(int32_t fd, uint16_t flags, void* arg);

struct qn_ev_base_t;

struct qn_event_t {
  qn::ListLink list_link;   // on the base's event_list
  qn::ListLink active_link; // on the base's active_list
  qn_ev_base_t* base;
  int32_t fd; // owned: qn_event_free() closes it
  uint16_t events;
  qn_ev_callback_t callback;
  void* arg;
  uint32_t res; // result flags of the pending activation
  uint32_t status;
  qn_event_t* next_same_fd; // registered later on the same descriptor
};

struct qn_epoll_op_t {
  epoll_event* events;
  int32_t nevents; // capacity of `events`
  int32_t epfd;
};

struct qn_ev_base_t {
  qn_cycle_t* cycle;
  uint8_t ev_running;     // 1 while the loop is to go on; cleared from any thread
  uint8_t ev_event_break; // 0 ends the current batch of callbacks
  qn_epoll_op_t epoll_op;
  qn::ListLink active_list; // in order of arrival
  int32_t event_count;
  int32_t event_count_active;
  qn::ListLink event_list; // in order of registration
  qn_event_t** by_fd;      // first registered event of each descriptor below by_fd_size
  uint32_t by_fd_size;
  int32_t fd_to_rearm; // armed anew as soon as the base has closed a descriptor; -1 for none
};

// Makes a stopped base. Returns null for a null cycle (430) and when memory or descriptors are short
// (432, 433).
qn_ev_base_t* qn_ev_base_new(qn_cycle_t* cycle);

// Runs callbacks until the base is stopped or epoll_wait() fails for another reason than a signal.
void qn_ev_base_loop(qn_ev_base_t* base);

// Makes the loop end at its next wake-up, after the callback that runs then. Wakes nothing. Any thread
// may call it while the base exists.
void qn_ev_base_stop(qn_ev_base_t* base);

// Lets the events of a descriptor be told again what it is ready for, as if it had become so just now.
// A descriptor without an event is ignored.
void qn_ev_base_rearm(qn_ev_base_t& base, int32_t fd);

// Releases the base and the records of its events. The descriptors of events that are still registered
// stay open.
void qn_ev_base_free(qn_ev_base_t* base);

// Makes an event that is not registered yet and takes over `fd`. Returns null for a null base or callback
// (443, 444) and when memory is short (445); `fd` stays the caller's then.
qn_event_t* qn_event_new(qn_ev_base_t* base, int32_t fd, uint16_t events, qn_ev_callback_t callback,
                         void* arg);

// Registers a fresh or deleted event. Returns 0, also for an event that watches nothing, which stays as
// it was; -1 for a registered one (447) and when the descriptor cannot be watched.
int32_t qn_event_add(qn_event_t* event);

// Takes an event off its base. Null is ignored.
void qn_event_del(qn_event_t* event);

// Closes the event's descriptor and releases the record, which must be off its base. Null is ignored.
void qn_event_free(qn_event_t* event);

#endif // QN_SERVICE_EVENT_BASE_H
