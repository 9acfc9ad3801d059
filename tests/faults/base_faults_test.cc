// Heap, pool, containers, commands, threads, sockets and the bus client.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libubus.h>
#include <poll.h>
#include <quillcore/bus.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "container/string_map.h"
#include "faults/table.h"
#include "platform/guards.h"
#include "support/owners.h"
#include "support/temp_dir.h"

namespace {

using namespace shim;
using std::string;

// Gets a path in a folder of its own, where nothing is yet.
struct OnPath : Operation {
  using Call = int64_t(const char* path);
  OnPath(Call* made, const Outcome& outcome) : call(made) { undisturbed = outcome; }
  int64_t run() override { return call(dir.file("file").c_str()); }

  TempDir dir;
  Call* call;
};

Make on(OnPath::Call* call, const Outcome& undisturbed = {}) { return make<OnPath>(call, undisturbed); }

qn_api_entry_t g_rows[] = {{1, 2, nullptr, nullptr}};

template <size_t count>
int64_t number_of(void* const (&blocks)[count]) {
  return std::ranges::count_if(blocks, [](const void* block) { return block != nullptr; });
}

int64_t fill_heap(const char*) {
  void* const blocks[] = {qn_alloc(32), qn_realloc(qn_memalign(16, 8), 64, 8), qn_memalign(64, 32),
                          qn_strdup("text", 4)};
  for (void* block : blocks) qn_free(block);
  return number_of(blocks);
}

// The pool's first block is full: the large block too wants another one, for its record.
int64_t fill_pool(const char*) {
  const PoolPtr pool(qn_pool_create(256));
  if (!pool) return -1;
  qn_palloc(pool.get(), 256 - 7 * sizeof(void*));
  void* const blocks[] = {qn_palloc(pool.get(), 300), qn_pcalloc(pool.get(), 64),
                          qn_apis_new(pool.get(), 1, g_rows),
                          qn_service_inject_instance(pool.get(), g_rows, 1, nullptr)};
  qn_pool_reset(pool.get());
  return number_of(blocks);
}

int64_t new_cycle(const char*) { return CyclePtr(qn_cycle_new()) != nullptr; }

int64_t error_msg(const char*) {
  void* body = nullptr;
  uint32_t length = 0;
  const int32_t result = qn_service_make_error_msg(7, &body, &length, "%s", "text");
  qn_free(body);
  return result;
}

// The number of entries. The file has more than the buffer holds, and its end is not the one of an
// earlier file, which may still lie there.
int64_t load_config(const char* path) {
  write_file(path, "first=1\nsecond=" + string(20000, '\n') + path + string(20000, '\n'));
  const MapPtr map(qn_conf_load(path));
  int64_t entries = 0;
  qn::map_walk(map.get(), [&](const qn_map_node_t&) { entries++; });
  EXPECT_STREQ(map ? path : nullptr, qn_map_get("second", map.get()));
  return entries;
}

int64_t set_in_map(const char*) {
  const MapPtr map(qn_map_new());
  return map ? qn_map_set("key", "value", map.get()) : -7;
}

// The number of keys, and one more for their list.
int64_t fill_table(const char*) {
  qn_table_t* table = _qn_table_new(0, nullptr, nullptr);
  for (const char* key : {"one", "two"}) _qn_table_put(table, key, g_rows, nullptr);
  void** const list = qn_table_toarray(table, nullptr);
  const int64_t found = qn_table_length(table) + (list != nullptr);
  if (table != nullptr) qn_table_remove(table, "one");
  qn_free(list);
  qn_table_free(&table);
  return found;
}

// 1 when the command has run, 0 when it has not though the call gave 0.
int64_t exec_vcmd(const char* path) {
  const int32_t result = qn_os_exec_vcmd(": >%s", path);
  return result == 0 ? std::filesystem::exists(path) : result;
}

int64_t init_dir(const char*) { return qn_init_dir(); }

// The length of the output, which begins as a text of nine bytes.
int64_t read_output(const char*) {
  char output[64] = "untouched";
  const int32_t result = qn_os_exec_cmd_and_read_output("printf 'one\\ntwo\\n'", output, sizeof(output));
  return result == 0 ? static_cast<int64_t>(strlen(output)) : result;
}

int64_t read_value(const char* path) {
  char value[64] = "untouched";
  write_file(path, "mode=ap\n");
  const int32_t result = qn_os_read_value_by_key_from_file(path, "mode", "=", value, sizeof(value));
  if (result == 0) EXPECT_STREQ("ap", value);
  return result;
}

int64_t start_thread(const char*) {
  pthread_t thread;
  const int32_t result = qn_pthread_new(
      &thread, [](void* arg) { return arg; }, nullptr);
  if (result == 0) pthread_join(thread, nullptr);
  return result;
}

// The second read finds nothing.
int64_t safe_read(const char*) {
  const qn::UniqueFd fd(eventfd(5, EFD_CLOEXEC | EFD_NONBLOCK));
  uint8_t buffer[16];
  uint32_t bytes_read = 77;
  const int32_t result = qn_sock_safe_read(fd.get(), buffer, sizeof(buffer), &bytes_read);
  EXPECT_EQ(result == 0 ? 8u : 77u, bytes_read);
  return result;
}

int64_t set_options(const char*) {
  const qn::UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  return qn_sock_set_nonblock(fd.get()) + qn_sock_set_fd_send_timeout(fd.get(), 1, 2) +
         qn_sock_set_fd_recv_timeout(fd.get(), 1, 2);
}

int64_t connect_to(const char* path) {
  int32_t fd = -7;
  const int32_t result = qn_sock_connect_unix_socket_server(path, &fd);
  EXPECT_EQ(result != 0, fd == -7);
  const qn::UniqueFd owner(fd);
  return result;
}

int64_t serve(const char* path) {
  int32_t fd = -7;
  const int32_t result = qn_sock_create_unix_socket_server(path, 4, &fd);
  EXPECT_EQ(result != 0, fd == -7);
  const qn::UniqueFd owner(fd);
  return result != 0 ? result : connect_to(path);
}

// What a broker has to say to a client with one subscription, in words.
constexpr uint32_t kBroker[] = {
    0,          0x8e750468, 4,                 // hello
    0x00020001, 0,          12, 0x03000008, 7, // data: the object's id
    0x00010001, 0,          12, 0x01000008, 0, // status: it is there
    0x00010002, 1,          12, 0x01000008, 0, // status: subscribed
    0x00050001, 0,          24, 0x03000008, 7, 0x04000006, 0x61000000, 0x07000004, // the event "a"
};

// The client from its start to the event that ends its loop, while the broker's side is spared. Result:
// 10 when the business handler has run, and 1 when the event has come.
struct Bus : Operation {
  Bus() {
    undisturbed = {11};
    sockaddr_un address = {AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    EXPECT_EQ(0, listen(listener.get(), 1));
    qn_ubus_add_handler(1, [](ubus_context*) -> int32_t { return calls += 10, 0; });
    qn_ubus_add_event_handler("a", [](ubus_context*, ubus_event_handler*, const char*, blob_attr*) {
      calls++;
      uloop_end();
    });
    broker = std::thread([this] {
      spare(true);
      uint32_t words[std::size(kBroker)];
      std::ranges::transform(kBroker, words, htonl);
      while (true) {
        const qn::UniqueFd fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd.valid()) return;
        if (write(fd.get(), words, sizeof(words)) < 0) continue;    // the client has gone already
        pollfd ends[] = {{fd.get(), 0, 0}, {listener.get(), 0, 0}}; // of the client, of the operation
        poll(ends, 2, -1);
      }
    });
  }
  ~Bus() override {
    shutdown(listener.get(), SHUT_RDWR);
    broker.join();
  }
  int64_t run() override {
    pthread_t thread;
    calls = 0;
    keep_detached(&thread);
    const int32_t started = qn_ubus_start(path.c_str());
    if (started != 0) return started;
    pthread_join(thread, nullptr);
    uloop_done(); // a thread that ends before its loop runs leaves that open
    return calls;
  }

