#include "service/running.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "support/main.h"

namespace {

constexpr int kPatienceMs = 30000;

int connect_to(const std::string& path, int flags) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
  close(fd);
  return -1;
}

std::set<int> threads() {
  std::set<int> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    found.insert(std::stoi(entry.path().filename()));
  }
  return found;
}

std::string receive_message(int fd, int flags) {
  std::string bytes(1 << 17, '\0');
  const ssize_t got = recv(fd, bytes.data(), bytes.size(), flags);
  if (got == 0) return "(closed)";
  if (got < 0) return errno == EAGAIN ? "(nothing)" : strerror(errno);
  bytes.resize(static_cast<size_t>(got));
  return bytes;
}

} // namespace

std::string message(const qn_msg_hdr_t& header, std::string_view body) {
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
  return bytes.append(body);
}

std::string request(uint8_t type, uint16_t src, uint32_t id, std::string_view body) {
  return message({type, QN_MSG_ACT_REQ, 0, src, static_cast<uint16_t>(body.size()), id}, body);
}

std::string response(uint8_t type, uint8_t err, uint16_t src, uint32_t id, std::string_view body) {
  return message({type, QN_MSG_ACT_RSP, err, src, static_cast<uint16_t>(body.size()), id}, body);
}

Client::Client(const std::string& path) : fd_(-1) {
  EXPECT_TRUE(eventually([&] { return (fd_ = connect_to(path, 0)) >= 0; })) << path;
}

void Client::send(std::string_view bytes) const {
  EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd_, bytes.data(), bytes.size()))
      << strerror(errno);
}

std::string Client::receive() const {
  pollfd ready = {fd_, POLLIN, 0};
  poll(&ready, 1, kPatienceMs);
  return received();
}

std::string Client::received() const { return receive_message(fd_, MSG_DONTWAIT); }

std::string Client::call(std::string_view bytes) const {
  send(bytes);
  return receive();
}

void Client::hang_up() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

int32_t answer(std::string_view body, void** rsp_body, uint32_t* rsp_len) {
  if (body.empty()) return 0;
  *rsp_body = malloc(body.size());
  *rsp_len = static_cast<uint32_t>(body.size());
  body.copy(static_cast<char*>(*rsp_body), body.size());
  return 0;
}

int32_t echo(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  return answer({reinterpret_cast<const char*>(req->body), req->body_len}, rsp_body, rsp_len);
}

int32_t hold(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  Meeting& meeting = *static_cast<Meeting*>(req->ctx);
  sem_post(&meeting.entered);
  sem_wait(&meeting.leave);
  return answer("held", rsp_body, rsp_len);
}

Services::Services() : descriptors_before_(open_descriptors()), cycle_(qn_cycle_new()) {
  // A sanitizer may start a thread of its own beside the first one of a process.
  std::thread([] {}).join();
  threads_before_ = threads();
}

Services::~Services() {
  EXPECT_TRUE(end()) << "a service goes on";
  qn_cycle_free(cycle_);
}

const qn_apis_t* Services::table(const std::vector<qn_api_entry_t>& rows, void* instance) const {
  const uint32_t count = static_cast<uint32_t>(rows.size());
  return qn_apis_new(cycle_->pool, count,
                     qn_service_inject_instance(cycle_->pool, rows.data(), count, instance));
}

int32_t Services::start(uint32_t slot, const qn_apis_t* apis, uint32_t max_msg_len) {
  return start_at(path(slot), slot, apis, max_msg_len);
}

int32_t Services::start_at(const std::string& path, uint32_t slot, const qn_apis_t* apis,
                           uint32_t max_msg_len, pthread_t* thread) {
  if (confs_.empty()) threads_before_ = threads();
  Conf& made = confs_.emplace_back(Conf{path, {nullptr, 16, max_msg_len, slot}});
  made.conf.server_path = made.path.c_str();
  return qn_service_start_with_thread(cycle_, &made.conf, apis, thread);
}

bool Services::threads_are_gone() const {
  for (const int thread : threads()) {
    if (!threads_before_.contains(thread)) return false;
  }
  return true;
}

bool Services::ended() const {
  if (!eventually([this] { return threads_are_gone(); })) return false;
  // A service clears its record, as its last act, under the lock that a stop takes.
  return qn_service_stop_with_thread(cycle_) == 0;
}

bool Services::end() {
  const bool gone = eventually([this] {
    if (threads_are_gone()) return true;
    qn_service_stop_with_thread(cycle_);
    for (const Conf& conf : confs_) close(connect_to(conf.path, SOCK_NONBLOCK));
    return false;
  });
  if (!gone || !ended()) return false;
  close_descriptors_not_in(descriptors_before_);
  confs_.clear();
  return true;
}

Held::Held(const Client& client, Meeting& meeting, std::string_view bytes) : meeting_(&meeting) {
  client.send(bytes);
  EXPECT_TRUE(eventually([this] { return sem_trywait(&meeting_->entered) == 0; }));
}

void Held::release() {
  if (meeting_ != nullptr) sem_post(&meeting_->leave);
  meeting_ = nullptr;
}
