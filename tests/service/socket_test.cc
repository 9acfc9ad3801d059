// Sockets of real processes: results, records and what the descriptors are like.
#include <quillcore/socket.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "service/event_base.h"
#include "support/capture.h"
#include "support/gate.h"
#include "support/temp_dir.h"

namespace {

// What happens while a client waits for its server, and the time that it asks for, which a signal
// interrupts once. Real time would leave it to chance whether a server binds before, within or after it.
std::function<void()> g_while_client_waits;
std::vector<int64_t> g_waits_ms;

} // namespace

extern "C" int clock_nanosleep(clockid_t, int, const timespec* time, timespec* left) {
  g_waits_ms.push_back(time->tv_sec * 1000 + time->tv_nsec / 1000000);
  if (g_waits_ms.size() == 1) {
    *left = {0, 300000000};
    return EINTR;
  }
  if (g_while_client_waits) g_while_client_waits();
  return 0;
}

namespace {

// In a folder of its own.
class Socket : public testing::Test {
 protected:
  Socket() { std::filesystem::current_path(dir_.path()); }
  ~Socket() override {
    std::filesystem::current_path(before_);
    g_while_client_waits = nullptr;
  }

  int32_t server(const std::string& path) {
    return qn_sock_create_unix_socket_server(path.c_str(), 4, &fd_);
  }
  int32_t client(const std::string& path) {
    return qn_sock_connect_unix_socket_server(path.c_str(), &fd_);
  }

  const GateAt warnings_{QN_LOG_W};
  const std::filesystem::path before_ = std::filesystem::current_path();
  const TempDir dir_;
  int32_t fd_ = -77;
};

TEST_F(Socket, ServerAndClientReachEachOtherOffTheStandardStreams) {
  const std::string path(QN_SOCK_PATH_MAX, 'p');
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100);
  close(STDIN_FILENO);
  qn_cycle_t cycle = {};
  qn_ev_base_t* const base = qn_ev_base_new(&cycle);
  ASSERT_EQ(0, server(path));
  close(fd_); // its file stays, and is replaced
  const GateAt all(QN_LOG_D, true);
  StderrCapture capture;
  ASSERT_EQ(0, server(path));
  const int listener = fd_;
  ASSERT_EQ(0, client(path));
  const int near = fd_;
  EXPECT_EQ("536, 539, 543 " + std::to_string(listener) + ", 544, 545, 550", capture.brief());
  capture.release();
  EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
  EXPECT_LT(STDERR_FILENO, std::min({base->epoll_op.epfd, listener, near}));
  for (const int fd : {listener, near}) {
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL)) << "blocking";
    close(fd);
  }
  qn_ev_base_free(base);
  dup2(input, STDIN_FILENO);
  close(input);
}

TEST_F(Socket, ReportsWhatFails) {
  const std::string too_long(QN_SOCK_PATH_MAX + 1, 'p');
  write_file(too_long, "kept");
  const struct {
    int32_t result;
    std::string told;
    std::function<int32_t()> call;
  } rows[] = {
      {-2, "537", [&] { return qn_sock_create_unix_socket_server(nullptr, 4, nullptr); }},
      {-2, "538", [&] { return qn_sock_create_unix_socket_server("path", 4, nullptr); }},
      {-1, "541 2", [&] { return server("none/path"); }},
      {-1, "541 22", [&] { return server(""); }},
      {-1, "541 36", [&] { return server(too_long); }},
      {-2, "546", [&] { return qn_sock_connect_unix_socket_server(nullptr, nullptr); }},
      {-2, "547", [&] { return qn_sock_connect_unix_socket_server("path", nullptr); }},
      {-1, "", [&] { return client(too_long); }},
  };
  for (const auto& row : rows) {
    StderrCapture capture;
    EXPECT_EQ(row.result, row.call()) << row.told;
    EXPECT_EQ(row.told, capture.brief());
  }
  EXPECT_EQ(-77, fd_);
  EXPECT_EQ("kept", read_file(too_long)) << "nothing is unlinked for a path that does not fit";
}

TEST_F(Socket, ClientGivesAServerThatIsNotThereYetOneSecond) {
  ASSERT_EQ(0, server("stale"));
  close(fd_);
  int listener = -1;
  const std::vector<int64_t> none, second = {1000, 300};
  const struct {
    const char* path;
    std::function<void()> meanwhile;
    std::vector<int64_t> waits_ms;
    const char* told; // of a client that does not get through
  } rows[] = {
      {"nobody", nullptr, second, "549 2"},
      {"binds", [&] { listener = server("binds") == 0 ? fd_ : -1; }, second, ""},
      {"stale", nullptr, none, "549 111"},
      {"moved", [] { std::filesystem::rename("stale", "moved"); }, second,
       "549 2"}, // not the later reason
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    g_waits_ms.clear();
    g_while_client_waits = row.meanwhile;
    StderrCapture capture;
    EXPECT_EQ(*row.told == '\0' ? 0 : -1, client(row.path));
    EXPECT_EQ(row.waits_ms, g_waits_ms);
    EXPECT_EQ(row.told, capture.brief());
    if (*row.told == '\0') close(fd_);
  }
  close(listener);
}

std::string safe_read(int fd, uint32_t len) {
  std::string buffer(16, '.');
  uint32_t count = 4711;
  if (qn_sock_safe_read(fd, buffer.data(), len, &count) != 0) count = count == 4711 ? 0 : 16;
  EXPECT_EQ(std::string::npos, buffer.find_first_not_of('.', count));
  return buffer.substr(0, count);
}

TEST_F(Socket, SafeReadTakesAllThatIsQueuedAndFits) {
  const struct {
    std::vector<std::string> queued;
    uint32_t len;
    std::vector<std::string> reads; // one after the other; the next one finds nothing
  } rows[] = {
      {{"ab", "cde"}, 16, {"abcde"}},
      {{"ab", "cde", "f"}, 5, {"abcde", "f"}},
      {{"ab", "cde"}, 4, {"abcd"}},       // what does not fit is cut
      {{"ab", "", "c"}, 16, {"ab", "c"}}, // an empty message ends the call
      {{"ab"}, 0, {}},
  };
  for (const auto& row : rows) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
    ASSERT_EQ(0, qn_sock_set_nonblock(fds[0]));
    for (const std::string& bytes : row.queued) send(fds[1], bytes.data(), bytes.size(), 0);
    for (const std::string& bytes : row.reads) EXPECT_EQ(bytes, safe_read(fds[0], row.len));
    EXPECT_EQ("", safe_read(fds[0], row.len));
    close(fds[0]);
    close(fds[1]);
  }
}

TEST_F(Socket, TimeoutsBoundBlockingCalls) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  EXPECT_EQ(0, qn_sock_set_fd_recv_timeout(fd, 3, 20000));
  EXPECT_EQ(0, qn_sock_set_fd_send_timeout(fd, 7, 20000));
  for (const auto& [option, seconds] : {std::pair{SO_RCVTIMEO, 3}, std::pair{SO_SNDTIMEO, 7}}) {
    struct timeval set = {};
    socklen_t size = sizeof(set);
    getsockopt(fd, SOL_SOCKET, option, &set, &size);
    EXPECT_TRUE(set.tv_sec == seconds && set.tv_usec == 20000);
  }
  close(fd);
}

} // namespace
