// A client of the bus.
//
// Everything runs on the thread of the event loop. A request is sent and its answer waited for in place;
// events that come in meanwhile are kept and handed out after the request has ended, never inside it.
// What cannot be a message, and an answer that does not come in time, count as a lost connection: a
// client that is out of step would wait for ever for the rest of something that never was a message.
#include <libubus.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/monotonic.h"
#include "standin/message.h"

namespace {

using namespace qn::bus;

constexpr char kDefaultPath[] = "/var/run/ubus/ubus.sock";
constexpr uint32_t kEventObject = 1;
constexpr uint32_t kLocalIdMin = 2; // smaller ids stand for the broker itself
constexpr int64_t kWaitMs = 2000;
constexpr int kDeliverLaterMs = 1;

// A whole message in one block: the body begins at a multiple of 4.
struct Message {
  Message* next;
  MessageHead head;
  size_t received; // bytes of the body
  alignas(8) uint8_t body[];
};

struct MessageFree {
  void operator()(Message* message) const { free(message); }
};
using MessagePtr = std::unique_ptr<Message, MessageFree>;

} // namespace

struct ubus_connection {
  ubus_object* objects;                 // event handlers, each by its first member
  uint16_t seq;                         // of the last request; goes on over a reconnect
  bool lost;                            // the read routine has met the end
  bool waiting;                         // inside a request
  uint8_t head_bytes[kMessageHeadSize]; // the message that is coming in
  size_t head_received;
  Message* incoming; // its body, once the head is whole
  Message* events;   // kept while a request waits, oldest first
  uloop_timeout deliver;
  ubus_context* context; // for the timer, which knows only itself
};

