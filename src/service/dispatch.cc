// One request: read, test, find the handler, call it, answer.
//
// A request that fails a test of its header gets no answer; every other one gets exactly one.
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "core/heap.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/error_text.h"
#include "quillcore/socket.h"
#include "quillcore/utility.h"
#include "service/service.h"

namespace {

using qn::ErrorText;
using qn::Message;

constexpr char kModule[] = "qn_service";
constexpr char kReadMsg[] = "qn_service_process_msg_read_msg";
constexpr char kDumpMsg[] = "service_dump_msg";
constexpr char kProcessMsg[] = "service_process_msg";
constexpr char kExecHandler[] = "service_exec_msg_handler";
constexpr char kSendResponse[] = "qn_service_send_response";
constexpr char kSendBody[] = "qn_service_safe_send_msg_body";

constexpr Message kReady{QN_LOG_D, 573, kModule, kReadMsg, "ready to read msg header..."};
constexpr Message kReadDone{QN_LOG_D, 574, kModule, kReadMsg, "read msg done, bytes_read=%d"};
constexpr Message kTooLong{QN_LOG_E, 575, kModule, kReadMsg, "recv msg_len=%d greater than max=%d."};
constexpr Message kNoRequest{QN_LOG_E, 576, kModule, kReadMsg,
                             "just only handle service req msg, but got msg_ac=%d."};
constexpr Message kWrongLength{QN_LOG_E, 577, kModule, kProcessMsg,
                               "recv msg body len=%d != msg_len=%d."};
constexpr Message kDumpStart{QN_LOG_D, 553, kModule, kDumpMsg,
                             "------------ Dump msg start -----------------"};
constexpr Message kDumpId{QN_LOG_D, 554, kModule, kDumpMsg, "msg_id=%d"};
constexpr Message kDumpType{QN_LOG_D, 555, kModule, kDumpMsg, "msg_type=%d"};
constexpr Message kDumpSrc{QN_LOG_D, 556, kModule, kDumpMsg, "msg_src=%d"};
constexpr Message kDumpAct{QN_LOG_D, 557, kModule, kDumpMsg, "msg_act=%d"};
constexpr Message kDumpLen{QN_LOG_D, 558, kModule, kDumpMsg, "msg_len=%d"};
constexpr Message kDumpErr{QN_LOG_D, 559, kModule, kDumpMsg, "msg_err=%d"};
constexpr Message kDumpEnd{QN_LOG_D, 560, kModule, kDumpMsg,
                           "------------ Dump msg end -----------------"};
constexpr Message kReceived{QN_LOG_D, 578, kModule, kProcessMsg,
                            "Received success: msg_src=%d, msg_type=%d, msg_len=%d."};
constexpr Message kNoHandler{QN_LOG_E, 569, kModule, kExecHandler, "invalid msg_src=%d or msg_type=%d."};
constexpr Message kHandlerFound{QN_LOG_D, 570, kModule, kExecHandler,
                                " msg_src=%d msg_type=%d. get callback ok."};
constexpr Message kHandlerDone{QN_LOG_D, 572, kModule, kExecHandler,
                               "msg_src=%d msg_type=%d. call msg handler result=%d, msg_err=%d."};
constexpr Message kAllocFailed{QN_LOG_E, 567, kModule, kSendResponse, "alloc failed, size=%d"};
constexpr Message kResponseReady{
    QN_LOG_D, 568, kModule, kSendResponse,
    "ready to response msg, msg_len=%d, msg_src=%d, msg_type=%d, msg_id=%d,msg_act=%d, msg_err=%d"};
constexpr Message kWriteTried{QN_LOG_D, 561, kModule, kSendBody,
                              "send fd=%d into buff data count=%ld, try_send_count=%u, need send=%u"};
constexpr Message kWriteFailed{QN_LOG_W, 562, kModule, kSendBody,
                               "send fd=%d into buff data failed. errno=(%d,%s)"};
constexpr Message kBrokenPipe{QN_LOG_W, 563, kModule, kSendBody,
                              "send into buff data failed. broken pipe."};
constexpr Message kPeerGone{QN_LOG_W, 564, kModule, kSendBody,
                            "send into buff data failed=-1. peer connection closed, errno=(%d,%s)"};
constexpr Message kNothingWritten{QN_LOG_W, 565, kModule, kSendBody,
                                  "send into buff data failed=0. peer connection closed, errno=(%d,%s)"};
constexpr Message kSent{QN_LOG_D, 566, kModule, "service_send_response",
                        "write success, fd=%d, bytes_written len=%d"};

constexpr uint32_t kHeaderSize = sizeof(qn_msg_hdr_t);
constexpr uint32_t kDumpCap = 32;
constexpr uint32_t kTriesEnd = 5; // the fifth try gives up before it writes
constexpr useconds_t kRetryDelayUs = 10000;
constexpr int32_t kNoMemory = -2;

static_assert(sizeof(qn_msg_hdr_t) == 11);
static_assert(offsetof(qn_msg_hdr_t, msg_type) == 0 && offsetof(qn_msg_hdr_t, msg_act) == 1);
static_assert(offsetof(qn_msg_hdr_t, msg_err) == 2 && offsetof(qn_msg_hdr_t, msg_src) == 3);
static_assert(offsetof(qn_msg_hdr_t, msg_len) == 5 && offsetof(qn_msg_hdr_t, msg_id) == 7);

// What a handler answers. The dispatcher takes the body over, but a body of size 0 stays the handler's.
struct Response {
  uint8_t msg_err = QN_MSG_ERR_OK;
  void* body = nullptr;
  uint32_t len = 0;

