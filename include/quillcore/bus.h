// Bus: one ubus client thread for a process.
//
// What a daemon must know:
//   - There is one uloop in a process and one client. The bus thread runs it, with all business and event
//     handlers; a handler that blocks stalls the bus.
//   - A context that a business handler keeps belongs to the bus thread: libubus and uloop have no locks.
//   - While the loop runs, SIGTERM and SIGINT end the loop and not the process, unless the process set
//     handlers of its own before qn_ubus_start(). One that comes while the thread connects, subscribes or
//     runs the business handlers ends the loop as it begins. Where the thread ends before its loop, they
//     are put back and one that came until then is lost. SIGPIPE is ignored from the start on, unless it
//     has a handler.
//     A child that is forked meanwhile inherits the handlers of the loop: its first steps put them back.
//   - SIGCHLD is left alone: the loop takes no child's status away from whoever waits for it.
//   - A first connection is not tried again: the thread ends, and only the log tells (621). A connection
//     that was lost is repaired without limit, at once and then every two seconds, and the subscription
//     is in force again when 617 is logged. Events sent meanwhile are lost.
//   - A handler whose call of libubus meets the loss gets that call's failure first; the attempt comes as
//     the loop goes on, behind the event or behind 623. Until 617 every further call fails. Objects of
//     the process's own are then on the bus again, under new ids; its own patterns are not.
//   - libubus waits without a limit: a call of it, an attempt and a first connection hang as long as a
//     broker is stopped, and SIGTERM has no effect meanwhile. A broker that lives on while another takes
//     its path is not missed. Where the library was built without libubus, each wait ends after two
//     seconds.
//   - A handler reads the fields of an event with libubox's blobmsg functions, which a process has only
//     where libubox is installed; type and message are valid during its call only.
//
// Threads: init, the add functions and the start are called on one thread, in this order; the stop on
// any.
#ifndef QUILLCORE_BUS_H
#define QUILLCORE_BUS_H

#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define HANDLER_SIZE 8            // business handlers
#define REGISTER_EVENT_SIZE 1     // event subscriptions
#define QN_UBUS_EVENT_NAME_MAX 31 // bytes of an event's pattern
#define QN_UBUS_PATH_MAX 255      // bytes of the bus socket's path

struct ubus_context; // libubus's
struct ubus_event_handler;
struct blob_attr;

// Called once, on the bus thread, with the connection. Returns 0 for success; after any other result all
// handlers run and then the thread ends.
typedef int32_t (*qn_ubus_biz_handler_t)(struct ubus_context* ctx);

// Called on the bus thread for each event; the same type as libubus's ubus_event_handler_t.
typedef void (*qn_ubus_event_handler_t)(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                        const char* type, struct blob_attr* msg);

// Empties the rows of the business handlers. Their count stays: rows added before are skipped, and new
// ones go behind them, but one of type 0 takes the first emptied row. Returns 0.
QN_API int32_t qn_ubus_init(void);

// Adds a business handler under `type`, or replaces the one of that type. A null handler is skipped.
// Returns 0; -1 when HANDLER_SIZE rows are in use, also for a type that is among them (logged, 626).
QN_API int32_t qn_ubus_add_handler(uint32_t type, qn_ubus_biz_handler_t handler);

// Subscribes to the events whose type is `event_name`, or begins with it where its last character is "*".
// The name is copied.
// Returns 0; -1 for a null argument, a second subscription or a name of more than QN_UBUS_EVENT_NAME_MAX
// bytes (each logged).
QN_API int32_t qn_ubus_add_event_handler(const char* event_name, qn_ubus_event_handler_t handler);

// Starts the bus thread, with a stack of the platform's default size, once in a process. `path` names the
// bus socket and must stay valid until the thread has copied it: a literal or static buffer does.
// The descriptors of libubox and libubus can take numbers 0 to 2 where these are closed, and what is
// printed would go to the broker: so /dev/null is put there first, for good.
// Returns 0 when the thread was created, which says nothing about the connection; -1 for a null path
// (629) and when it was not created (631). A path longer than QN_UBUS_PATH_MAX shows in the log only
// (620).
QN_API int32_t qn_ubus_start(const char* path);

// Does nothing: the thread lives as long as its loop. Returns 0.
QN_API int32_t qn_ubus_stop(void);

QN_END_DECLS

#endif // QUILLCORE_BUS_H
