// The bus client: what it sends against recorded exchanges, and how it takes a broker that is bad or
// gone.
//
// There is one client for a process, so each case runs it in a child of its own. The child's records come
// back through a pipe on its standard error, and its handler's view of each event through them too.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libubus.h>
#include <poll.h>
#include <quillcore/bus.h>
#include <quillcore/utility.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bus/shared.h"
#include "support/main.h"
#include "support/temp_dir.h"

namespace {

constexpr int kDeadlineMs = 20000;

// --- the client, in a child ---

void on_event(ubus_context*, ubus_event_handler*, const char* type, blob_attr* msg) {
  fprintf(stderr, "event %s: %s\n", type, describe_fields(msg).c_str());
}

int32_t on_connected(ubus_context* ctx) {
  fprintf(stderr, "connected %s\n", ctx != nullptr ? "with a context" : "without");
  return 0;
}

// A child that runs until it is ended, and what it prints.
class Child {
 public:
  Child(int stream, const std::function<void()>& body) {
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    child_ = fork();
    if (child_ == 0) {
      dup2(ends[1], stream);
      body();
      for (;;) pause();
    }
    close(ends[1]);
    output_ = ends[0];
  }
  ~Child() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    close(output_);
  }

  // Reads on until the text has appeared behind what was waited for before; false when it does not come.
  bool waits_for(const std::string& wanted) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
    while (std::chrono::steady_clock::now() < deadline) {
      const size_t at = text_.find(wanted, seen_);
      if (at != std::string::npos) {
        seen_ = at + wanted.size();
        return true;
      }
      struct pollfd poll_fd = {output_, POLLIN, 0};
      char buffer[4096];
      if (poll(&poll_fd, 1, kDeadlineMs) != 1) return false;
      const ssize_t got = read(output_, buffer, sizeof(buffer));
      if (got <= 0) return false;
      text_.append(buffer, static_cast<size_t>(got));
    }
    return false;
  }

  const std::string& text() const { return text_; }
  pid_t pid() const { return child_; }

 private:
  pid_t child_ = -1;
  int output_ = -1;
  std::string text_;
  size_t seen_ = 0;
};

struct Client : Child {
  Client(const std::string& path, const char* pattern, void (*prepare)() = nullptr)
      : Child(STDERR_FILENO, [&] {
          qn_ubus_init();
          qn_ubus_add_handler(1, on_connected);
          if (pattern != nullptr) qn_ubus_add_event_handler(pattern, on_event);
          if (prepare != nullptr) prepare();
          qn_ubus_start(path.c_str());
        }) {}
};

// --- recorded exchanges ---

struct Step {
  std::string kind; // S, C, connection, close
  std::string bytes;
};

std::vector<Step> read_steps(const std::string& name) {
  std::ifstream in(std::string(TEST_DATA_DIR "/bus/") + name + ".txt");
  std::vector<Step> steps;
  for (std::string line; std::getline(in, line);) {
    Step step{line.substr(0, line.find_first_of("> ")), ""};
    std::string digits;
    for (const char c : line.substr(step.kind.size())) {
      if (isxdigit(static_cast<unsigned char>(c))) digits += c;
    }
    if (step.kind == "S" || step.kind == "C") {
      for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        step.bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
      }
    }
    steps.push_back(step);
  }
  return steps;
}

std::string read_exactly(int fd, size_t size) {
  std::string bytes(size, '\0');
  for (size_t got = 0; got < size;) {
    struct pollfd poll_fd = {fd, POLLIN, 0};
    if (poll(&poll_fd, 1, kDeadlineMs) != 1) return bytes.substr(0, got);
    const ssize_t more = read(fd, bytes.data() + got, size - got);
    if (more <= 0) return bytes.substr(0, got);
    got += static_cast<size_t>(more);
  }
  return bytes;
}

