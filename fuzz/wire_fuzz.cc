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
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "core/log_gate.h"
#include "fuzz/input.h"
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

enum : uint8_t { kEcho, kFail, kFailWithText, kStatic, kBig, kDescribe, kShared, kOff, kNone, kTypes };

// What a handler is told, as the body of a response.
struct __attribute__((packed)) Told {
  uint32_t msg_id;
  uint16_t msg_src;
  uint8_t msg_act;
  uint32_t body_len;
};

template <typename T>
std::string bytes_of(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

// A body, or that the handler fails.
struct Answer {
  bool fails = false;
  std::string body = {};
};

// What the handler of a type answers; the same for the handlers themselves and for what is expected of
// them.
Answer answer_to(uint8_t type, const Told& told, const std::string& body) {
  if (type == kFail) return {true};
  if (type == kBig) return {false, std::string(kBigBody, 'b')};
  if (type == kDescribe) return {false, bytes_of(told)};
  return {false, type == kStatic ? "" : body};
}

// --- the handlers, with their type as the instance ---

char g_static_block[16];

int32_t serve(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  const std::string body(reinterpret_cast<const char*>(req->body), req->body_len);
  require(kHeader + req->body_len == kRoom || req->body[req->body_len] == 0, "a zero behind the body");
  const uint8_t type = *static_cast<const uint8_t*>(req->ctx);
  const Answer answer = answer_to(type, {req->msg_id, req->msg_src, req->msg_act, req->body_len}, body);
  if (type == kStatic) *rsp_body = g_static_block; // of length 0, and never freed
  if (answer.body.empty()) return answer.fails;
  *rsp_body = malloc(answer.body.size());
  *rsp_len = static_cast<uint32_t>(answer.body.size());
  answer.body.copy(static_cast<char*>(*rsp_body), answer.body.size());
  return answer.fails;
}

int32_t fail_with_text(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  const std::string text(reinterpret_cast<const char*>(req->body), req->body_len);
  return 1 + qn_service_make_error_msg(kErrorCode, rsp_body, rsp_len, "%s", text.c_str()) * 2;
}

uint8_t g_types[] = {kEcho, kFail, kStatic, kBig, kDescribe};
qn_api_entry_t g_rows[] = {
    {0xFFFF, kEcho, serve, &g_types[0]},     {0xFFFF, kFail, serve, &g_types[1]},
    {0xFFFF, kStatic, serve, &g_types[2]},   {0xFFFF, kBig, serve, &g_types[3]},
    {0xFFFF, kDescribe, serve, &g_types[4]}, {0xFFFF, kFailWithText, fail_with_text, nullptr},
    {0x0006, kShared, serve, &g_types[0]},   {0x0003, kShared, serve, &g_types[1]},
    {0, kOff, serve, &g_types[0]},           {0xFFFF, kOff, nullptr, nullptr},
};
const qn_apis_t g_apis = {std::size(g_rows), g_rows};

// --- what must come of it ---

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

// The error of a response and its body.
std::pair<uint8_t, std::string> outcome_of(const qn_msg_hdr_t& header, const std::string& body) {
  const uint16_t src = header.msg_src;
  uint8_t type = header.msg_type;
  if (type == kFailWithText && src != 0) {
    const std::string text = body.substr(0, body.find('\0'));
    return {3, text.size() > kErrorTextMax ? "" : bytes_of(kErrorCode) + text + '\0'};
  }
  if (type == kShared) type = (src & 0x0006) != 0 ? kEcho : (src & 0x0001) != 0 ? kFail : kNone;
  if (src == 0 || type >= kOff) return {1, ""};
  const Answer answer = answer_to(type, {header.msg_id, src, 1, header.msg_len}, body);
  return {answer.fails ? 3 : 0, answer.body};
}

// The response to what a wake-up reads; empty when none may come.
std::string response_to(const std::string& bytes, uint32_t max_msg_len) {
  if (bytes.empty()) return "";
  qn_msg_hdr_t header = {};
  bytes.copy(reinterpret_cast<char*>(&header), sizeof(header));
  if (header.msg_len > max_msg_len || header.msg_act != 1 || bytes.size() != kHeader + header.msg_len)
    return "";
  const auto [error, body] = outcome_of(header, bytes.substr(kHeader));
  header.msg_act = 2;
  header.msg_err = error;
  header.msg_len = static_cast<uint16_t>(body.size());
  return bytes_of(header) + body;
}

// --- the connection ---

class Connection {
 public:
  explicit Connection(uint32_t max_msg_len) : conf_{"", 0, max_msg_len, 0} {
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_) == 0,
            "socketpair");
  }
  ~Connection() {
    for (const int end : ends_) close(end);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send(std::string message) {
    const ssize_t sent = write(ends_[1], message.data(), message.size());
    require(sent == static_cast<ssize_t>(message.size()), "a write");
    queue_.push_back(std::move(message));
  }

  void wake_up() {
    const std::string expected = response_to(take_bytes(queue_), conf_.max_msg_len);
    const int32_t result = qn_service_process_msg(ends_[0], 0, &service_);
    require(result == (expected.empty() ? -1 : 0), "the result of a wake-up");
    if (!expected.empty()) require(receive() == expected, "the response");
    require(receive().empty() && errno == EAGAIN, "no other response");
  }

  bool has_queued() const { return !queue_.empty(); }

 private:
  std::string_view receive() {
    static char buffer[kHeader + kBigBody + 1];
    const ssize_t got = read(ends_[1], buffer, sizeof(buffer));
    return {buffer, got < 0 ? 0 : static_cast<size_t>(got)};
  }

  const qn_service_conf_t conf_;
  qn_service_t service_ = {nullptr, &g_apis, nullptr, &conf_};
  int ends_[2]; // the service's and the client's
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
    const uint16_t length = static_cast<uint16_t>(size - kHeader);
    memcpy(message.data() + offsetof(qn_msg_hdr_t, msg_len), &length, sizeof(length));
  }
  return message;
}

} // namespace

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
