// One request on one end of a pair of sockets: what is reported, and peers that are gone or never read.
// What is answered to whom is told by the fuzz target of the wire and its corpus.
#include <gtest/gtest.h>
#include <unistd.h>

#include "service/running.h"
#include "support/capture.h"
#include "support/gate.h"

namespace {

enum : uint8_t { kEcho = 7, kHangUp };

// Its instance is the connection.
int32_t hang_up(const qn_msg_req_t* req, void**, uint32_t*) {
  return static_cast<Connection*>(req->ctx)->hang_up(), 0;
}

class Dispatch : public testing::Test {
 protected:
  const GateAt warnings_{QN_LOG_W};
  Connection connection_{{{kSource, kEcho, echo, nullptr}, {kSource, kHangUp, hang_up, &connection_}}};
  const std::string fd_ = std::to_string(connection_.ends[0]);
};

TEST_F(Dispatch, ReportsWhatItRefuses) {
  const struct {
    std::string bytes;
    int32_t result;
    std::string told;
  } rows[] = {
      {request(kEcho, 1, std::string(100, 'x')), 0, ""},
      {message({kEcho, QN_MSG_ACT_RSP, 0, 2, 101, 1}), -1, "575 101 100"},
      {message({kEcho, QN_MSG_ACT_RSP, 0, 2, 5, 1}), -1, "576 2"},
      {message({kEcho, QN_MSG_ACT_REQ, 0, 2, 5, 1}, "body"), -1, "577 15 5"},
      {message({kEcho, QN_MSG_ACT_REQ, 0, 32, 0, 1}), 0, "569 32 7"},
  };
  for (const auto& row : rows) {
    StderrCapture capture;
    EXPECT_EQ(row.result, connection_.serve(row.bytes)) << row.told;
    EXPECT_EQ(row.told, capture.brief());
  }
}

TEST_F(Dispatch, ReportsTheRoadOfAGoodRequest) {
  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  EXPECT_EQ(0, connection_.serve(request(kEcho, 258, "hi")));
  EXPECT_EQ(
      "573, 533 13, 574 13, 553, 554 258, 555 7, 556 2, 557 1, 558 2, 559 0, 607, 609 0 68 0 69, 610, "
      "560, 578 2 7 2, 570 2 7, 572 2 7 0 0, 568 2 2 7 258 2 0, 561 " +
          fd_ + " 13 1 13, 566 " + fd_ + " 13",
      capture.brief());
}

TEST_F(Dispatch, ReportsAPeerThatHangsUpBeforeItsAnswer) {
  StderrCapture capture;
  EXPECT_EQ(-1, connection_.serve(request(kHangUp, 1)));
  EXPECT_EQ("562 " + fd_ + " 32, 563", capture.brief());
}

TEST_F(Dispatch, LosesTheAnswerThatAPeerLeavesNoRoomFor) {
  const std::string tried = "562 " + fd_ + " 11";
  while (write(connection_.ends[0], "x", 1) == 1) continue;
  StderrCapture capture;
  EXPECT_EQ(-1, connection_.serve(request(kEcho, 1)));
  EXPECT_EQ(tried + ", " + tried + ", " + tried + ", " + tried, capture.brief());
  take_all(connection_.ends[1]);
  EXPECT_EQ(0, connection_.serve(request(kEcho, 2))) << "the connection stays";
}

TEST(ErrorMessage, RefusesATextThatDoesNotFit) {
  void* body = &body;
  uint32_t len = 4711;
  const GateAt errors(QN_LOG_E);
  StderrCapture capture;
  EXPECT_EQ(-1, qn_service_make_error_msg(1, &body, &len, "%s", std::string(128, 't').c_str()));
  EXPECT_EQ("587", capture.brief());
  EXPECT_TRUE(body == &body && len == 4711);
  EXPECT_EQ(0, qn_service_make_error_msg(1, &body, &len, "%s", ""));
  EXPECT_EQ(5u, len);
  free(body);
}

} // namespace
