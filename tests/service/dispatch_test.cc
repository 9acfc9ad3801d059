// Requests and responses through running services and real clients.
//
// A service handles what becomes ready in that order, so a round trip of a second client, the barrier,
// tells that everything sent before it has been handled.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "service/running.h"
#include "service/service.h"
#include "support/capture.h"

namespace {

enum Type : uint8_t {
  kEcho = 7,
  kFail,
  kFailWithText,
  kStatic,
  kBig,
  kHold,
  kDescribe,
  kShared,
  kNowhere
};

constexpr uint16_t kSrc = 2;
constexpr uint16_t kAnySrc = 0xFFFF;
constexpr uint32_t kBigSize = 65535;

char g_static_block[] = "never freed";

int32_t fail(const qn_msg_req_t*, void**, uint32_t*) { return -7; }

int32_t fail_with_text(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  qn_service_make_error_msg(0x01020304, rsp_body, rsp_len, "no route to %s", "hub");
  return 1;
}

int32_t keep_block(const qn_msg_req_t*, void** rsp_body, uint32_t*) {
  *rsp_body = g_static_block;
  return 0;
}

int32_t answer_big(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  return answer(std::string(kBigSize, 'b'), rsp_body, rsp_len);
}

// All that a handler is told.
int32_t describe(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  char text[128];
  const int length =
      snprintf(text, sizeof(text), "fd=%d ctx=%p id=%u src=%u act=%u len=%u next=%u", req->fd, req->ctx,
               req->msg_id, req->msg_src, req->msg_act, req->body_len, req->body[req->body_len]);
  return answer({text, static_cast<size_t>(length)}, rsp_body, rsp_len);
}

template <char name>
int32_t tell_row(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  return answer(std::string_view(&"ABC"[name - 'A'], 1), rsp_body, rsp_len);
}

const std::vector<qn_api_entry_t> kRows = {
    {kAnySrc, kEcho, echo, nullptr},
    {kAnySrc, kFail, fail, nullptr},
    {kAnySrc, kFailWithText, fail_with_text, nullptr},
    {kAnySrc, kStatic, keep_block, nullptr},
    {kAnySrc, kBig, answer_big, nullptr},
    {kAnySrc, kHold, hold, nullptr},
    {kAnySrc, kDescribe, describe, nullptr},
    {0x0006, kShared, tell_row<'A'>, nullptr},
    {0x0003, kShared, tell_row<'B'>, nullptr},
    {0x0018, kShared, tell_row<'C'>, nullptr},
};

class Dispatch : public testing::Test {
 protected:
  void start(uint32_t max_msg_len) {
    ASSERT_EQ(0, services_.start(0, services_.table(kRows, &meeting_), max_msg_len));
    witness_ = std::make_unique<Client>(services_.path(0));
    barrier();
  }

  std::string path() const { return services_.path(0); }

  // A client whose connection the service has accepted.
  struct Caller : Client {
    explicit Caller(Dispatch& test) : Client(test.path()) { test.barrier(); }
  };

  // Everything sent before has been handled when it returns.
  void barrier() {
    ids_++;
    EXPECT_EQ(response(kEcho, 0, kSrc, ids_), witness_->call(request(kEcho, kSrc, ids_)));
  }

  int descriptor_of(const Client& client) {
    const std::string told = client.call(request(kDescribe, kSrc, 1));
    int fd = -1;
    EXPECT_EQ(1, sscanf(told.c_str() + sizeof(qn_msg_hdr_t), "fd=%d", &fd));
    return fd;
  }

  void expect_alive(const Client& client) {
    EXPECT_EQ(response(kEcho, 0, kSrc, 99, "alive"), client.call(request(kEcho, kSrc, 99, "alive")));
  }

  // Handles what `act` sends, all at one wake-up of each connection.
  template <typename Act>
  void at_one_wake_up(Act act) {
    Held held(*witness_, meeting_, request(kHold, kSrc, 0));
    act();
    held.release();
    EXPECT_EQ(response(kHold, 0, kSrc, 0, "held"), witness_->receive());
    barrier();
  }

