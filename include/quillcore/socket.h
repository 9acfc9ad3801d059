// Sockets: AF_UNIX sockets of type SOCK_SEQPACKET, for services and their clients. One write() is one
// message.
//
// Threads: the functions share nothing and may run on any thread.
#ifndef QUILLCORE_SOCKET_H
#define QUILLCORE_SOCKET_H

#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_SOCK_PATH_MAX 106 // bytes of a server path, without the terminator

// Reads until `buf` is full or nothing more comes: end of stream, EAGAIN, a time-out or any error. All
// queued messages go into `buf` back to back; one that does not fit the rest of it is cut. A blocking
// descriptor waits for more until `len` bytes are there, the peer closes or its time-out ends.
// Returns 0 and the number of bytes in `*bytes_read` when at least one byte was read; else -1, and
// `*bytes_read` stays as it was.
QN_API int32_t qn_sock_safe_read(int32_t fd, void* buf, uint32_t len, uint32_t* bytes_read);

// Adds O_NONBLOCK to the descriptor's flags. Returns 0; -1 when fcntl() fails (logged, 534 or 535).
QN_API int32_t qn_sock_set_nonblock(int32_t fd);

// Makes a listening socket at `server_path`, in place of a socket file left there. The descriptor is
// blocking, close-on-exec and the caller's. The socket file stays when the descriptor is closed.
// Returns 0; -1 when a system call fails (logged, 540 to 542) or the path is empty or longer than
// QN_SOCK_PATH_MAX (logged, 541; nothing is unlinked); -2 for a null argument (logged, 537 or 538).
QN_API int32_t qn_sock_create_unix_socket_server(const char* server_path, int32_t backlog,
                                                 int32_t* sock_fd);

// Connects to the server at `server_path`. If no socket file is there yet, it waits one second, signals
// or not, and tries once more. The descriptor is blocking, close-on-exec and the caller's.
//
// The second is for a missing file only. A file that nobody listens at fails at once: one that a server
// left behind that has died, and for a moment that of a server which has bound and does not listen yet. A
// client that starts beside its server therefore tries until a deadline of its own, as service.h shows.
// Nobody is at an empty path (549).
// Returns 0; -1 when a system call fails (logged, 548 or 549, with the errno of the first attempt) or
// the path is longer than QN_SOCK_PATH_MAX; -2 for a null argument (logged, 546 or 547).
QN_API int32_t qn_sock_connect_unix_socket_server(const char* server_path, int32_t* sock_fd);

// Bounds each blocking write (SO_SNDTIMEO) or read (SO_RCVTIMEO) of the descriptor; 0 and 0 mean no
// bound. Returns 0; -1 when setsockopt() fails (logged, 551 or 552).
QN_API int32_t qn_sock_set_fd_send_timeout(int32_t fd, uint32_t seconds, uint32_t microseconds);
QN_API int32_t qn_sock_set_fd_recv_timeout(int32_t fd, uint32_t seconds, uint32_t microseconds);

QN_END_DECLS

#endif // QUILLCORE_SOCKET_H
