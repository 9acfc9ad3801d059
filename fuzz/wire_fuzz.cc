// Any messages on a service's connection: each wake-up must answer exactly what it should.
//
// The input is the largest msg_len that the service allows, as a choice, and a list of messages. A
// message is a byte of flags, its size in two bytes, and its first bytes; the rest repeats the last of
// them. What is sent without kWakeUp is queued together with the next message.
#include <quillcore/service.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>

#include "core/log_gate.h"
#include "service/service.h"

namespace {

constexpr uint8_t kWakeUp = 0x01; // the service reads now
constexpr uint8_t kSealed = 0x02; // a request whose msg_len is right and whose type is among the first

constexpr int kMessagesMax = 16;
constexpr size_t kSizeMax = 4000;
constexpr size_t kOwnBytesMax = 64; // of a message; the others repeat
constexpr uint32_t kLimits[] = {0, 100, 3061, UINT32_MAX};

constexpr size_t kHeader = 11;
constexpr size_t kRoom = 3072;
constexpr size_t kBigBody = 65535;
constexpr uint32_t kErrorCode = 0x5EEDC0DE;
constexpr size_t kErrorTextMax = 127;

enum Type : uint8_t {
  kEcho,
  kFail,
  kFailWithText,
  kStatic,
  kBig,
  kDescribe,
  kShared,
  kOff,
  kNone,
  kTypes
};

void require(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "broken: %s\n", what);
  abort();
}

// --- the handlers ---

char g_static_block[16];
char g_instance;

// What a handler is told, as the body of a response.
struct __attribute__((packed)) Told {
  uint32_t msg_id;
  uint16_t msg_src;
  uint8_t msg_act;
  uint32_t body_len;
  uint8_t is_own_instance;
  uint8_t behind_body; // 0, unless the request fills the buffer
};

void answer(const void* bytes, size_t size, void** rsp_body, uint32_t* rsp_len) {
  if (size == 0) return;
  *rsp_body = malloc(size);
  *rsp_len = static_cast<uint32_t>(size);
  memcpy(*rsp_body, bytes, size);
}

int32_t echo(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  answer(req->body, req->body_len, rsp_body, rsp_len);
  return 0;
}

int32_t fail(const qn_msg_req_t*, void**, uint32_t*) { return -1; }

int32_t fail_with_text(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  const std::string text(reinterpret_cast<const char*>(req->body), req->body_len);
  return 1 + qn_service_make_error_msg(kErrorCode, rsp_body, rsp_len, "%s", text.c_str()) * 2;
}

int32_t keep_block(const qn_msg_req_t*, void** rsp_body, uint32_t*) {
  *rsp_body = g_static_block;
  return 0;
}

int32_t answer_big(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  answer(std::string(kBigBody, 'b').data(), kBigBody, rsp_body, rsp_len);
  return 0;
}

int32_t describe(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  const bool is_full = kHeader + req->body_len == kRoom;
  const Told told = {req->msg_id,
                     req->msg_src,
                     req->msg_act,
                     req->body_len,
                     req->ctx == &g_instance,
                     is_full ? uint8_t{0} : req->body[req->body_len]};
  answer(&told, sizeof(told), rsp_body, rsp_len);
  return 0;
}

qn_api_entry_t g_rows[] = {
    {0xFFFF, kEcho, echo, nullptr},
    {0xFFFF, kFail, fail, nullptr},
    {0xFFFF, kFailWithText, fail_with_text, nullptr},
    {0xFFFF, kStatic, keep_block, nullptr},
    {0xFFFF, kBig, answer_big, nullptr},
    {0xFFFF, kDescribe, describe, &g_instance},
    {0x0006, kShared, echo, nullptr},
    {0x0003, kShared, fail, nullptr},
    {0, kOff, echo, nullptr},
    {0xFFFF, kOff, nullptr, nullptr},
};
const qn_apis_t g_apis = {std::size(g_rows), g_rows};

// --- what must come of it ---

struct Answer {
  uint8_t err;
  std::string body;
};

Answer answer_to(uint8_t type, uint16_t src, uint32_t id, std::string_view body) {
  const Answer refused = {1, ""}, failed = {3, ""};
  if (src == 0) return refused;
  switch (type) {
    case kEcho:
      return {0, std::string(body)};
    case kFail:
      return failed;
    case kFailWithText: {
      const std::string_view text = body.substr(0, body.find('\0'));
      if (text.size() > kErrorTextMax) return failed;
      std::string told(reinterpret_cast<const char*>(&kErrorCode), sizeof(kErrorCode));
      return {3, told.append(text).append(1, '\0')};
    }
    case kStatic:
      return {0, ""};
    case kBig:
      return {0, std::string(kBigBody, 'b')};
    case kDescribe: {
      const Told told = {id, src, 1, static_cast<uint32_t>(body.size()), 1, 0};
      return {0, std::string(reinterpret_cast<const char*>(&told), sizeof(told))};
    }
    case kShared:
      if ((src & 0x0006) != 0) return {0, std::string(body)};
      return (src & 0x0001) != 0 ? failed : refused;
    default:
      return refused;
  }
}