  const GateAt warnings_{QN_LOG_W};
  Meeting meeting_;
  Services services_;
  std::unique_ptr<Client> witness_;
  uint32_t ids_ = 1000;
};

TEST_F(Dispatch, AnswersEachValidRequestOnce) {
  start(3061);
  std::string full(3061, 'f');
  const std::string text = std::string("\x04\x03\x02\x01no route to hub", 19) + '\0';
  const struct {
    const char* name;
    std::string request;
    std::string response;
    Told told;
  } rows[] = {
      {"the bytes of an example",
       {"\x07\x01\x00\x02\x00\x02\x00\x02\x01\x00\x00hi", 13},
       {"\x07\x02\x00\x02\x00\x02\x00\x02\x01\x00\x00hi", 13},
       {}},
      {"no body", request(kEcho, kSrc, 0xFFFFFFFF), response(kEcho, 0, kSrc, 0xFFFFFFFF), {}},
      {"largest body", request(kEcho, kSrc, 3, full), response(kEcho, 0, kSrc, 3, full), {}},
      {"an error in a request means nothing",
       message({kEcho, QN_MSG_ACT_REQ, 9, kSrc, 0, 4}),
       response(kEcho, 0, kSrc, 4),
       {}},
      {"failing handler", request(kFail, kSrc, 5, "x"), response(kFail, 3, kSrc, 5), {}},
      {"failing handler with a body",
       request(kFailWithText, kSrc, 6),
       response(kFailWithText, 3, kSrc, 6, text),
       {}},
      {"block of length 0", request(kStatic, kSrc, 7), response(kStatic, 0, kSrc, 7), {}},
      {"largest response",
       request(kBig, kSrc, 8),
       response(kBig, 0, kSrc, 8, std::string(kBigSize, 'b')),
       {}},
      {"first row of the source", request(kShared, 0x0002, 9), response(kShared, 0, 0x0002, 9, "A"), {}},
      {"second row", request(kShared, 0x0001, 10), response(kShared, 0, 0x0001, 10, "B"), {}},
      {"all sources", request(kShared, kAnySrc, 11), response(kShared, 0, kAnySrc, 11, "A"), {}},
      {"last row", request(kShared, 0x8010, 12), response(kShared, 0, 0x8010, 12, "C"), {}},
      {"no row of the source",
       request(kShared, 0x0020, 13, "x"),
       response(kShared, 1, 0x0020, 13),
       {"569 E qn_service service_exec_msg_handler: invalid msg_src=32 or msg_type=14."}},
      {"no row of the type",
       request(kNowhere, kSrc, 14),
       response(kNowhere, 1, kSrc, 14),
       {"569 E qn_service service_exec_msg_handler: invalid msg_src=2 or msg_type=15."}},
      {"no source",
       request(kEcho, 0, 15),
       response(kEcho, 1, 0, 15),
       {"569 E qn_service service_exec_msg_handler: invalid msg_src=0 or msg_type=7."}},
  };
  const Caller client(*this);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    StderrCapture capture;
    EXPECT_EQ(row.response, client.call(row.request));
    barrier();
    EXPECT_EQ("(nothing)", client.received());
    EXPECT_EQ(row.told, told(capture.records()));
  }
}

TEST_F(Dispatch, TellsAHandlerAboutItsRequest) {
  start(3061);
  const Caller client(*this);
  const int fd = descriptor_of(client);
  char expected[128];
  snprintf(expected, sizeof(expected), "fd=%d ctx=%p id=70000 src=515 act=1 len=4 next=0", fd,
           static_cast<void*>(&meeting_));
  // A longer request before it leaves nothing behind in the buffer.
  client.call(request(kEcho, kSrc, 1, std::string(2000, 'z')));
  EXPECT_EQ(response(kDescribe, 0, 515, 70000, expected),
            client.call(request(kDescribe, 515, 70000, "body")));
  const int flags = fcntl(fd, F_GETFL);
  EXPECT_TRUE((flags & O_NONBLOCK) != 0 && fcntl(fd, F_GETFD) == FD_CLOEXEC)
      << "of an accepted connection";
}

