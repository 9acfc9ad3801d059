// A broker that says anything: the client connects, subscribes and serves for a while, and must come back
// from each call in bounded time, with nothing lost. The input is what the broker sends; bit 0 of its
// first byte puts a good hello in front.
#include <libubus.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

constexpr char kHello[12] = {0, 0, 0, 0, 0x12, 0x34, 0x56, 0x78, 0, 0, 0, 4};
constexpr int kRounds = 8;

int g_events;
int g_lost;

void on_event(ubus_context*, ubus_event_handler*, const char* type, blob_attr* msg) {
  g_events += strlen(type) != 0 && blob_len(msg) != 0;
}

void on_lost(ubus_context*) { g_lost++; }

int listen_at(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, 4) != 0)
    abort();
  return fd;
}

// Says all of the input at once and closes, so that no wait of the client is a long one.
void serve(int listener, const uint8_t* data, size_t size) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if ((data[0] & 1) != 0 && write(fd, kHello, sizeof(kHello)) < 0) abort();
  if (send(fd, data + 1, size - 1, MSG_NOSIGNAL) < 0 && size > 1 && errno != EPIPE) abort();
  close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const std::string path = "/tmp/quill-bus-fuzz." + std::to_string(getpid());
  static const int listener = [] {
    atexit([] { unlink(path.c_str()); });
    return listen_at(path);
  }();
  std::thread broker(serve, listener, data, size);
  g_lost = 0;
  if (ubus_context* const ctx = ubus_connect(path.c_str())) {
    ubus_event_handler handler = {};
    handler.cb = on_event;
    ctx->connection_lost = on_lost;
    uloop_fd_add(&ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
    ubus_register_event_handler(ctx, &handler, "mesh.*");
    for (int i = 0; i < kRounds && ctx->sock.registered; i++) uloop_run_timeout(0);
    ubus_free(ctx);
  }
  broker.join();
  uloop_done();
  return 0;
}
