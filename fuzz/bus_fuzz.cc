// A broker that says anything, and the fields of a message: whatever bytes come, the readers stay inside
// them, and the client comes back from each call in bounded time with nothing lost.
//
// Behind a first byte with bit 0 the input is the body of a message, else it is what the broker sends.
#include <libubus.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include "bus/shared.h"
#include "fuzz/input.h"
#include "standin/message.h"
#include "support/temp_dir.h"

namespace {

constexpr int kRounds = 8;

uint64_t g_sum; // what was read, so that reading is not optimised away

void read_data(blob_attr* data) {
  g_sum += describe_fields(data).size();
  const blobmsg_policy policy[] = {
      {"node", BLOBMSG_TYPE_STRING}, {"hops", BLOBMSG_TYPE_INT32}, {"tab", BLOBMSG_TYPE_UNSPEC}};
  blob_attr* fields[3];
  blobmsg_parse(policy, 3, fields, blob_data(data), static_cast<unsigned int>(blob_len(data)));
  for (blob_attr* field : fields) g_sum += field != nullptr ? strlen(blobmsg_name(field)) : 0;
}

void read_body(const uint8_t* data, size_t size) {
  // A block of just this size: a byte read behind it is found.
  const std::unique_ptr<uint8_t[]> body(new uint8_t[size]);
  memcpy(body.get(), data, size);
  const qn::bus::MessageBody found = qn::bus::parse_body(body.get(), size);
  if (found.method != nullptr) g_sum += strlen(found.method);
  if (found.data != nullptr) read_data(found.data);
}

void on_event(ubus_context*, ubus_event_handler*, const char* type, blob_attr* msg) {
  g_sum += strlen(type);
  read_data(msg);
}

// Says all of the input at once and closes, so that no wait of the client is a long one.
void serve(int listener, const uint8_t* data, size_t size) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  require(send(fd, data, size, MSG_NOSIGNAL) >= 0 || errno == EPIPE, "the input");
  close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if ((data[0] & 1) != 0) {
    read_body(data + 1, size - 1);
    return 0;
  }
  static const TempDir dir;
  static const std::string path = dir.file("bus");
  static const int listener = listen_at(path);
  std::thread broker(serve, listener, data + 1, size - 1);
  if (ubus_context* const ctx = ubus_connect(path.c_str())) {
    ubus_event_handler handler = {};
    handler.cb = on_event;
    ctx->connection_lost = [](ubus_context*) {};
    uloop_fd_add(&ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
    ubus_register_event_handler(ctx, &handler, "mesh.*");
    for (int i = 0; i < kRounds && ctx->sock.registered; i++) uloop_run_timeout(0);
    ubus_free(ctx);
  }
  broker.join();
  uloop_done();
  return 0;
}