TEST_F(Dispatch, RefusesWithoutAnAnswerAndGoesOn) {
  const auto header = [](uint8_t act, uint16_t len) { return qn_msg_hdr_t{kEcho, act, 0, kSrc, len, 1}; };
  const auto too_long = [](int len, const char* max) {
    return "575 E qn_service qn_service_process_msg_read_msg: recv msg_len=" + std::to_string(len) +
           " greater than max=" + max;
  };
  const auto no_request = [](int act) {
    return "576 E qn_service qn_service_process_msg_read_msg: just only handle service req msg, but got "
           "msg_ac=" +
           std::to_string(act) + ".";
  };
  const auto wrong_length = [](int read, int len) {
    return "577 E qn_service service_process_msg: recv msg body len=" + std::to_string(read) +
           " != msg_len=" + std::to_string(len) + ".";
  };
  struct Row {
    uint32_t max_msg_len;
    std::string bytes;
    std::string told;
  };
  std::vector<Row> rows = {
      {100, request(kEcho, kSrc, 1, std::string(101, 'x')), too_long(101, "100.")},
      {100, message(header(1, 101)), too_long(101, "100.")},
      {100, message(header(2, 101), "x"), too_long(101, "100.")},
      {0, request(kEcho, kSrc, 1, "x"), too_long(1, "0.")},
      {3061, request(kEcho, kSrc, 1, std::string(3062, 'x')), too_long(3062, "3061.")},
      {100, message(header(2, 0)), no_request(2)},
      {100, message(header(0, 4), "body"), no_request(0)},
      {100, message(header(255, 5), "body"), no_request(255)},
      {100, message(header(1, 5), "body"), wrong_length(15, 5)},
      {100, message(header(1, 3), "body"), wrong_length(15, 3)},
      {100, message(header(1, 0), "body"), wrong_length(15, 0)},
      {UINT32_MAX, request(kEcho, kSrc, 1, std::string(3062, 'x')), wrong_length(3072, 3062)},
      {UINT32_MAX, request(kEcho, kSrc, 1, std::string(65000, 'x')), wrong_length(3072, 65000)},
      // What a cut header lacks reads as zero.
      {100, request(kEcho, kSrc, 1).substr(0, 1), no_request(0)},
  };
  const std::string whole = request(kEcho, kSrc, 1, "ab");
  for (int size = 2; size <= 10; size++) {
    rows.push_back(
        {100, whole.substr(0, static_cast<size_t>(size)), wrong_length(size, size > 5 ? 2 : 0)});
  }
  rows.push_back({100, "", ""}); // an empty message reads as nothing at all

  for (const Row& row : rows) {
    SCOPED_TRACE(row.told);
    if (witness_ == nullptr || services_.record(0)->conf->max_msg_len != row.max_msg_len) {
      witness_.reset();
      ASSERT_TRUE(services_.end());
      start(row.max_msg_len);
    }
    const Caller client(*this);
    StderrCapture capture;
    client.send(row.bytes);
    barrier();
    EXPECT_EQ("(nothing)", client.received());
    EXPECT_EQ(row.told.empty() ? Told{} : Told{row.told}, told(capture.records()));
    const std::string body(row.max_msg_len < 100 ? row.max_msg_len : 100, 'x');
    EXPECT_EQ(response(kEcho, 0, kSrc, 2, body), client.call(request(kEcho, kSrc, 2, body)))
        << "still served";
  }
}

TEST_F(Dispatch, LosesRequestsThatAreQueuedTogether) {
  start(3061);
  const Caller client(*this);
  StderrCapture capture;
  at_one_wake_up(
      [&] { client.send(request(kEcho, kSrc, 1, "a")), client.send(request(kEcho, kSrc, 2, "bc")); });
  EXPECT_EQ("(nothing)", client.received());
  EXPECT_EQ(Told{"577 E qn_service service_process_msg: recv msg body len=25 != msg_len=1."},
            told(capture.records()));
  expect_alive(client);
}

