// Sockets of real processes: results, records and what the descriptors are like.
#include <quillcore/socket.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "service/event_base.h"
#include "service/running.h"
#include "support/capture.h"

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

constexpr int kUntouched = -77;

class Socket : public testing::Test {
 protected:
  ~Socket() override { g_while_client_waits = nullptr; }

  int server(const std::string& path) {
    int32_t fd = kUntouched;
    EXPECT_EQ(0, qn_sock_create_unix_socket_server(path.c_str(), 4, &fd)) << path;
    return fd;
  }

  int client(const std::string& path) {
    int32_t fd = kUntouched;
    EXPECT_EQ(0, qn_sock_connect_unix_socket_server(path.c_str(), &fd)) << path;
    return fd;
  }

  // A path of exactly this many bytes.
  std::string path_of(size_t length) const {
    return dir_.file(std::string(length - dir_.path().size() - 1, 'p'));
  }

  const GateAt quiet_{0};
  const TempDir dir_;
};

TEST_F(Socket, ServerAndClientReachEachOther) {
  const std::string path = path_of(QN_SOCK_PATH_MAX);
  const GateAt all(QN_LOG_D, true);
  StderrCapture capture;
  const int listener = server(path);
  const int near = client(path);
  const std::string create = "qn_sock_create_unix_socket_server. called by nil.";
  const std::string connect = "qn_sock_connect_unix_socket_server. called by nil.";
  EXPECT_EQ(
      (Told{"536 T socket create_unix_socket_server: entering " + create,
            "539 D socket create_unix_socket_server: ready to bind server_path=" + path,
            "543 I socket create_uds: create uds success, server_path=" + path +
                ", listener_fd=" + std::to_string(listener),
            "544 T socket create_uds: leaving " + create, "545 T socket connect_uds: entering " + connect,
            "550 T socket connect_unix_socket_server: leaving " + connect}),
      told(capture.records()));
  capture.release();
  for (const int fd : {listener, near}) {
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL)) << "blocking";
  }

  const int far = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ASSERT_LE(0, far);
  char byte = 0;
  EXPECT_EQ(2, write(near, "ab", 2));
  EXPECT_EQ(1, write(near, "c", 1));
  EXPECT_EQ(1, read(far, &byte, 1));
  EXPECT_EQ(1, read(far, &byte, 1));
  EXPECT_EQ('c', byte) << "one write is one message";
  for (const int fd : {listener, near, far}) close(fd);
  EXPECT_TRUE(std::filesystem::is_socket(path)) << "the socket file stays";

  const GateAt warnings(QN_LOG_W);
  StderrCapture silence;
  const int again = server(path);
  close(client(path));
  close(again);
  EXPECT_EQ(Told{}, told(silence.records())) << "a file left there is replaced";
}

TEST_F(Socket, StaysOffTheStandardStreams) {
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100);
  close(STDIN_FILENO);
  const std::string path = dir_.file("socket");
  qn_cycle_t cycle = {};
  qn_ev_base_t* const base = qn_ev_base_new(&cycle);
  const int listener = server(path), near = client(path);
  EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
  EXPECT_LT(STDERR_FILENO, std::min({base->epoll_op.epfd, listener, near}));
  qn_ev_base_free(base);
  close(listener);
  close(near);
  dup2(input, STDIN_FILENO);
  close(input);
}