  Response() = default;
  ~Response() {
    if (len != 0) free(body);
  }
  Response(const Response&) = delete;
  Response& operator=(const Response&) = delete;
};

// Reads one request into `buffer` and tests its header; false for one that gets no answer.
bool qn_service_process_msg_read_msg(int32_t fd, uint32_t max_msg_len, uint8_t (&buffer)[QN_MSG_SIZE_MAX],
                                     qn_msg_hdr_t* header) {
  QN_LOG(kReady);
  memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
  uint32_t bytes_read = 0;
  if (qn_sock_safe_read(fd, buffer, sizeof(buffer), &bytes_read) != 0) return false;
  QN_LOG(kReadDone, bytes_read);

  memcpy_s(header, sizeof(*header), buffer, sizeof(*header));
  if (header->msg_len > max_msg_len) return QN_FAIL(false, kTooLong, header->msg_len, max_msg_len);
  if (header->msg_act != QN_MSG_ACT_REQ) return QN_FAIL(false, kNoRequest, header->msg_act);
  if (header->msg_len + kHeaderSize != bytes_read)
    return QN_FAIL(false, kWrongLength, bytes_read, header->msg_len);
  return true;
}

void qn_service_dump_msg(const qn_msg_hdr_t& header, const uint8_t* body) {
  if (qn::log_may_pass(QN_LOG_D)) {
    QN_LOG(kDumpStart);
    QN_LOG(kDumpId, header.msg_id);
    QN_LOG(kDumpType, header.msg_type);
    QN_LOG(kDumpSrc, header.msg_src);
    QN_LOG(kDumpAct, header.msg_act);
    QN_LOG(kDumpLen, header.msg_len);
    QN_LOG(kDumpErr, header.msg_err);
    qn_utils_dump_hex(body, header.msg_len < kDumpCap ? header.msg_len : kDumpCap, 1);
    QN_LOG(kDumpEnd);
  }
  QN_LOG(kReceived, header.msg_src, header.msg_type, header.msg_len);
}

void qn_service_exec_msg_handler(const qn_service_t& service, int32_t fd, const qn_msg_hdr_t& header,
                                 const uint8_t* body, Response* response) {
  const qn_api_entry_t* const row = qn_apis_get_callback(service.apis, header.msg_src, header.msg_type);
  if (row == nullptr) {
    QN_LOG(kNoHandler, header.msg_src, header.msg_type);
    response->msg_err = QN_MSG_ERR_NO_HANDLER;
    return;
  }
  QN_LOG(kHandlerFound, header.msg_src, header.msg_type);
  const qn_msg_req_t request = {fd,   row->instance, header.msg_id, header.msg_src, header.msg_act,
                                body, header.msg_len};
  const int32_t result = row->handler(&request, &response->body, &response->len);
  response->msg_err = result == 0 ? QN_MSG_ERR_OK : QN_MSG_ERR_HANDLER_FAILED;
  QN_LOG(kHandlerDone, header.msg_src, header.msg_type, result, response->msg_err);
}

// Whether a failed write may be tried again; reports it and waits a little if so.
bool may_retry_write(int32_t fd, int error) {
  QN_LOG(kWriteFailed, fd, error, ErrorText(error).text());
  if (error == EAGAIN || error == EINTR) {
    usleep(kRetryDelayUs);
    return true;
  }
  if (error == EPIPE) {
    QN_LOG(kBrokenPipe);
  } else {
    QN_LOG(kPeerGone, error, ErrorText(error).text());
  }
  return false;
}

int32_t qn_service_safe_send_msg_body(int32_t fd, const uint8_t* message, uint32_t size) {
  uint32_t sent = 0;
  for (uint32_t tries = 1; sent < size; tries++) {
    if (tries == kTriesEnd) return -1;
    const ssize_t written = write(fd, message + sent, size - sent);
    const int error = errno;
    QN_LOG(kWriteTried, fd, static_cast<long>(written), tries, size);
    if (written == 0) return QN_FAIL(-1, kNothingWritten, error, ErrorText(error).text());
    if (written > 0) {
      sent += static_cast<uint32_t>(written);
    } else if (!may_retry_write(fd, error)) {
      return -1;
    }
  }
  QN_LOG(kSent, fd, size);
  return 0;
}

int32_t qn_service_send_response(int32_t fd, const qn_msg_hdr_t& request, const Response& response) {
  uint32_t size = 0;
  qn::HeapPtr<uint8_t> message;
  if (!__builtin_add_overflow(kHeaderSize, response.len, &size)) {
    message.reset(static_cast<uint8_t*>(qn_alloc(size)));
  }
  if (!message) return QN_FAIL(kNoMemory, kAllocFailed, size);
  const qn_msg_hdr_t header = {request.msg_type,
                               QN_MSG_ACT_RSP,
                               response.msg_err,
                               request.msg_src,
                               static_cast<uint16_t>(response.len),
                               request.msg_id};
  memcpy_s(message.get(), size, &header, kHeaderSize);
  QN_LOG(kResponseReady, header.msg_len, header.msg_src, header.msg_type, header.msg_id, header.msg_act,
         header.msg_err);
  if (response.len != 0) {
    memcpy_s(message.get() + kHeaderSize, response.len, response.body, response.len);
  }
  return qn_service_safe_send_msg_body(fd, message.get(), size);
}

} // namespace

int32_t qn_service_process_msg(int32_t fd, uint16_t /*flags*/, void* arg) {
  const qn_service_t& service = *static_cast<const qn_service_t*>(arg);
  uint8_t buffer[QN_MSG_SIZE_MAX];
  qn_msg_hdr_t header;
  if (!qn_service_process_msg_read_msg(fd, service.conf->max_msg_len, buffer, &header)) return -1;

  const uint8_t* const body = buffer + kHeaderSize;
  qn_service_dump_msg(header, body);
  Response response;
  qn_service_exec_msg_handler(service, fd, header, body, &response);
  return qn_service_send_response(fd, header, response);
}