TEST_F(Dispatch, LeavesWhatIsBehindAFullBufferToTheNextWakeUp) {
  start(3061);
  const Caller client(*this);
  const std::string full(3061, 'f');
  StderrCapture capture;
  at_one_wake_up(
      [&] { client.send(request(kEcho, kSrc, 1, full)), client.send(request(kEcho, kSrc, 2, "b")); });
  EXPECT_EQ(response(kEcho, 0, kSrc, 1, full), client.received());
  EXPECT_EQ("(nothing)", client.received());
  EXPECT_EQ(Told{}, told(capture.records()));

  client.send(request(kEcho, kSrc, 3, "c"));
  barrier();
  EXPECT_EQ("(nothing)", client.received());
  EXPECT_EQ(Told{"577 E qn_service service_process_msg: recv msg body len=24 != msg_len=1."},
            told(capture.records()));
  expect_alive(client);
}

TEST_F(Dispatch, ServesARequestOfAPeerThatIsGone) {
  start(3061);
  Caller client(*this);
  const std::string fd = std::to_string(descriptor_of(client));
  StderrCapture capture;
  at_one_wake_up([&] { client.send(request(kEcho, kSrc, 1, "bye")), client.hang_up(); });
  EXPECT_EQ(
      (Told{"562 W qn_service qn_service_safe_send_msg_body: send fd=" + fd +
                " into buff data failed. errno=(32,Broken pipe)",
            "563 W qn_service qn_service_safe_send_msg_body: send into buff data failed. broken pipe."}),
      told(capture.records()));
  EXPECT_EQ(-1, fcntl(std::stoi(fd), F_GETFD)) << "its descriptor is closed";
}

TEST_F(Dispatch, ReportsAPeerThatGoesWithAResponseUnread) {
  start(3061);
  Caller client(*this);
  const std::string fd = std::to_string(descriptor_of(client));
  client.send(request(kEcho, kSrc, 1, "unread"));
  barrier();
  StderrCapture capture;
  Held held(client, meeting_, request(kHold, kSrc, 2));
  client.hang_up();
  held.release();
  barrier();
  EXPECT_EQ((Told{"562 W qn_service qn_service_safe_send_msg_body: send fd=" + fd +
                      " into buff data failed. errno=(104,Connection reset by peer)",
                  "564 W qn_service qn_service_safe_send_msg_body: send into buff data failed=-1. peer "
                  "connection closed, "
                  "errno=(104,Connection reset by peer)"}),
            told(capture.records()));
}

TEST_F(Dispatch, LosesTheResponseThatAPeerLeavesNoRoomFor) {
  start(3061);
  const Caller client(*this);
  const std::string fd = std::to_string(descriptor_of(client));
  StderrCapture capture;
  uint32_t sent = 0;
  while (capture.text().empty() && sent < 1000) {
    client.send(request(kBig, kSrc, ++sent));
    barrier();
  }
  EXPECT_EQ(Told(4, "562 W qn_service qn_service_safe_send_msg_body: send fd=" + fd +
                        " into buff data failed. errno=(11,Resource temporarily unavailable)"),
            told(capture.records()));
  for (uint32_t id = 1; id < sent; id++) {
    EXPECT_EQ(response(kBig, 0, kSrc, id, std::string(kBigSize, 'b')), client.received());
  }
  EXPECT_EQ("(nothing)", client.received());
  expect_alive(client);
}

// A stream takes as much of a response as there is room for, as no message socket does.
TEST_F(Dispatch, CountsAPartialWriteAsATry) {
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds));
  const int room = 8192;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
  const qn_service_conf_t conf = {"", 0, 0, 0};
  qn_service_t service = {services_.cycle(), services_.table(kRows), nullptr, &conf};
  const std::string bytes = request(kBig, kSrc, 1);
  EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fds[1], bytes.data(), bytes.size()));

  StderrCapture capture;
  EXPECT_EQ(-1, qn_service_process_msg(fds[0], 0, &service));
  EXPECT_EQ((std::vector<uint32_t>{562, 562, 562}), capture.logids());
  std::string got(1 << 17, '\0');
  got.resize(static_cast<size_t>(read(fds[1], got.data(), got.size())));
  EXPECT_EQ(response(kBig, 0, kSrc, 1, std::string(kBigSize, 'b')).substr(0, got.size()), got);
  EXPECT_EQ(-1, qn_service_process_msg(fds[0], 0, &service)) << "nothing to read";
  close(fds[0]);
  close(fds[1]);
}