// A number in the host's byte order.
template <typename T>
T number_at(const std::string& bytes, size_t offset) {
  T value;
  memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

template <typename T>
void put_number(std::string& bytes, size_t offset, T value) {
  memcpy(bytes.data() + offset, &value, sizeof(value));
}

// What one wake-up reads: messages back to back, up to an empty one or until the room is full.
std::string take_bytes(std::deque<std::string>& queue) {
  std::string bytes;
  while (!queue.empty() && bytes.size() < kRoom) {
    const std::string message = std::move(queue.front());
    queue.pop_front();
    if (message.empty()) break;
    bytes += message.substr(0, kRoom - bytes.size());
  }
  return bytes;
}

// The response to what a wake-up reads; empty when none may come.
std::string response_to(const std::string& bytes, uint32_t max_msg_len) {
  if (bytes.empty()) return "";
  std::string header = bytes.substr(0, kHeader);
  header.resize(kHeader, '\0');
  const uint16_t len = number_at<uint16_t>(header, 5);
  if (len > max_msg_len || header[1] != 1 || bytes.size() != kHeader + len) return "";

  const Answer answer =
      answer_to(static_cast<uint8_t>(header[0]), number_at<uint16_t>(header, 3),
                number_at<uint32_t>(header, 7), std::string_view(bytes).substr(kHeader));
  header[1] = 2;
  header[2] = static_cast<char>(answer.err);
  put_number(header, 5, static_cast<uint16_t>(answer.body.size()));
  return header + answer.body;
}

// --- the connection ---

class Connection {
 public:
  explicit Connection(uint32_t max_msg_len) : conf_{"", 0, max_msg_len, 0} {
    int fds[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) == 0,
            "socketpair");
    near_ = fds[0];
    far_ = fds[1];
  }
  ~Connection() {
    close(near_);
    close(far_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send(std::string message) {
    require(write(far_, message.data(), message.size()) == static_cast<ssize_t>(message.size()),
            "a write");
    queue_.push_back(std::move(message));
  }

  void wake_up() {
    const std::string expected = response_to(take_bytes(queue_), conf_.max_msg_len);
    const int32_t result = qn_service_process_msg(near_, 0, &service_);
    require(result == (expected.empty() ? -1 : 0), "the result of a wake-up");
    if (!expected.empty()) require(receive() == expected, "the response");
    require(receive().empty() && errno == EAGAIN, "no other response");
  }

  bool has_queued() const { return !queue_.empty(); }

 private:
  std::string_view receive() {
    static char buffer[kHeader + kBigBody + 1];
    const ssize_t got = read(far_, buffer, sizeof(buffer));
    return {buffer, got < 0 ? 0 : static_cast<size_t>(got)};
  }

  const qn_service_conf_t conf_;
  qn_service_t service_ = {nullptr, &g_apis, nullptr, &conf_};
  int near_ = -1;
  int far_ = -1;
  std::deque<std::string> queue_;
};

// Takes one message off the front of the input.
std::string take_message(std::string_view& input, uint8_t flags) {
  const auto take = [&input] {
    if (input.empty()) return uint8_t{0};
    const uint8_t byte = static_cast<uint8_t>(input.front());
    input.remove_prefix(1);
    return byte;
  };
  const size_t high = take();
  const size_t size = (high << 8 | take()) % (kSizeMax + 1);
  std::string message(input.substr(0, std::min(size, kOwnBytesMax)));
  input.remove_prefix(message.size());
  message.resize(size, message.empty() ? 'm' : message.back());
  if ((flags & kSealed) != 0 && size >= kHeader) {
    message[0] = static_cast<char>(static_cast<uint8_t>(message[0]) % kTypes);
    message[1] = 1;
    put_number(message, 5, static_cast<uint16_t>(size - kHeader));
  }
  return message;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qn::log_gate_set_current(qn::kGateNoMaps);
  if (size == 0) return 0;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  Connection connection(kLimits[data[0] % std::size(kLimits)]);
  input.remove_prefix(1);
  for (int i = 0; i < kMessagesMax && !input.empty(); i++) {
    const uint8_t flags = static_cast<uint8_t>(input.front());
    input.remove_prefix(1);
    connection.send(take_message(input, flags));
    if ((flags & kWakeUp) != 0) connection.wake_up();
  }
  while (connection.has_queued()) connection.wake_up();
  connection.wake_up(); // with nothing to read
  return 0;
}