TEST_F(Socket, ReportsWhatFails) {
  const std::string path = dir_.file("socket"), absent = dir_.file("none/socket");
  const std::string too_long = path_of(QN_SOCK_PATH_MAX + 1);
  write_file(too_long, "kept");
  const int no_flags = open(dir_.path().c_str(), O_PATH | O_CLOEXEC);
  int32_t fd = kUntouched;
  const auto create = [&](const std::string& at) {
    return qn_sock_create_unix_socket_server(at.c_str(), 4, &fd);
  };
  const auto connect = [&](const std::string& to) {
    return qn_sock_connect_unix_socket_server(to.c_str(), &fd);
  };
  const auto without_descriptors = [](const auto& call) {
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int32_t result = call();
    setrlimit(RLIMIT_NOFILE, &before);
    return result;
  };
  const std::string create_failed = "540 E socket create_unix_socket_server: create unix socket failed.";
  const std::string bind_failed = "541 E socket create_uds: bind uds fd failed.server_path=";
  const std::string connect_failed = "548 E socket connect_uds: create uds failed. server_path=";
  const std::string no_get = "534 E socket sock_set_nonblock: fcntl F_GETFL failed. socket fd=-1";
  const std::string no_set = "535 E socket sock_set_nonblock: fcntl F_SETFL failed. socket fd=";
  const std::string bad = ", errno=(9,Bad file descriptor)", many = ", errno=(24,Too many open files)";
  const struct {
    int32_t result;
    std::string told;
    std::function<int32_t()> call;
  } rows[] = {
      {-2, "537 W socket create_unix_socket_server: server_path is null.",
       [] { return qn_sock_create_unix_socket_server(nullptr, 4, nullptr); }},
      {-2, "538 W socket create_unix_socket_server: out param sock_fd is null.",
       [&] { return qn_sock_create_unix_socket_server(path.c_str(), 4, nullptr); }},
      {-1, create_failed + "server_path=" + path + many,
       [&] { return without_descriptors([&] { return create(path); }); }},
      {-1, bind_failed + absent + ", errno=(2,No such file or directory)",
       [&] { return create(absent); }},
      {-1, bind_failed + ", errno=(22,Invalid argument)", [&] { return create(""); }},
      {-1, bind_failed + too_long + ", errno=(36,File name too long)", [&] { return create(too_long); }},
      {-2, "546 W socket connect_uds: server_path is null.",
       [] { return qn_sock_connect_unix_socket_server(nullptr, nullptr); }},
      {-2, "547 W socket connect_uds: out param sock_fd is null.",
       [&] { return qn_sock_connect_unix_socket_server(path.c_str(), nullptr); }},
      {-1, connect_failed + path + many,
       [&] { return without_descriptors([&] { return connect(path); }); }},
      {-1, "", [&] { return connect(too_long); }},
      {-1, no_get + bad, [] { return qn_sock_set_nonblock(-1); }},
      {-1, no_set + std::to_string(no_flags) + bad, [&] { return qn_sock_set_nonblock(no_flags); }},
      {-1, "551 E socket qn_sock_set_fd_send_timeout: set sock fd SO_SNDTIMEO failed. timout=(3,4)",
       [] { return qn_sock_set_fd_send_timeout(-1, 3, 4); }},
      {-1, "552 E socket qn_sock_set_fd_recv_timeout: set sock fd SO_RCVTIMEO failed. timout=(3,4)",
       [] { return qn_sock_set_fd_recv_timeout(-1, 3, 4); }},
  };
  const GateAt warnings(QN_LOG_W);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.told);
    StderrCapture capture;
    EXPECT_EQ(row.result, row.call());
    EXPECT_EQ(row.told.empty() ? Told{} : Told{row.told}, told(capture.records()));
    EXPECT_EQ(kUntouched, fd);
  }
  EXPECT_EQ("kept", read_file(too_long)) << "nothing is unlinked for a path that does not fit";
  close(no_flags);
}

TEST_F(Socket, ClientGivesAServerThatIsNotThereYetOneSecond) {
  const std::string path = dir_.file("server"), stale = dir_.file("stale");
  close(server(stale));
  int listener = -1;
  const std::vector<int64_t> none, second = {1000, 300};
  const struct {
    const char* name;
    std::string path;
    std::function<void()> meanwhile;
    std::vector<int64_t> waits;
    const char* error; // none when the client gets through
  } rows[] = {
      {"nobody comes", path, [] {}, second, "2,No such file or directory"},
      {"it binds", path, [&] { listener = server(path); }, second, nullptr},
      {"nobody listens", stale, [] {}, none, "111,Connection refused"},
      {"a later reason is not told", dir_.file("moved"),
       [&] { std::filesystem::rename(stale, dir_.file("moved")); }, second,
       "2,No such file or directory"},
  };
  const GateAt warnings(QN_LOG_W);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    g_waits_ms.clear();
    g_while_client_waits = row.meanwhile;
    int32_t fd = kUntouched;
    StderrCapture capture;
    const int32_t result = qn_sock_connect_unix_socket_server(row.path.c_str(), &fd);
    EXPECT_EQ(row.waits, g_waits_ms);
    if (row.error == nullptr) {
      EXPECT_EQ(0, result);
      close(fd);
      continue;
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(kUntouched, fd);
    EXPECT_EQ(Told{"549 E socket connect_unix_socket_server: connect unix socket failed. server_path=" +
                   row.path + ", errno=(" + row.error + ")"},
              told(capture.records()));
  }
  close(listener);
}

