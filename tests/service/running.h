// Services on threads of their own, and clients that talk to them.
#ifndef TESTS_SERVICE_RUNNING_H
#define TESTS_SERVICE_RUNNING_H

#include <gtest/gtest.h>
#include <poll.h>
#include <quillcore/service.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "service/service.h"
#include "support/main.h"
#include "support/temp_dir.h"

constexpr uint16_t kSource = 2; // of all requests

inline std::string message(const qn_msg_hdr_t& header, std::string_view body = {}) {
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)).append(body);
}

inline std::string request(uint8_t type, uint32_t id, std::string_view body = {}) {
  return message({type, QN_MSG_ACT_REQ, 0, kSource, static_cast<uint16_t>(body.size()), id}, body);
}

inline std::string response(uint8_t type, uint32_t id, std::string_view body = {}) {
  return message({type, QN_MSG_ACT_RSP, 0, kSource, static_cast<uint16_t>(body.size()), id}, body);
}

// A connection, or -1 when nobody listens or the queue is full.
inline int connect_to(const std::string& path, int flags = 0) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
  close(fd);
  return -1;
}

// Connects, as soon as somebody listens at the path or until it is told to give up.
class Client {
 public:
  explicit Client(const std::string& path, const std::function<bool()>& give_up = {}) {
    EXPECT_TRUE(eventually([&] { return (fd_ = connect_to(path)) >= 0 || (give_up && give_up()); }));
  }
  ~Client() { hang_up(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Whether it arrives is told by what comes back.
  void send(std::string_view bytes) const { ::send(fd_, bytes.data(), bytes.size(), 0); }
  bool has_received() const {
    pollfd ready = {fd_, POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
  }
  // The next message; "(nothing)" when there is none and "(closed)" at the end of the stream.
  std::string received() const {
    std::string bytes(4096, '\0');
    const ssize_t got = recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got <= 0) return got == 0 || errno == ECONNRESET ? "(closed)" : "(nothing)";
    return bytes.substr(0, static_cast<size_t>(got));
  }
  std::string receive() const {
    return eventually([this] { return has_received(); }), received();
  }
  std::string call(std::string_view bytes) const { return send(bytes), receive(); }
  void hang_up() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// Handlers. answer() ends one with success and a copy of these bytes as the body.
inline int32_t answer(std::string_view body, void** rsp_body, uint32_t* rsp_len) {
  *rsp_len = static_cast<uint32_t>(body.size());
  *rsp_body = qn_alloc(*rsp_len);
  body.copy(static_cast<char*>(*rsp_body), body.size());
  return 0;
}

inline int32_t echo(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return answer({reinterpret_cast<const char*>(req->body), req->body_len}, rsp_body, rsp_len);
}

// A connection whose requests are handled by the caller's own thread.
struct Connection {
  explicit Connection(std::vector<qn_api_entry_t> table) : rows(std::move(table)) {
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
  }
  ~Connection() {
    close(ends[0]);
    hang_up();
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int32_t serve(std::string_view bytes) {
    ::send(ends[1], bytes.data(), bytes.size(), 0);
    return qn_service_process_msg(ends[0], 0, &service);
  }
  void hang_up() {
    if (ends[1] >= 0) close(ends[1]);
    ends[1] = -1;
  }

  int ends[2]; // the service's, the client's
  std::vector<qn_api_entry_t> rows;
  const qn_apis_t apis = {static_cast<uint16_t>(rows.size()), rows.data()};
  const qn_service_conf_t conf = {"", 0, 100, 0};
  qn_service_t service = {nullptr, &apis, nullptr, &conf};
};

// All that has been sent to this end and was not read.
inline std::string take_all(int end) {
  std::string all, bytes(4096, '\0');
  for (ssize_t got; (got = recv(end, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0;)
    all.append(bytes, 0, static_cast<size_t>(got));
  return all;
}

// A cycle whose services end before it does, whatever state the test left them in.
class Services {
 public:
  Services() {
    // A sanitizer may start a thread of its own beside the first one of a process.
    std::thread([] {}).join();
    threads_before_ = threads();
  }
  ~Services() {
    EXPECT_TRUE(end()) << "a service goes on";
    qn_cycle_free(cycle_);
  }
  Services(const Services&) = delete;
  Services& operator=(const Services&) = delete;

  qn_cycle_t* cycle() const { return cycle_; }
  std::string path(uint32_t slot) const { return dir_.file(std::to_string(slot)); }

  // A table of this cycle over copies of the rows, with `instance` in each.
  const qn_apis_t* table(const std::vector<qn_api_entry_t>& rows, void* instance) const {
    const uint32_t count = static_cast<uint32_t>(rows.size());
    return qn_apis_new(cycle_->pool, count,
                       qn_service_inject_instance(cycle_->pool, rows.data(), count, instance));
  }

  // Starts a service at path(slot), or at a path of its own.
  int32_t start(uint32_t slot, const qn_apis_t* apis, const std::string& own_path = "",
                pthread_t* thread = nullptr) {
    if (confs_.empty()) threads_before_ = threads();
    paths_.push_back(own_path.empty() ? path(slot) : own_path);
    confs_.push_back({paths_.back().c_str(), 16, 3061, slot});
    return qn_service_start_with_thread(cycle_, &confs_.back(), apis, thread);
  }

  // Whether no service runs any more.
  bool is_gone() const {
    const std::set<int> now = threads();
    return std::includes(threads_before_.begin(), threads_before_.end(), now.begin(), now.end());
  }

  // Waits until none does; what their threads did is visible then: a service clears its record, as its
  // last act, under the lock that a stop takes.
  bool ended() const {
    return eventually([this] { return is_gone(); }) && qn_service_stop_with_thread(cycle_) == 0;
  }

  // Stops and wakes all services until none runs any more. Closes what they left open, and with it every
  // descriptor that is younger than this object.
  bool end() {
    const bool gone = eventually([this] {
      qn_service_stop_with_thread(cycle_);
      for (const std::string& path : paths_) {
        if (const int fd = is_gone() ? -1 : connect_to(path, SOCK_NONBLOCK); fd >= 0) close(fd);
      }
      return is_gone();
    });
    if (!gone || !ended()) return false;
    close_descriptors_not_in(descriptors_before_);
    confs_.clear();
    return true;
  }

 private:
  static std::set<int> threads() {
    std::set<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
      found.insert(std::stoi(entry.path().filename()));
    return found;
  }

  const TempDir dir_;
  const std::set<int> descriptors_before_ = open_descriptors();
  std::set<int> threads_before_;
  std::deque<std::string> paths_;
  std::deque<qn_service_conf_t> confs_;
  qn_cycle_t* const cycle_ = qn_cycle_new();
};

#endif // TESTS_SERVICE_RUNNING_H