  static int calls;
  TempDir dir;
  string path = dir.file("bus");
  qn::UniqueFd listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::thread broker;
};
int Bus::calls = 0;

} // namespace

std::vector<Row> base_rows() {
  const Make heap = on(fill_heap, {4}), pool = on(fill_pool, {4}), cycle = on(new_cycle, {1});
  const Make config = on(load_config, {2}), map = on(set_in_map), table = on(fill_table, {3});
  const Make vcmd = on(exec_vcmd, {1}), output = on(read_output, {8}), value = on(read_value);
  const Make thread = on(start_thread), reading = on(safe_read), options = on(set_options);
  const Make server = on(serve), client = on(connect_to, {-1, {549}, ENOENT});
  const Outcome no_block = {3, {524}}, no_aligned = {3, {526}}, full = {3, {526, 414}};
  const Outcome all_full = {0, {526, 414, 526, 414, 526, 414, 526, 414}};
  const Outcome no_config = {0, {524, 0}};
  return {
      {"heap", heap, "malloc", ENOMEM, {no_block, no_block, no_block}},
      {"heap", heap, "posix_memalign", ENOMEM, {{4, {526}}, no_aligned}}, // nothing is copied
      {"pool", pool, "memalign", ENOMEM, {{-1}}},
      {"pool", pool, "malloc", ENOMEM, {no_block}},
      {"pool", pool, "posix_memalign", ENOMEM, {full}},
      {"pool", pool, "posix_memalign", ENOMEM, {all_full}, kFailAlways},
      {"cycle", cycle, "memalign", ENOMEM, {{0, {519}}}},
      {"error_msg", on(error_msg), "malloc", ENOMEM, {{-4, {524}}}},

      {"config", config, "open", EACCES, {{0, {}, 0, "] open file="}}},
      {"config", config, "read", EIO, {{0, {}, 0, "] read file="}}},
      {"config", config, "read", EINTR, {{2}}},
      {"config", config, "read", 0, {{2}}, kShort},
      {"config", config, "malloc", ENOMEM, {no_config, no_config, no_config}},
      {"map", map, "malloc", ENOMEM, {{-7, {524, 0}}, {-2, {524, 0}}}},
      {"table", table, "malloc", ENOMEM, {{0, {524}}, {2, {524}}, {2, {524}}, {2, {524}}}},
      {"table", table, "strdup", ENOMEM, {{2}, {2}}},

      {"vcmd", vcmd, "fork", EAGAIN, {{-1, {614}}}},
      {"vcmd", vcmd, "execv", ENOENT, {{0}}}, // the child's exit status is not looked at
      {"vcmd", vcmd, "waitpid", EINTR, {{1}}},
      {"vcmd", vcmd, "waitpid", ECHILD, {{-1, {611, 614}}}},
      // Its folders are fixed ones, so that nothing may run.
      {"init_dir", on(init_dir), "fork", EAGAIN, {{-1, {614, 614}}}, kFailAlways, kUntried},
      {"read_output", output, "popen", EMFILE, {{-1, {4140}}}},
      {"read_output", output, "read", EIO, {{9}, {8}}},
      {"read_output", output, "read", EINTR, {{8}, {8}}},
      {"read_value", value, "popen", EMFILE, {{-1, {4142}}}},
      {"read_value", value, "read", EIO, {{-1, {4143}}, {-1, {4143}}}},
      {"read_value", value, "read", EINTR, {{0}, {0}}},
      {"pthread_new", thread, "pthread_attr_init", ENOMEM, {{0, {603}}}},
      {"pthread_new", thread, "pthread_attr_setstacksize", EINVAL, {{0, {604}}}},
      {"pthread_new", thread, "pthread_create", EAGAIN, {{-1, {605}}}},
      {"pthread_new", thread, "pthread_attr_destroy", EINVAL, {{0, {606}}}},

      {"safe_read", reading, "read", EIO, {{-1}, {0}}},
      {"safe_read", reading, "read", 0, {{-1}, {0}}, kNothing},
      {"set_options", options, "F_GETFL", EBADF, {{-1, {534}}}},
      {"set_options", options, "F_SETFL", EPERM, {{-1, {535}}}},
      {"set_options", options, "setsockopt", EDOM, {{-1, {551}}, {-1, {552}}}},
      {"server", server, "socket", EMFILE, {{-1, {540}}, {-1, {548}}}},
      {"server", server, "setsockopt", EINVAL, {{0}, {0}}},
      {"server", server, "bind", EADDRINUSE, {{-1, {541}}}},
      {"server", server, "listen", EADDRINUSE, {{-1, {542}}}},
      {"server", server, "connect", ECONNREFUSED, {{-1, {549}}}},
      {"server", server, "connect", ENOENT, {{0}}}, // the second attempt succeeds
      // Without a server the second attempt's error is not the one that is named.
      {"client", client, "connect", EACCES, {{-1, {549}}, {-1, {549}, ENOENT}}},
  };
}

