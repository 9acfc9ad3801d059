// A client of a service.
#include "client.h"

#include <poll.h>
#include <quillcore/socket.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "output.h"

namespace ctl {
namespace {

// Until `deadline` in milliseconds. Returns whether the descriptor is ready.
bool wait_for(int fd, short events, int64_t deadline) {
  for (;;) {
    const int64_t left = deadline - monotonic_ms();
    struct pollfd ask = {fd, events, 0};
    const int ready = poll(&ask, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

// A request has an identity of its own, so that the answer can be told from another's.
uint32_t make_id() { return monotonic_us() ^ static_cast<uint32_t>(getpid()) << 16; }

// What is wrong with an answer to this request, or null.
const char* odd_answer(const Answer& answer, ssize_t length, const qn_msg_hdr_t& request) {
  if (length < 0) return why_unanswered(errno);
  if (length == 0) return "the service closed the connection";
  if (length > static_cast<ssize_t>(kAnswerMax)) return "the answer is longer than one can be";
  if (length < static_cast<ssize_t>(sizeof(qn_msg_hdr_t))) return "the answer is shorter than a header";
  const qn_msg_hdr_t& header = answer.header;
  if (header.msg_act != QN_MSG_ACT_RSP) return "what came is no response";
  if (header.msg_id != request.msg_id || header.msg_type != request.msg_type ||
      header.msg_src != request.msg_src)
    return "the response is another request's";
  if (header.msg_len != length - static_cast<ssize_t>(sizeof(qn_msg_hdr_t)))
    return "its msg_len is not its length";
  return nullptr;
}

int exchange(const char* path, const qn_msg_hdr_t& request, const uint8_t* message, int timeout_ms,
             Answer* answer) {
  const Fd fd = connect_now(path);
  if (!fd.valid()) return fail(-1, "%s: %s", shown(path), why_unanswered(errno));
  const uint32_t start = monotonic_us();
  const int64_t deadline = monotonic_ms() + timeout_ms;
  const size_t length = sizeof(request) + request.msg_len;
  if (!wait_for(fd.get(), POLLOUT, deadline) ||
      send(fd.get(), message, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length))
    return fail(-1, "%s: the request could not be sent", shown(path));
  if (!wait_for(fd.get(), POLLIN, deadline)) {
    return fail(-1, "%s: no answer in %d ms; it refused the header, or it is busy: look into its log",
                shown(path), timeout_ms);
  }
  const ssize_t got = recv(fd.get(), answer->bytes, sizeof(answer->bytes), 0);
  answer->microseconds = monotonic_us() - start;
  memcpy(&answer->header, answer->bytes, sizeof(answer->header));
  if (const char* const odd = odd_answer(*answer, got, request))
    return fail(-1, "%s: %s", shown(path), odd);
  answer->body = answer->bytes + sizeof(answer->header);
  answer->body_length = answer->header.msg_len;
  return 0;
}

} // namespace

bool read_timeout(const Arguments& arguments, int* timeout_ms) {
  unsigned long number = 2000;
  if (arguments.has('w') && !parse_number(arguments.get('w'), 1, 600000, &number))
    return fail(0, "--timeout is 1 to 600000 milliseconds") != 0;
  *timeout_ms = static_cast<int>(number);
  return true;
}

Fd connect_now(const char* path) {
  struct sockaddr_un address = {};
  struct stat status;
  const size_t length = strlen(path);
  if (length > QN_SOCK_PATH_MAX) return errno = ENAMETOOLONG, Fd();
  if (!status_of_name(path, &status)) return Fd();
  if (!S_ISSOCK(status.st_mode)) return errno = S_ISLNK(status.st_mode) ? ELOOP : ENOTSOCK, Fd();
  Fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) return fd;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, length + 1);
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
  const int error = errno;
  fd.reset();
  errno = error;
  return fd;
}

const char* why_unanswered(int error) {
  switch (error) {
    case ECONNREFUSED:
      return "nobody listens; the daemon is gone";
    case EAGAIN:
      return "it does not take connections; the daemon hangs, or is busy";
    case ENOENT:
      return "there is no such socket";
    case ENOTSOCK:
      return "it is no socket";
    case EPROTOTYPE:
      return "it is a socket of another type";
    case ENAMETOOLONG:
      return "a socket's path has at most 106 bytes";
    default:
      return why_not(error);
  }
}

int ask(const char* path, uint8_t type, uint16_t source, const void* body, size_t body_length,
        int timeout_ms, Answer* answer) {
  uint8_t message[QN_MSG_SIZE_MAX];
  const qn_msg_hdr_t request = {.msg_type = type,
                                .msg_act = QN_MSG_ACT_REQ,
                                .msg_err = 0,
                                .msg_src = source,
                                .msg_len = static_cast<uint16_t>(body_length),
                                .msg_id = make_id()};
  memcpy(message, &request, sizeof(request));
  memcpy(message + sizeof(request), body, body_length);
  return exchange(path, request, message, timeout_ms, answer);
}

const char* error_text(const Answer& answer, uint32_t* code) {
  const size_t length = answer.body_length;
  if (answer.header.msg_err == QN_MSG_ERR_OK || length < 5 || length > 132) return nullptr;
  const char* const text = reinterpret_cast<const char*>(answer.body) + 4;
  if (strnlen(text, length - 4) != length - 5) return nullptr;
  memcpy(code, answer.body, 4);
  return text;
}

const char* name_of_error(uint8_t msg_err) {
  switch (msg_err) {
    case QN_MSG_ERR_OK:
      return "done";
    case QN_MSG_ERR_NO_HANDLER:
      return "no handler for this source and type";
    case QN_MSG_ERR_HANDLER_FAILED:
      return "the handler failed";
    default:
      return "unknown";
  }
}

ssize_t read_input(void* buffer, size_t size, int timeout_ms) {
  size_t length = 0;
  for (;;) {
    uint8_t more;
    const bool full = length == size;
    if (!wait_for(STDIN_FILENO, POLLIN, monotonic_ms() + timeout_ms)) return errno = ETIMEDOUT, -1;
    const ssize_t got = read(STDIN_FILENO, full ? &more : static_cast<uint8_t*>(buffer) + length,
                             full ? 1 : size - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) return static_cast<ssize_t>(length);
    if (full) return errno = EFBIG, -1;
    length += static_cast<size_t>(got);
  }
}

} // namespace ctl
