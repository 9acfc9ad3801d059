// A small bus broker for tests and the demo.
//
//   test_broker SOCKET [SWITCH ...]        serves until it is killed
//   test_broker send SOCKET TYPE [NAME=VALUE ...]   sends an event with text fields, as a client
//
// It serves hello, objects, "register" and "send", drops the clients' STATUS and answers anything else
// with a status. The switches make it a bad one:
//   no-hello            accepts and says nothing
//   close-on-accept     closes at once
//   hello-in-pieces     two writes, a moment apart
//   hello-version       a hello of version 1
//   length-3            a hello whose length is 3
//   length-2m           a hello whose length is 2 MiB
//   close-on-add        closes at the first ADD_OBJECT
//   close-on-register   closes at the first "register"
//   close-on-other      closes at each "register" of the pattern "other"
//   event-inside        sends an event between "register" and its status
//   bytewise            sends every message but the hello byte by byte
//   odd-invokes         sends the odd INVOKEs behind each "register"
//   stalls              sends 1000 events at once behind each "register", then reads nothing for 2.5 s
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

enum Type : uint8_t { kHello, kStatus, kData, kInvoke = 5, kAddObject = 6 };
enum Attr : uint32_t {
  kAttrStatus = 1,
  kAttrObjId = 3,
  kAttrMethod = 4,
  kAttrData = 7,
  kAttrNoReply = 10
};
enum Field : uint32_t { kTable = 2, kString = 3, kInt32 = 5 };
constexpr uint32_t kExtended = 0x80000000u;

// --- building ---

std::string u32(uint32_t value) {
  const uint32_t wire = htonl(value);
  return {reinterpret_cast<const char*>(&wire), sizeof(wire)};
}

std::string u16(uint16_t value) {
  const uint16_t wire = htons(value);
  return {reinterpret_cast<const char*>(&wire), sizeof(wire)};
}

std::string padded(std::string bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
  return bytes;
}

std::string attr(uint32_t id, const std::string& payload, uint32_t flags = 0) {
  return padded(u32(flags | id << 24 | static_cast<uint32_t>(payload.size() + 4)) + payload);
}

std::string text(const std::string& value) { return value + '\0'; }

std::string field(uint32_t type, const std::string& name, const std::string& value) {
  return attr(type, padded(u16(static_cast<uint16_t>(name.size())) + text(name)) + value, kExtended);
}

std::string message(Type type, uint16_t seq, uint32_t peer, const std::string& attrs) {
  return std::string{'\0', static_cast<char>(type)} + u16(seq) + u32(peer) +
         u32(static_cast<uint32_t>(attrs.size() + 4)) + attrs;
}

// --- reading ---

uint32_t load_u32(const std::string& bytes, size_t offset) {
  uint32_t wire = 0;
  memcpy(&wire, bytes.data() + offset, sizeof(wire));
  return ntohl(wire);
}

struct Attribute {
  uint32_t id;
  std::string payload;
};

std::vector<Attribute> parse_attrs(const std::string& bytes) {
  std::vector<Attribute> found;
  for (size_t at = 0; at + 4 <= bytes.size();) {
    const uint32_t head = load_u32(bytes, at);
    const size_t length = head & 0xFFFFFF;
    if (length < 4 || at + length > bytes.size()) break;
    found.push_back({head >> 24 & 0x7F, bytes.substr(at + 4, length - 4)});
    at += (length + 3) / 4 * 4;
  }
  return found;
}

std::optional<std::string> find_attr(const std::vector<Attribute>& attrs, uint32_t id) {
  for (const Attribute& attribute : attrs) {
    if (attribute.id == id) return attribute.payload;
  }
  return std::nullopt;
}

// The value of a named field inside DATA.
std::optional<std::string> find_field(const std::string& data, const std::string& name) {
  for (const Attribute& attribute : parse_attrs(data)) {
    if (attribute.payload.size() < 4) continue;
    const size_t length =
        static_cast<uint8_t>(attribute.payload[0]) << 8 | static_cast<uint8_t>(attribute.payload[1]);
    const size_t value = (2 + length + 1 + 3) / 4 * 4;
    if (value <= attribute.payload.size() && attribute.payload.compare(2, length, name) == 0) {
      return attribute.payload.substr(value);
    }
  }
  return std::nullopt;
}

bool type_matches(const std::string& pattern, const std::string& type) {
  if (!pattern.empty() && pattern.back() == '*')
    return type.starts_with(pattern.substr(0, pattern.size() - 1));
  return pattern == type;
}

// --- the broker ---

