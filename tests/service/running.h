// Services on threads of their own, and clients that talk to them.
#ifndef TESTS_SERVICE_RUNNING_H
#define TESTS_SERVICE_RUNNING_H

#include <quillcore/service.h>
#include <semaphore.h>

#include <chrono>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/log_gate.h"
#include "support/capture.h"
#include "support/temp_dir.h"

// Asks until the condition holds; false when it does not within half a minute.
template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

// What the log lets pass for a scope: records up to a level, 0 for none, and trace records or not.
class GateAt {
 public:
  explicit GateAt(uint32_t level, bool trace = false) {
    qn::log_gate_set_current(qn::make_gate(level, true, true, trace, false));
  }
  ~GateAt() { qn::log_gate_set_current(before_); }
  GateAt(const GateAt&) = delete;
  GateAt& operator=(const GateAt&) = delete;

 private:
  const uint32_t before_ = qn::log_gate_current();
};

// Records as texts: "573 D qn_service qn_service_process_msg_read_msg: ready to read msg header...".
using Told = std::vector<std::string>;

inline Told told(const std::vector<Record>& records) {
  Told found;
  for (const Record& record : records) {
    found.push_back(std::to_string(record.logid) + " " + record.level + " " + record.module + " " +
                    record.biz_name + ": " + record.text);
  }
  return found;
}

std::string message(const qn_msg_hdr_t& header, std::string_view body = {});
std::string request(uint8_t type, uint16_t src, uint32_t id, std::string_view body = {});
std::string response(uint8_t type, uint8_t err, uint16_t src, uint32_t id, std::string_view body = {});

class Client {
 public:
  // Connects, as soon as somebody listens at the path.
  explicit Client(const std::string& path);
  ~Client() { hang_up(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void send(std::string_view bytes) const;
  // The next message, waited for; "(nothing)" when none comes and "(closed)" at the end of the stream.
  std::string receive() const;
  // The same without waiting.
  std::string received() const;
  std::string call(std::string_view bytes) const;
  void hang_up();

 private:
  int fd_;
};

// A handler may wait here until the test lets it go on.
struct Meeting {
  Meeting() { sem_init(&entered, 0, 0), sem_init(&leave, 0, 0); }
  sem_t entered;
  sem_t leave;
};

// Handlers. answer() ends one with success and a copy of these bytes as the body.
int32_t answer(std::string_view body, void** rsp_body, uint32_t* rsp_len);
int32_t echo(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);
int32_t hold(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len); // its instance is a Meeting

// A cycle whose services end before it does, whatever state the test left them in.
class Services {
 public:
  Services();
  ~Services();
  Services(const Services&) = delete;
  Services& operator=(const Services&) = delete;

  qn_cycle_t* cycle() const { return cycle_; }
  const qn_service_t* record(uint32_t slot) const { return cycle_->services[slot]; }
  std::string path(uint32_t slot) const { return dir_.file(std::to_string(slot)); }

  // A table of this cycle over copies of the rows, with `instance` in each.
  const qn_apis_t* table(const std::vector<qn_api_entry_t>& rows, void* instance = nullptr) const;
  // Starts a service at path(slot), or at a path of its own.
  int32_t start(uint32_t slot, const qn_apis_t* apis, uint32_t max_msg_len = 3061);
  int32_t start_at(const std::string& path, uint32_t slot, const qn_apis_t* apis,
                   uint32_t max_msg_len = 3061, pthread_t* thread = nullptr);

  // Waits until no service runs any more; what their threads did is visible then.
  bool ended() const;
  // Stops and wakes all services until none runs any more. Closes what they left open, and with it every
  // descriptor that is younger than this object.
  bool end();

 private:
  bool threads_are_gone() const;

  struct Conf {
    std::string path;
    qn_service_conf_t conf;
  };

  TempDir dir_;
  std::set<int> descriptors_before_;
  std::set<int> threads_before_;
  std::deque<Conf> confs_;
  qn_cycle_t* cycle_;
};

// Holds a service inside a handler from here to release() or the end of its scope: what arrives
// meanwhile is queued. `client` asks for a handler that waits at `meeting`.
class Held {
 public:
  Held(const Client& client, Meeting& meeting, std::string_view bytes);
  ~Held() { release(); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

  void release();

 private:
  Meeting* meeting_;
};

#endif // TESTS_SERVICE_RUNNING_H