namespace {

ubus_event_handler& handler_of(ubus_object& object) {
  return *reinterpret_cast<ubus_event_handler*>(&object);
}

// --- receiving ---

void drop_incoming(ubus_connection& connection) {
  free(connection.incoming);
  connection.incoming = nullptr;
  connection.head_received = 0;
}

void drop_events(ubus_connection& connection) {
  while (connection.events != nullptr) {
    const MessagePtr event(connection.events);
    connection.events = event->next;
  }
}

enum class ReadResult { kMore, kWhole, kNothing, kLost };

ReadResult read_some(int fd, uint8_t* bytes, size_t wanted, size_t* received) {
  const ssize_t got = read(fd, bytes + *received, wanted - *received);
  if (got < 0) return errno == EAGAIN || errno == EINTR ? ReadResult::kNothing : ReadResult::kLost;
  if (got == 0) return ReadResult::kLost;
  *received += static_cast<size_t>(got);
  return *received == wanted ? ReadResult::kWhole : ReadResult::kMore;
}

ReadResult begin_body(ubus_connection& connection) {
  MessageHead head;
  if (!parse_head(connection.head_bytes, &head)) return ReadResult::kLost;
  Message* const message = static_cast<Message*>(malloc(sizeof(Message) + head.body_len));
  if (message == nullptr) return ReadResult::kLost;
  message->next = nullptr;
  message->head = head;
  message->received = 0;
  connection.incoming = message;
  return head.body_len == 0 ? ReadResult::kWhole : ReadResult::kMore;
}

// Reads as much of one message as is there.
ReadResult receive(ubus_context& ctx) {
  ubus_connection& connection = *ctx.connection;
  ReadResult result = ReadResult::kMore;
  while (result == ReadResult::kMore) {
    if (connection.incoming == nullptr) {
      result = read_some(ctx.sock.fd, connection.head_bytes, kMessageHeadSize, &connection.head_received);
      if (result == ReadResult::kWhole) result = begin_body(connection);
    } else {
      Message& message = *connection.incoming;
      result = read_some(ctx.sock.fd, message.body, message.head.body_len, &message.received);
    }
  }
  if (result == ReadResult::kLost) {
    connection.lost = true;
    drop_incoming(connection);
  }
  return result;
}

MessagePtr take_message(ubus_connection& connection) {
  MessagePtr message(connection.incoming);
  connection.incoming = nullptr;
  connection.head_received = 0;
  return message;
}

// Waits until the socket is ready or the deadline has passed.
bool wait_ready(int fd, short events, int64_t deadline_ms) {
  for (;;) {
    const int64_t left = deadline_ms - qn::monotonic_ms();
    if (left <= 0) return false;
    struct pollfd poll_fd = {fd, events, 0};
    const int ready = poll(&poll_fd, 1, static_cast<int>(left));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

// The next whole message, or null: the deadline has passed or the connection is lost.
MessagePtr wait_message(ubus_context& ctx, int64_t deadline_ms) {
  for (;;) {
    const ReadResult result = receive(ctx);
    if (result == ReadResult::kWhole) return take_message(*ctx.connection);
    if (result == ReadResult::kLost || !wait_ready(ctx.sock.fd, POLLIN, deadline_ms)) return nullptr;
  }
}

// --- sending ---

bool send_message(ubus_context& ctx, MessageBuilder& message, int64_t wait_max_ms) {
  if (!message.finish()) return false;
  const int64_t deadline_ms = qn::monotonic_ms() + wait_max_ms;
  size_t sent = 0;
  while (sent < message.size()) {
    const ssize_t written =
        send(ctx.sock.fd, message.bytes() + sent, message.size() - sent, MSG_NOSIGNAL);
    if (written > 0) {
      sent += static_cast<size_t>(written);
    } else if (errno == EAGAIN) {
      if (!wait_ready(ctx.sock.fd, POLLOUT, deadline_ms)) break;
    } else if (errno != EINTR) {
      break;
    }
  }
  // A part of a message leaves the broker out of step, so nothing can follow it; nor can anything follow
  // what was waited for in vain.
  if (sent != message.size() && (sent != 0 || wait_max_ms != 0)) ctx.connection->lost = true;
  return sent == message.size();
}

// The broker itself, peer 0, sends events and drops their answers: one that it does not take at once,
// since it is busy or gone, is left out.
void send_status(ubus_context& ctx, const MessageHead& request, uint32_t status, bool has_objid,
                 uint32_t objid) {
  MessageBuilder answer(kStatus, request.seq, request.peer);
  answer.put_u32(kAttrStatus, status);
  answer.put_u32(kAttrObjId, has_objid ? objid : 0);
  send_message(ctx, answer, request.peer == 0 ? 0 : kWaitMs);
}

// --- events ---

// Null too for id 0: that is what an object has that the broker does not know.
ubus_object* find_object(const ubus_connection& connection, uint32_t id) {
  if (id == 0) return nullptr;
  ubus_object* object = connection.objects;
  while (object != nullptr && object->id != id) object = object->next;
  return object;
}

void handle_invoke(ubus_context& ctx, Message& message) {
  const MessageBody body = parse_body(message.body, message.head.body_len);
  if (!body.has_objid) return;
  ubus_object* const object = find_object(*ctx.connection, body.objid);
  if (object == nullptr) return send_status(ctx, message.head, UBUS_STATUS_NOT_FOUND, false, 0);
  if (body.method == nullptr) {
    return send_status(ctx, message.head, UBUS_STATUS_INVALID_ARGUMENT, false, 0);
  }
  if (body.data == nullptr) {
    return send_status(ctx, message.head, UBUS_STATUS_INVALID_ARGUMENT, true, body.objid);
  }
  ubus_event_handler& handler = handler_of(*object);
  handler.cb(&ctx, &handler, body.method, body.data);
  if (!body.no_reply) send_status(ctx, message.head, UBUS_STATUS_OK, true, body.objid);
}

void deliver_events(ubus_context& ctx) {
  ubus_connection& connection = *ctx.connection;
  while (connection.events != nullptr && !connection.waiting) {
    const MessagePtr event(connection.events);
    connection.events = event->next;
    handle_invoke(ctx, *event);
  }
}

void keep_event(ubus_connection& connection, MessagePtr event) {
  Message** place = &connection.events;
  while (*place != nullptr) place = &(*place)->next;
  *place = event.release();
}

// Right after a request: through the loop where that watches the socket, else at once.
void deliver_kept_events(ubus_context& ctx) {
  if (ctx.connection->events == nullptr) return;
  if (ctx.sock.registered) {
    uloop_timeout_set(&ctx.connection->deliver, kDeliverLaterMs);
  } else {
    deliver_events(ctx);
  }
}

// A socket that the loop has not found dead itself stays in it, which tells the two apart.
void tell_if_lost(ubus_context& ctx) {
  if (!ctx.connection->lost || ctx.sock.fd < 0) return;
  ctx.sock.eof = true;
  if (ctx.connection_lost != nullptr) ctx.connection_lost(&ctx);
}

void on_deliver(uloop_timeout* timer) {
  auto* const connection = reinterpret_cast<ubus_connection*>(reinterpret_cast<char*>(timer) -
                                                              offsetof(ubus_connection, deliver));
  ubus_context& ctx = *connection->context;
  deliver_events(ctx);
  tell_if_lost(ctx);
}

// The loop's callback. One message a call, since others wait for the loop; but a hang-up has taken the
// socket out of the loop, so then all that is left is read now.
void on_socket(uloop_fd* sock, unsigned int) {
  ubus_context& ctx = *reinterpret_cast<ubus_context*>(sock);
  ReadResult result = ReadResult::kNothing;
  do {
    result = receive(ctx);
    if (result != ReadResult::kWhole) break;
    const MessagePtr message = take_message(*ctx.connection);
    deliver_events(ctx);
    if (message->head.type == kInvoke) handle_invoke(ctx, *message);
  } while (ctx.sock.error && !ctx.connection->lost);
  if (ctx.sock.error) ctx.connection->lost = true;
  tell_if_lost(ctx);
}

// --- requests ---

// Sends a request and waits for its end. `objid`, if not null, takes the id that an answer carries.
int request(ubus_context& ctx, MessageBuilder& message, uint32_t peer, uint32_t* objid) {
  ubus_connection& connection = *ctx.connection;
  const uint16_t seq = connection.seq;
  if (!send_message(ctx, message, kWaitMs)) return UBUS_STATUS_INVALID_ARGUMENT;

  const int64_t deadline_ms = qn::monotonic_ms() + kWaitMs;
  int status = -1;
  bool late = false; // also where messages for others come without end
  connection.waiting = true;
  while (status < 0) {
    MessagePtr answer = late ? nullptr : wait_message(ctx, deadline_ms);
    if (!answer) {
      status = connection.lost ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT;
      // An answer that comes too late would be taken for that of another request one day.
      connection.lost = true;
    } else if (answer->head.type == kInvoke) {
      keep_event(connection, std::move(answer));
    } else if (answer->head.seq == seq && answer->head.peer == peer) {
      const MessageBody body = parse_body(answer->body, answer->head.body_len);
      if (answer->head.type == kData && body.has_objid && objid != nullptr) *objid = body.objid;
      if (answer->head.type == kStatus) {
        status = body.has_status ? static_cast<int>(body.status) : UBUS_STATUS_INVALID_ARGUMENT;
        if (status < 0) status = UBUS_STATUS_UNKNOWN_ERROR;
      }
    }
    late = qn::monotonic_ms() >= deadline_ms;
  }
  connection.waiting = false;
  return status;
}

int add_object(ubus_context& ctx, ubus_object& object) {
  MessageBuilder message(kAddObject, ++ctx.connection->seq, 0);
  uint32_t id = 0;
  const int status = request(ctx, message, 0, &id);
  if (status != UBUS_STATUS_OK) return status;
  if (id == 0) return UBUS_STATUS_NO_DATA;
  object.id = id;
  return UBUS_STATUS_OK;
}

int register_pattern(ubus_context& ctx, uint32_t object_id, const char* pattern) {
  MessageBuilder message(kInvoke, ++ctx.connection->seq, kEventObject);
  message.put_u32(kAttrObjId, kEventObject);
  message.put_string(kAttrMethod, "register");
  const size_t data = message.open_data();
  message.put_field_u32("object", object_id);
  if (pattern != nullptr) message.put_field_string("pattern", pattern);
  message.close_data(data);
  return request(ctx, message, kEventObject, nullptr);
}

void link_object(ubus_connection& connection, ubus_object& object) {
  for (const ubus_object* known = connection.objects; known != nullptr; known = known->next) {
    if (known == &object) return;
  }
  object.next = connection.objects;
  connection.objects = &object;
}

// --- connecting ---

int open_socket(const char* path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (strcpy_s(address.sun_path, sizeof(address.sun_path), path) != 0) return -1;
  qn::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // A full backlog gives EAGAIN at once on a socket that does not block: the broker is not there for us.
  if (!fd.valid() || connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
    return -1;
  return fd.release();
}

bool read_hello(ubus_context& ctx) {
  const MessagePtr hello = wait_message(ctx, qn::monotonic_ms() + kWaitMs);
  if (!hello || hello->head.type != kHello || hello->head.raw_peer < kLocalIdMin) return false;
  ctx.local_id = hello->head.raw_peer;
  return true;
}

void close_socket(ubus_context& ctx) {
  uloop_fd_delete(&ctx.sock);
  if (ctx.sock.fd >= 0) close(ctx.sock.fd);
  ctx.sock.fd = -1;
  drop_incoming(*ctx.connection);
}

// Objects get new ids, and none where the broker gives none; what then still waits for events learns it
// from the registration that follows.
void add_objects_again(ubus_context& ctx) {
  for (ubus_object* object = ctx.connection->objects; object != nullptr; object = object->next) {
    object->id = 0;
    if (!ctx.connection->lost) add_object(ctx, *object);
  }
}

} // namespace

ubus_context* ubus_connect(const char* path) {
  if (uloop_init() != 0) return nullptr;
  ubus_context* const ctx = static_cast<ubus_context*>(calloc(1, sizeof(ubus_context)));
  if (ctx == nullptr) return nullptr;
  ctx->connection = static_cast<ubus_connection*>(calloc(1, sizeof(ubus_connection)));
  ctx->sock.fd = -1;
  ctx->sock.cb = on_socket;
  if (ctx->connection == nullptr) {
    free(ctx);
    return nullptr;
  }
  ctx->connection->context = ctx;
  ctx->connection->deliver.cb = on_deliver;
  if (ubus_reconnect(ctx, path) == UBUS_STATUS_OK) return ctx;
  ubus_free(ctx);
  return nullptr;
}

int ubus_reconnect(ubus_context* ctx, const char* path) {
  close_socket(*ctx);
  ctx->sock.eof = ctx->sock.error = false;
  ctx->connection->lost = false;
  // Events of the old connection went to objects that are no more.
  drop_events(*ctx->connection);
  uloop_timeout_cancel(&ctx->connection->deliver);

  ctx->sock.fd = open_socket(path != nullptr ? path : kDefaultPath);
  if (ctx->sock.fd < 0) return UBUS_STATUS_CONNECTION_FAILED;
  if (!read_hello(*ctx)) {
    close_socket(*ctx);
    return UBUS_STATUS_UNKNOWN_ERROR;
  }
  add_objects_again(*ctx);
  deliver_kept_events(*ctx);
  tell_if_lost(*ctx);
  return UBUS_STATUS_OK;
}

void ubus_free(ubus_context* ctx) {
  if (ctx == nullptr) return;
  close_socket(*ctx);
  uloop_timeout_cancel(&ctx->connection->deliver);
  drop_events(*ctx->connection);
  free(ctx->connection);
  free(ctx);
}

int ubus_register_event_handler(ubus_context* ctx, ubus_event_handler* ev, const char* pattern) {
  int status = UBUS_STATUS_OK;
  if (ev->obj.id == 0) {
    status = add_object(*ctx, ev->obj);
    if (status == UBUS_STATUS_OK) link_object(*ctx->connection, ev->obj);
  }
  if (status == UBUS_STATUS_OK) status = register_pattern(*ctx, ev->obj.id, pattern);
  deliver_kept_events(*ctx);
  tell_if_lost(*ctx);
  return status;
}