TEST_F(Socket, SafeReadTakesAllThatIsQueuedAndFits) {
  const struct {
    const char* name;
    std::vector<size_t> queued; // sizes of messages
    bool closed;
    uint32_t len;
    std::vector<uint32_t> reads; // results of consecutive calls, the last of which finds nothing
  } rows[] = {
      {"nothing", {}, false, 64, {}},
      {"closed, nothing", {}, true, 64, {}},
      {"closed, one message", {20}, true, 64, {20}},
      {"two messages are one result", {20, 30}, false, 64, {50}},
      {"just full", {20, 30}, false, 50, {50}},
      {"full ends the call, not the queue", {20, 30, 7}, false, 50, {50, 7}},
      {"no room", {20}, false, 0, {}},
      {"a message is cut, its rest is lost", {40}, false, 16, {16}},
      {"the second message is cut", {20, 30}, false, 40, {40}},
      {"an empty message ends the call", {5, 0, 7}, false, 64, {5, 7}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
    ASSERT_EQ(0, qn_sock_set_nonblock(fds[0]));
    std::string expected;
    for (const size_t size : row.queued) {
      const std::string bytes(size, static_cast<char>('a' + size % 26));
      EXPECT_EQ(static_cast<ssize_t>(size), send(fds[1], bytes.data(), size, 0));
      expected += bytes;
    }
    if (row.closed) close(fds[1]);

    std::string buffer(64, '.');
    size_t seen = 0;
    uint32_t bytes_read = 4711;
    for (const uint32_t count : row.reads) {
      EXPECT_EQ(0, qn_sock_safe_read(fds[0], buffer.data(), row.len, &bytes_read));
      ASSERT_EQ(count, bytes_read);
      EXPECT_EQ(expected.substr(seen, count), buffer.substr(0, count));
      EXPECT_EQ(std::string::npos, buffer.find_first_not_of('.', row.len)) << "written behind the room";
      seen += count;
      buffer.assign(64, '.');
    }
    bytes_read = 4711;
    EXPECT_EQ(-1, qn_sock_safe_read(fds[0], buffer.data(), row.len, &bytes_read));
    EXPECT_EQ(4711u, bytes_read);
    EXPECT_EQ(std::string(64, '.'), buffer);
    close(fds[0]);
    if (!row.closed) close(fds[1]);
  }

  const GateAt debug(QN_LOG_D);
  StderrCapture capture;
  uint32_t bytes_read = 4711;
  char byte;
  EXPECT_EQ(-1, qn_sock_safe_read(-1, &byte, 1, &bytes_read));
  EXPECT_EQ(Told{"533 D socket qn_sock_safe_read: read total_bytes_read=0."}, told(capture.records()));
}

TEST_F(Socket, TimeoutsBoundBlockingCalls) {
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
  EXPECT_EQ(0, qn_sock_set_fd_recv_timeout(fds[0], 0, 20000));
  EXPECT_EQ(0, qn_sock_set_fd_send_timeout(fds[0], 7, 0));
  for (const auto& [option, seconds] : {std::pair{SO_RCVTIMEO, 0}, std::pair{SO_SNDTIMEO, 7}}) {
    struct timeval set = {};
    socklen_t size = sizeof(set);
    getsockopt(fds[0], SOL_SOCKET, option, &set, &size);
    EXPECT_EQ(seconds, set.tv_sec);
    EXPECT_EQ(seconds == 0, set.tv_usec > 0);
  }

  char buffer[64];
  uint32_t bytes_read = 0;
  EXPECT_EQ(3, write(fds[1], "abc", 3));
  EXPECT_EQ(0, qn_sock_safe_read(fds[0], buffer, sizeof(buffer), &bytes_read));
  EXPECT_EQ(3u, bytes_read) << "what came before the time-out";

  EXPECT_EQ(0, qn_sock_set_fd_send_timeout(fds[0], 0, 20000));
  const std::string message(1024, 'x');
  ssize_t written = 0;
  while ((written = write(fds[0], message.data(), message.size())) > 0) continue;
  EXPECT_EQ(-1, written);
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_EQ(-1, qn_sock_set_fd_send_timeout(fds[0], 0, 1000000)) << "a second is no microseconds";
  close(fds[0]);
  close(fds[1]);
}

} // namespace