// An installed libubus makes its calls out of reach.
std::vector<Row> bus_rows() {
  if (!TEST_BUS_STANDIN) return {};
  // What wakes the loop is made once and stays.
  uloop_init();
  uloop_done();
  const Make bus = make<Bus>();
  const Outcome no_bus = {0, {621}}, no_answer = {0, {0}};
  const std::vector<Outcome> no_memory = {no_bus, no_bus, no_bus, no_answer, no_answer, no_answer};
  return {
      {"bus", bus, "pthread_create", EAGAIN, {{-1, {631}}}},
      {"bus", bus, "epoll_create1", EMFILE, {{11}}}, // connecting makes the loop
      {"bus", bus, "epoll_create1", EMFILE, {no_bus}, kFailAlways, kUntried},
      {"bus", bus, "EPOLL_CTL_ADD", ENOSPC, {{11}, no_bus}}, // what wakes the loop; the bus
      {"bus", bus, "socket", EMFILE, {no_bus}},
      {"bus", bus, "connect", EAGAIN, {no_bus}},
      {"bus", bus, "read", EIO, {no_bus}, kFail, kUntried},
      // The context and its connection, the hello; the answers to the subscription.
      {"bus", bus, "malloc", ENOMEM, no_memory, kFail, kUntried},
      {"bus", bus, "epoll_wait", EINTR, {{11}}, kFail, kUntried},
      {"bus", bus, "epoll_wait", EBADF, {{10}}, kFail, kUntried},
  };
}
