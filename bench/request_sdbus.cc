// A method call of sd-bus between two ends of one socket pair, without a broker.
#ifdef HAVE_SYSTEMD
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <thread>

#include "bench_support.h"
#include "request_sdbus.h"

namespace {

using bench::must;

constexpr char kInterface[] = "org.quillcore.Bench";

void check(int result, const char* what) {
  if (result >= 0) return;
  errno = -result;
  bench::fail(what);
}

int echo(sd_bus_message* request, void*, sd_bus_error*) {
  const void* body = nullptr;
  size_t length = 0;
  check(sd_bus_message_read_array(request, 'y', &body, &length), "sd_bus_message_read_array");
  sd_bus_message* answer = nullptr;
  check(sd_bus_message_new_method_return(request, &answer), "sd_bus_message_new_method_return");
  check(sd_bus_message_append_array(answer, 'y', body, length), "sd_bus_message_append_array");
  check(sd_bus_send(nullptr, answer, nullptr), "sd_bus_send");
  sd_bus_message_unref(answer);
  return 1;
}

const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "ay", "ay", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

void serve(int fd) {
  sd_bus* bus = nullptr;
  check(sd_bus_new(&bus), "sd_bus_new");
  check(sd_bus_set_fd(bus, fd, fd), "sd_bus_set_fd");
  sd_id128_t id{};
  check(sd_id128_randomize(&id), "sd_id128_randomize");
  check(sd_bus_set_server(bus, 1, id), "sd_bus_set_server");
  check(sd_bus_add_object_vtable(bus, nullptr, "/", kInterface, kMethods, nullptr),
        "sd_bus_add_object_vtable");
  check(sd_bus_start(bus), "sd_bus_start");
  for (;;) {
    const int result = sd_bus_process(bus, nullptr);
    if (result == -ECONNRESET) break;
    check(result, "sd_bus_process");
    if (result == 0) check(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
  }
  sd_bus_close_unref(bus);
}

void call(sd_bus* bus, const char (&body)[bench::kSdBusBody]) {
  sd_bus_message* request = nullptr;
  sd_bus_message* answer = nullptr;
  check(sd_bus_message_new_method_call(bus, &request, nullptr, "/", kInterface, "Echo"),
        "sd_bus_message_new_method_call");
  check(sd_bus_message_append_array(request, 'y', body, sizeof(body)), "sd_bus_message_append_array");
  check(sd_bus_call(bus, request, 0, nullptr, &answer), "sd_bus_call");
  const void* echoed = nullptr;
  size_t length = 0;
  check(sd_bus_message_read_array(answer, 'y', &echoed, &length), "sd_bus_message_read_array");
  must(length == sizeof(body), "the answer's length");
  sd_bus_message_unref(request);
  sd_bus_message_unref(answer);
}

} // namespace

void bench::request_sdbus(benchmark::State& state) {
  int ends[2];
  must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  std::thread server(serve, ends[1]);
  sd_bus* bus = nullptr;
  check(sd_bus_new(&bus), "sd_bus_new");
  check(sd_bus_set_fd(bus, ends[0], ends[0]), "sd_bus_set_fd");
  check(sd_bus_start(bus), "sd_bus_start");

  const char body[kSdBusBody] = {};
  call(bus, body); // the handshake is over when this comes back
  for (auto _ : state) call(bus, body);

  sd_bus_close_unref(bus);
  server.join();
}
#endif