struct Client {
  std::string input;
  std::set<uint32_t> objects;
  std::map<uint32_t, std::vector<std::string>> patterns; // by object
};

class Broker {
 public:
  Broker(const std::string& path, std::set<std::string> switches) : switches_(std::move(switches)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unlink(path.c_str());
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener_, 16) != 0) {
      perror("test_broker");
      _exit(1);
    }
    puts("serving");
    fflush(stdout);
  }

  [[noreturn]] void run() {
    for (;;) {
      std::vector<struct pollfd> fds = {{listener_, POLLIN, 0}};
      for (const auto& [fd, client] : clients_) fds.push_back({fd, POLLIN, 0});
      poll(fds.data(), fds.size(), -1);
      for (const struct pollfd& ready : fds) {
        if (ready.revents == 0) continue;
        if (ready.fd == listener_) {
          accept_client();
        } else {
          read_client(ready.fd);
        }
      }
    }
  }

 private:
  bool is(const char* name) const { return switches_.contains(name); }

  uint32_t new_id() {
    uint32_t id = 0;
    while (id < 1024) id = static_cast<uint32_t>(random_());
    return id;
  }

  void send_bytes(int fd, const std::string& bytes) {
    const size_t step = is("bytewise") ? 1 : bytes.size();
    for (size_t at = 0; at < bytes.size(); at += step) {
      if (::send(fd, bytes.data() + at, step, MSG_NOSIGNAL) < 0) return;
    }
  }

  void drop(int fd) {
    close(fd);
    clients_.erase(fd);
  }

  void accept_client() {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    clients_[fd];
    if (is("close-on-accept")) return drop(fd);
    if (is("no-hello")) return;
    std::string hello = message(kHello, 0, new_id(), "");
    if (is("hello-version")) hello[0] = 1;
    if (is("length-3")) hello.replace(8, 4, u32(3));
    if (is("length-2m")) hello.replace(8, 4, u32(2 << 20));
    const size_t piece = is("hello-in-pieces") ? 5 : hello.size();
    ::send(fd, hello.data(), piece, MSG_NOSIGNAL);
    if (piece == hello.size()) return;
    usleep(20000);
    ::send(fd, hello.data() + piece, hello.size() - piece, MSG_NOSIGNAL);
  }

  void read_client(int fd) {
    char buffer[4096];
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got <= 0) return drop(fd);
    clients_[fd].input.append(buffer, static_cast<size_t>(got));
    while (clients_.contains(fd) && clients_[fd].input.size() >= 12) {
      std::string& input = clients_[fd].input;
      const size_t size = 8 + load_u32(input, 8);
      if (input.size() < size) return;
      const std::string whole = input.substr(0, size);
      input.erase(0, size);
      serve(fd, whole);
    }
  }

  void end_request(int fd, const std::string& request, uint32_t status) {
    const uint16_t seq = static_cast<uint16_t>(load_u32(request, 0));
    send_bytes(fd, message(kStatus, seq, load_u32(request, 4), attr(kAttrStatus, u32(status))));
  }

  void serve(int fd, const std::string& request) {
    const uint8_t type = static_cast<uint8_t>(request[1]);
    const std::vector<Attribute> attrs = parse_attrs(request.substr(12));
    if (type == kStatus) return;
    if (type == kAddObject) return add_object(fd, request);
    if (type != kInvoke) return end_request(fd, request, 1);
    const std::optional<std::string> method = find_attr(attrs, kAttrMethod);
    const std::string data = find_attr(attrs, kAttrData).value_or("");
    if (load_u32(request, 4) != 1) return end_request(fd, request, 4);
    if (method == text("register")) return register_pattern(fd, request, data);
    if (method == text("send")) return send_event(fd, request, data);
    end_request(fd, request, 3);
  }

  void add_object(int fd, const std::string& request) {
    if (is("close-on-add")) {
      switches_.erase("close-on-add");
      return drop(fd);
    }
    const uint32_t id = new_id();
    clients_[fd].objects.insert(id);
    const uint16_t seq = static_cast<uint16_t>(load_u32(request, 0));
    send_bytes(fd, message(kData, seq, 0, attr(kAttrObjId, u32(id))));
    end_request(fd, request, 0);
  }

  void register_pattern(int fd, const std::string& request, const std::string& data) {
    const std::optional<std::string> object = find_field(data, "object");
    const std::optional<std::string> pattern = find_field(data, "pattern");
    if (is("close-on-register")) {
      switches_.erase("close-on-register");
      return drop(fd);
    }
    if (is("close-on-other") && pattern == text("other")) return drop(fd);
    if (!object || !pattern) return end_request(fd, request, 2);
    const uint32_t id = load_u32(*object, 0);
    if (!clients_[fd].objects.contains(id)) return end_request(fd, request, 4);
    clients_[fd].patterns[id].push_back(pattern->substr(0, pattern->size() - 1));
    if (is("event-inside")) invoke(fd, id, attr(kAttrMethod, text("mesh.inside")) + attr(kAttrData, ""));
    end_request(fd, request, 0);
    if (is("odd-invokes")) odd_invokes(fd, id);
    if (is("stalls")) stall(fd, id);
  }

  std::string event(uint32_t object, const std::string& rest) {
    return message(kInvoke, ++event_seq_, 0, attr(kAttrObjId, u32(object)) + rest);
  }

  void invoke(int fd, uint32_t object, const std::string& rest) { send_bytes(fd, event(object, rest)); }

  // More events than the socket takes answers to, and for longer than a client waits.
  void stall(int fd, uint32_t id) {
    std::string events;
    for (int i = 1; i <= 1000; i++)
      events +=
          event(id, attr(kAttrMethod, text(i < 1000 ? "mesh.burst" : "mesh.last")) + attr(kAttrData, ""));
    send_bytes(fd, events);
    usleep(2500000);
  }

  void odd_invokes(int fd, uint32_t id) {
    const std::string method = attr(kAttrMethod, text("mesh.odd"));
    send_bytes(fd, message(kInvoke, ++event_seq_, 0, method));           // no object
    invoke(fd, id ^ 1, method + attr(kAttrData, ""));                    // not the client's
    invoke(fd, id, attr(kAttrData, ""));                                 // no method
    invoke(fd, id, attr(kAttrMethod, "mesh.odd") + attr(kAttrData, "")); // no NUL
    invoke(fd, id, method);                                              // no data
    invoke(fd, id, method + attr(kAttrData, "") + attr(kAttrNoReply, "\1"));
    send_bytes(fd, message(static_cast<Type>(9), 1, 0, "")); // a type that nobody sends
    invoke(fd, id, attr(kAttrMethod, text("mesh.good")) + attr(kAttrData, ""));
  }

  void send_event(int fd, const std::string& request, const std::string& data) {
    const std::optional<std::string> type = find_field(data, "id");
    const std::optional<std::string> fields = find_field(data, "data");
    if (!type || !fields) return end_request(fd, request, 2);
    const std::string name = type->substr(0, type->size() - 1);
    for (const auto& [other, client] : clients_) {
      if (other == fd) continue;
      for (const auto& [object, patterns] : client.patterns) {
        bool matches = false;
        for (const std::string& pattern : patterns) matches = matches || type_matches(pattern, name);
        if (matches) invoke(other, object, attr(kAttrMethod, *type) + attr(kAttrData, *fields));
      }
    }
    end_request(fd, request, 0);
  }

  std::set<std::string> switches_;
  std::map<int, Client> clients_;
  int listener_ = -1;
  uint16_t event_seq_ = 0;
  std::random_device random_;
};