// Plays the broker's side; what the client sends must be the recorded bytes, ids included, since they
// come from what the broker sent.
// Returns the connection.
int replay(const std::vector<Step>& steps, int listener) {
  int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  for (const Step& step : steps) {
    if (step.kind == "S") {
      EXPECT_EQ(static_cast<ssize_t>(step.bytes.size()), write(fd, step.bytes.data(), step.bytes.size()));
    } else if (step.kind == "C") {
      EXPECT_EQ(step.bytes, read_exactly(fd, step.bytes.size()));
    } else if (step.kind == "close") {
      close(fd);
      fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    }
  }
  return fd;
}

TEST(BusReplay, SendsWhatWasRecorded) {
  const struct {
    const char* name;
    const char* pattern;
    std::vector<std::string> printed;
  } rows[] = {
      {"a-connect-hello-free", nullptr, {"connected with a context"}},
      {"b-event-exact", "mesh.status", {"[0618] [I]", "event mesh.status: node='leaf-1' hops=2 up=1 \n"}},
      {"c-event-wildcard", "mesh.*", {"event mesh.status: node='leaf-1' hops=2 up=1 \n"}},
      {"d-broker-restart", "mesh.status", {"'leaf-1'", "[0617] [I]", "'leaf-2' hops=3 up=0 \n"}},
      {"e-event-types",
       "mesh.types",
       {" i8=127 i16=4660 i32=-2 i64=81985529216486895 dbl=", "empty='' s4='abcd' nul=null tab={ "}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const TempDir dir;
    const int listener = listen_at(dir.file("bus"));
    Client client(dir.file("bus"), row.pattern);
    struct pollfd poll_fd = {replay(read_steps(row.name), listener), POLLIN, 0};
    EXPECT_EQ(0, poll(&poll_fd, 1, 50)) << "the client has more to say than was recorded";
    close(poll_fd.fd);
    for (const std::string& wanted : row.printed) EXPECT_TRUE(client.waits_for(wanted)) << client.text();
    close(listener);
  }
}

TEST(BusReplay, EndsWhenItMayNotListen) {
  const TempDir dir;
  const int listener = listen_at(dir.file("bus"));
  Client client(dir.file("bus"), "mesh.status", [] { signal(SIGINT, SIG_IGN); });
  const int fd = replay(read_steps("g-register-denied"), listener);
  EXPECT_EQ("", read_exactly(fd, 1)) << "it closes its socket";
  EXPECT_TRUE(client.waits_for("qn_ubus_register_event failed.")) << client.text();
  close(fd);
  close(listener);
  // The thread ends, and some time later its hold on the signals that end a process: one that the process
  // ignores is ignored then as before.
  siginfo_t info = {};
  EXPECT_TRUE(eventually([&] {
    kill(client.pid(), SIGINT), kill(client.pid(), SIGTERM);
    return waitid(P_PID, static_cast<id_t>(client.pid()), &info, WEXITED | WNOWAIT | WNOHANG) == 0 &&
           info.si_status == SIGTERM;
  }));
}

// --- a broker of our own, with faults ---

struct Broker : Child {
  Broker(const std::string& path, const char* fault)
      : Child(STDOUT_FILENO, [&] { execl(TEST_BROKER, TEST_BROKER, path.c_str(), fault, nullptr); }) {
    EXPECT_TRUE(waits_for("\n")) << "the broker serves";
  }
};

void send_event(const std::string& path, const char* value) {
  const std::string command = std::string(TEST_BROKER) + " send " + path + " mesh.status node=" + value;
  EXPECT_EQ(0, system(command.c_str()));
}

TEST(BusFaults, AFirstConnectionThatFailsEndsTheThread) {
  const char kNoConnection[] = "[0621] [E] [qn_ubus] [qn_ubus_loop] Failed to connect to ubus.";
  const char kNoSubscription[] = "qn_ubus_register_event failed.";
  const char* const rows[][2] = {
      {"close-on-accept", kNoConnection}, {"hello-version", kNoConnection},
      {"length-3", kNoConnection},        {"length-2m", kNoConnection},
      {"close-on-add", kNoSubscription},  {"close-on-register", kNoSubscription},
  };
  for (const auto& [fault, told] : rows) {
    SCOPED_TRACE(fault);
    const TempDir dir;
    const Broker broker(dir.file("bus"), fault);
    Client client(dir.file("bus"), "mesh.*");
    EXPECT_TRUE(client.waits_for(told)) << client.text();
    for (const char* attempt : {"[0616]", "[0617]"})
      EXPECT_EQ(std::string::npos, client.text().find(attempt)) << client.text();
  }
}

TEST(BusFaults, AHelloMayComeInPiecesOrNotAtAll) {
  if (!TEST_BUS_STANDIN)
    GTEST_SKIP() << "libubus reads the hello with one call, and waits without a limit";
  const TempDir dir;
  const std::string path = dir.file("bus");
  auto broker = std::make_unique<Broker>(path, "no-hello");
  Client first(path, "mesh.*");
  EXPECT_TRUE(first.waits_for("[0621] [E]")) << first.text();
  broker = std::make_unique<Broker>(path, "hello-in-pieces");
  Client client(path, "mesh.*");
  EXPECT_TRUE(client.waits_for("[0623] [I]")) << client.text();
  broker = std::make_unique<Broker>(path, "no-hello");
  EXPECT_TRUE(client.waits_for("[0616] [E]")) << client.text();
}

TEST(BusLoop, EndsWhenItWasToldToBeforeItRan) {
  for (void (*const prepare)() : {
           +[] { qn_ubus_add_handler(1, [](ubus_context*) -> int32_t { return raise(SIGTERM); }); },
           +[] { qn_ubus_add_handler(1, [](ubus_context*) -> int32_t { return uloop_end(), 0; }); },
       }) {
    const TempDir dir;
    const Broker broker(dir.file("bus"), nullptr);
    Client client(dir.file("bus"), nullptr, prepare);
    EXPECT_TRUE(client.waits_for("[0623] [I]")) << client.text();
    EXPECT_TRUE(client.waits_for("[0625] [I]")) << client.text();
  }
}

int32_t call_the_bus(ubus_context* ctx) {
  static ubus_event_handler other = {};
  other.cb = on_event;
  ubus_register_event_handler(ctx, &other, "other");
  fprintf(stderr, "the call is over\n");
  return 0;
}

// The broker goes away in the middle of a handler's call. That ends, and its handler; then comes the
// attempt.
TEST(BusLoop, ComesBackBehindTheHandlerWhoseCallMetTheLoss) {
  const TempDir dir;
  const Broker broker(dir.file("bus"), "close-on-other");
  Client client(dir.file("bus"), nullptr, [] {
    uloop_cancelled = true; // as an earlier loop of the process leaves it
    qn_ubus_add_handler(2, call_the_bus);
    qn_ubus_add_event_handler("mesh.*",
                              [](ubus_context* ctx, ubus_event_handler*, const char*, blob_attr*) {
                                call_the_bus(ctx);
                                fprintf(stderr, "the event is through\n");
                              });
  });
  for (const char* wanted : {"the call is over", "END. ret=0", "[0623] [I]", "[0617] [I]"})
    ASSERT_TRUE(client.waits_for(wanted)) << wanted << client.text();
  send_event(dir.file("bus"), "leaf-1");
  for (const char* wanted : {"the call is over", "the event is through", "[0617] [I]"})
    ASSERT_TRUE(client.waits_for(wanted)) << wanted << client.text();
}

TEST(BusFaults, ASlowOrTalkativeBrokerIsServed) {
  const struct {
    const char* fault;
    const char* event;
  } rows[] = {{"bytewise", nullptr},
              {"event-inside", "event mesh.inside: \n"},
              {"odd-invokes", "event mesh.good: \n"},
              {"stalls", "event mesh.last: \n"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    const TempDir dir;
    const Broker broker(dir.file("bus"), row.fault);
    Client client(dir.file("bus"), "mesh.*");
    EXPECT_TRUE(client.waits_for("[0623] [I]")) << client.text();
    if (row.event != nullptr)
      EXPECT_TRUE(client.text().find(row.event) != std::string::npos || client.waits_for(row.event));
    send_event(dir.file("bus"), "leaf-1");
    EXPECT_TRUE(client.waits_for("event mesh.status: node='leaf-1' \n")) << client.text();
  }
}

// The broker is killed and comes back, good or with a fault that ends the attempt in its middle.
TEST(BusFaults, ALostConnectionIsRepairedWithItsSubscription) {
  const char* const faults[] = {nullptr, "close-on-add", "close-on-register", "close-on-accept"};
  const TempDir dir;
  const std::string path = dir.file("bus");
  auto broker = std::make_unique<Broker>(path, nullptr);
  Client client(path, "mesh.*");
  ASSERT_TRUE(client.waits_for("[0623] [I]")) << client.text();
  const std::set<int> descriptors = open_descriptors(std::to_string(client.pid()));
  for (const char* const fault : faults) {
    SCOPED_TRACE(fault != nullptr ? fault : "gone");
    broker.reset();
    ASSERT_TRUE(client.waits_for("[0616] [E]")) << client.text();
    broker = std::make_unique<Broker>(path, fault);
    if (fault != nullptr) ASSERT_TRUE(client.waits_for("[0616] [E]")) << client.text();
    // The first two faults happen once; a broker with the last does not become good by itself.
    if (fault == faults[3]) {
      broker.reset();
      broker = std::make_unique<Broker>(path, nullptr);
    }
    ASSERT_TRUE(client.waits_for("[0617] [I]")) << client.text();
    send_event(path, "leaf-2");
    EXPECT_TRUE(client.waits_for("event mesh.status: node='leaf-2' \n")) << client.text();
    EXPECT_EQ(descriptors, open_descriptors(std::to_string(client.pid())));
  }
}

// In a child without standard streams, of which what the loop opens must not become one.
bool holds_in_child(const std::function<bool()>& what) {
  fflush(stderr);
  const pid_t child = fork();
  if (child != 0) return status_of(child) == 0;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) close(fd);
  _exit(what() ? 0 : 1);
}

// The loop reaps no child of others: each call that waits for its own gets its status.
TEST(BusChildren, KeepTheirStatusBesideTheLoop) {
  const TempDir dir;
  const std::string path = dir.file("bus");
  const Broker broker(path, nullptr);
  EXPECT_TRUE(holds_in_child([&path] {
    qn_ubus_start(path.c_str());
    int lost = 0;
    for (int i = 0; i < 1000; i++) {
      char output[8] = "";
      lost += qn_os_exec_cmd(":") != 0;
      lost += qn_os_exec_cmd_and_read_output("echo x", output, sizeof(output)) != 0 || output[0] != 'x';
      // pclose() drops the status inside the library, so one more of our own shows whether it is there.
      if (i % 10 == 0) lost += system(":") != 0;
    }
    struct stat null, stream;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
      lost += stat("/dev/null", &null) != 0 || fstat(fd, &stream) != 0 || stream.st_rdev != null.st_rdev;
    return lost == 0;
  }));
}

TEST(BusTables, HoldTheirLimits) {
  EXPECT_TRUE(holds_in_child([] {
    bool held = qn_ubus_init() == 0 && qn_ubus_add_event_handler(nullptr, on_event) == -1 &&
                qn_ubus_add_event_handler("a", nullptr) == -1 &&
                qn_ubus_add_event_handler(std::string(32, 'e').c_str(), on_event) == -1 &&
                qn_ubus_add_event_handler(std::string(31, 'e').c_str(), on_event) == 0 &&
                qn_ubus_add_event_handler("b", on_event) == -1;
    for (uint32_t type = 0; type < 7; type++) held = held && qn_ubus_add_handler(type, nullptr) == 0;
    held = held && qn_ubus_add_handler(3, on_connected) == 0;  // an update takes no row
    held = held && qn_ubus_add_handler(7, on_connected) == 0;  // the eighth
    held = held && qn_ubus_add_handler(3, on_connected) == -1; // full: an update is refused too
    held = held && qn_ubus_init() == 0 && qn_ubus_add_handler(8, on_connected) == -1;
    return held && qn_ubus_start(nullptr) == -1 && qn_ubus_stop() == 0;
  }));
}

} // namespace
