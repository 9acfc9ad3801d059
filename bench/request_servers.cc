// The servers.
#include "request_servers.h"

#include <quillcore/context.h>
#include <quillcore/memory.h>
#include <quillcore/service.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "bench_support.h"

#ifdef HAVE_LIBUV
#include <uv.h>
#endif
#ifdef HAVE_LIBEVENT
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#endif

namespace bench {

int listen_at(const std::string& path, int socket_type) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  must(path.size() < sizeof(address.sun_path), "socket path");
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, socket_type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  must(fd >= 0, "socket");
  must(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind");
  must(listen(fd, SOMAXCONN) == 0, "listen");
  return fd;
}

namespace {

void watch(int epoll_fd, int fd) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
  event.data.fd = fd;
  must(epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
}

void accept_all(int epoll_fd, int listener) {
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    watch(epoll_fd, fd);
  }
}

// Edge-triggered, so a message is read until the socket is empty.
void echo(int fd) {
  char buffer[QN_MSG_SIZE_MAX];
  size_t length = 0;
  for (;;) {
    const ssize_t count = read(fd, buffer + length, sizeof(buffer) - length);
    if (count <= 0) break;
    length += static_cast<size_t>(count);
  }
  if (length > 0) must(write(fd, buffer, length) == static_cast<ssize_t>(length), "write");
}

[[noreturn]] void serve_bare_epoll(int listener) {
  const int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  must(epoll_fd >= 0, "epoll_create1");
  watch(epoll_fd, listener);
  for (;;) {
    epoll_event ready[64];
    const int count = epoll_wait(epoll_fd, ready, 64, -1);
    for (int i = 0; i < count; i++) {
      const int fd = ready[i].data.fd;
      if (fd == listener) {
        accept_all(epoll_fd, listener);
      } else if ((ready[i].events & EPOLLRDHUP) != 0) {
        close(fd);
      } else {
        echo(fd);
      }
    }
  }
}

int32_t echo_handler(const qn_msg_req_t* request, void** body, uint32_t* length) {
  *body = qn_alloc(request->body_len);
  if (*body == nullptr) return -1;
  memcpy(*body, request->body, request->body_len);
  *length = request->body_len;
  return 0;
}

} // namespace

void start_bare_epoll(const std::string& path) {
  std::thread(serve_bare_epoll, listen_at(path, SOCK_SEQPACKET)).detach();
}

void start_ours(const std::string& path) {
  static const std::string kept_path = path;
  static const qn_service_conf_t conf = {kept_path.c_str(), SOMAXCONN, QN_MSG_SIZE_MAX, 0};
  static qn_api_entry_t rows[] = {{1, 1, echo_handler, nullptr}};
  qn_cycle_t* const cycle = qn_cycle_new();
  must(cycle != nullptr, "qn_cycle_new");
  const qn_apis_t* const apis = qn_apis_new(cycle->pool, 1, rows);
  must(qn_service_start_with_thread(cycle, &conf, apis, nullptr) == 0, "qn_service_start_with_thread");
}

#ifdef HAVE_LIBUV
namespace {

char g_uv_buffer[QN_MSG_SIZE_MAX]; // one loop, and each message is answered before the next is read

void uv_lend(uv_handle_t*, size_t, uv_buf_t* buffer) {
  *buffer = uv_buf_init(g_uv_buffer, sizeof(g_uv_buffer));
}

void uv_echo(uv_stream_t* client, ssize_t count, const uv_buf_t* buffer) {
  if (count < 0) {
    uv_close(reinterpret_cast<uv_handle_t*>(client),
             [](uv_handle_t* handle) { delete reinterpret_cast<uv_pipe_t*>(handle); });
    return;
  }
  if (count == 0) return;
  const uv_buf_t answer = uv_buf_init(buffer->base, static_cast<unsigned>(count));
  must(uv_try_write(client, &answer, 1) == count, "uv_try_write");
}

void uv_accept_one(uv_stream_t* listener, int) {
  auto* const client = new uv_pipe_t;
  uv_pipe_init(listener->loop, client, 0);
  auto* const stream = reinterpret_cast<uv_stream_t*>(client);
  must(uv_accept(listener, stream) == 0, "uv_accept");
  must(uv_read_start(stream, uv_lend, uv_echo) == 0, "uv_read_start");
}

} // namespace

void start_libuv(const std::string& path) {
  static uv_loop_t loop;
  static uv_pipe_t listener;
  must(uv_loop_init(&loop) == 0, "uv_loop_init");
  must(uv_pipe_init(&loop, &listener, 0) == 0, "uv_pipe_init");
  must(uv_pipe_bind(&listener, path.c_str()) == 0, "uv_pipe_bind");
  must(uv_listen(reinterpret_cast<uv_stream_t*>(&listener), SOMAXCONN, uv_accept_one) == 0, "uv_listen");
  std::thread([] { uv_run(&loop, UV_RUN_DEFAULT); }).detach();
}
#endif

#ifdef HAVE_LIBEVENT
namespace {

void event_echo(bufferevent* client, void*) {
  bufferevent_write_buffer(client, bufferevent_get_input(client));
}

void event_end(bufferevent* client, short, void*) { bufferevent_free(client); }

void event_accept(evconnlistener*, evutil_socket_t fd, sockaddr*, int, void* base) {
  bufferevent* const client =
      bufferevent_socket_new(static_cast<event_base*>(base), fd, BEV_OPT_CLOSE_ON_FREE);
  must(client != nullptr, "bufferevent_socket_new");
  bufferevent_setcb(client, event_echo, nullptr, event_end, nullptr);
  bufferevent_enable(client, EV_READ | EV_WRITE);
}

} // namespace

void start_libevent(const std::string& path) {
  event_base* const base = event_base_new();
  must(base != nullptr, "event_base_new");
  evconnlistener* const listener = evconnlistener_new(base, event_accept, base, LEV_OPT_CLOSE_ON_FREE, 0,
                                                      listen_at(path, SOCK_STREAM));
  must(listener != nullptr, "evconnlistener_new");
  std::thread([base] { event_base_dispatch(base); }).detach();
}
#endif

} // namespace bench
