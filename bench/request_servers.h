// Servers that answer each message on a local socket with as many bytes.
//
// A server runs on a thread of its own until the process ends; nobody stops it.
#ifndef QUILLCORE_BENCH_REQUEST_SERVERS_H
#define QUILLCORE_BENCH_REQUEST_SERVERS_H

#include <string>

namespace bench {

struct Server {
  const char* who;
  int socket_type;                        // SOCK_SEQPACKET or SOCK_STREAM
  void (*start)(const std::string& path); // listens at `path` when it returns, or soon after
};

void start_bare_epoll(const std::string& path);
void start_ours(const std::string& path);
void start_libuv(const std::string& path);
void start_libevent(const std::string& path);

// A listening descriptor at `path`, non-blocking.
int listen_at(const std::string& path, int socket_type);

} // namespace bench

#endif // QUILLCORE_BENCH_REQUEST_SERVERS_H