TEST_F(Dispatch, ReportsTheRoadOfAGoodRequest) {
  start(3061);
  const Caller client(*this);
  const std::string fd = std::to_string(descriptor_of(client));
  StderrCapture capture;
  std::vector<Record> records;
  {
    const GateAt all(QN_LOG_D, true);
    client.call(request(kEcho, kSrc, 258, "hi"));
    EXPECT_TRUE(eventually([&] {
      // The end of the request before may come first, and the wait for the next one last.
      records = capture.records();
      while (!records.empty() && records.front().logid != 573) records.erase(records.begin());
      while (!records.empty() && records.back().logid != 566) records.pop_back();
      return !records.empty();
    }));
  }
  barrier();
  for (Record& record : records) {
    if (record.logid == 523) record.text.erase(0, record.text.find(','));
  }
  const std::string read_msg = " D qn_service qn_service_process_msg_read_msg: ",
                    dump = " D qn_service service_dump_msg: ";
  const std::string exec = " D qn_service service_exec_msg_handler: ";
  EXPECT_EQ(
      (Told{
          "573" + read_msg + "ready to read msg header...",
          "533 D socket qn_sock_safe_read: read total_bytes_read=13.",
          "574" + read_msg + "read msg done, bytes_read=13",
          "553" + dump + "------------ Dump msg start -----------------",
          "554" + dump + "msg_id=258",
          "555" + dump + "msg_type=7",
          "556" + dump + "msg_src=2",
          "557" + dump + "msg_act=1",
          "558" + dump + "msg_len=2",
          "559" + dump + "msg_err=0",
          "607 D qn_utils dump_hex: ------------ Dump hex start -----------------",
          "609 D qn_utils dump_hex: 0x68(h) 0x69(i) ",
          "610 D qn_utils dump_hex: ------------ Dump hex end -----------------",
          "560" + dump + "------------ Dump msg end -----------------",
          "578 D qn_service service_process_msg: Received success: msg_src=2, msg_type=7, msg_len=2.",
          "570" + exec + " msg_src=2 msg_type=7. get callback ok.",
          "572" + exec + "msg_src=2 msg_type=7. call msg handler result=0, msg_err=0.",
          "523 D alloc memalloc: , size=13 success.",
          "568 D qn_service qn_service_send_response: ready to response msg, msg_len=2, msg_src=2, "
          "msg_type=7, "
          "msg_id=258,msg_act=2, msg_err=0",
          "561 D qn_service qn_service_safe_send_msg_body: send fd=" + fd +
              " into buff data count=13, try_send_count=1, need send=13",
          "566 D qn_service service_send_response: write success, fd=" + fd + ", bytes_written len=13"}),
      told(records));
}

TEST(ErrorMessage, HoldsTheCodeAndATextThatFits) {
  const struct {
    std::string text;
    int32_t result;
  } rows[] = {{"", 0},
              {"no route", 0},
              {std::string(127, 't'), 0},
              {std::string(128, 't'), -1},
              {std::string(5000, 't'), -1}};
  const GateAt errors(QN_LOG_E);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text.size());
    void* body = &g_static_block;
    uint32_t len = 4711;
    StderrCapture capture;
    ASSERT_EQ(row.result, qn_service_make_error_msg(0xA1B2C3D4, &body, &len, "%s", row.text.c_str()));
    if (row.result == 0) {
      const uint32_t code = 0xA1B2C3D4;
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(&code), 4) + row.text + '\0',
                std::string(static_cast<const char*>(body), len));
      EXPECT_EQ(Told{}, told(capture.records()));
      free(body);
    } else {
      EXPECT_EQ(&g_static_block, body);
      EXPECT_EQ(4711u, len);
      EXPECT_EQ(Told{"587 E qn_service qn_service_make_error_msg: vsprintf_s failed, fmt:%s"},
                told(capture.records()));
    }
  }
}

} // namespace