// --- the sender ---

int read_exactly(int fd, char* out, size_t size) {
  for (size_t got = 0; got < size;) {
    const ssize_t more = read(fd, out + got, size - got);
    if (more <= 0) return -1;
    got += static_cast<size_t>(more);
  }
  return 0;
}

// Prints how many messages there were before the final status and returns it.
int send_as_client(const std::string& path, const std::string& type,
                   const std::vector<std::string>& fields) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return 10;

  std::string table;
  for (const std::string& pair : fields) {
    const size_t equals = pair.find('=');
    table += field(kString, pair.substr(0, equals), text(pair.substr(equals + 1)));
  }
  const std::string data = field(kString, "id", text(type)) + field(kTable, "data", table);
  const std::string request = message(
      kInvoke, 1, 1, attr(kAttrObjId, u32(1)) + attr(kAttrMethod, text("send")) + attr(kAttrData, data));
  char hello[12];
  char answer[20];
  if (read_exactly(fd, hello, sizeof(hello)) != 0 ||
      write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()) ||
      read_exactly(fd, answer, sizeof(answer)) != 0) {
    return 10;
  }
  close(fd);
  return static_cast<int>(load_u32(std::string(answer, sizeof(answer)), 16));
}

} // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() >= 3 && args[0] == "send") {
    return send_as_client(args[1], args[2], {args.begin() + 3, args.end()});
  }
  if (args.empty()) {
    fprintf(stderr, "usage: test_broker SOCKET [SWITCH ...] | send SOCKET TYPE [NAME=VALUE ...]\n");
    return 64;
  }
  Broker(args[0], {args.begin() + 1, args.end()}).run();
}
