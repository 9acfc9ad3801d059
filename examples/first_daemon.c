// A first daemon: it keeps one text in a store and serves it on a local socket.
//
//   cc -o first_daemon first_daemon.c $(pkg-config --cflags --libs quillcore)
//   ./first_daemon &                                serves, until SIGTERM
//   ./first_daemon set hello && ./first_daemon get  asks, as any other program can
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <quillcore/quillcore.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#define SOCKET_PATH "/tmp/quillnet/first.sock"
#define STORE_PATH "/tmp/quillnet/first.kvs" // to outlive a restart of the router it belongs on the flash
#define PID_FILE "first.pid"                 // in /tmp/quillnet/
#define ROLE QN_LOG_ROLE_LEAFD               // logs to /tmp/quillnet/log/leafd_0.log.txt

enum { ANYONE = 1, GET = 1, SET = 2 }; // msg_src, who asks, as bits; msg_type, what for
static const qn_str_t key = {4, "text"};
static kvstore_t* store;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; // held by a handler while it uses the store

static int fail(const char* what) {
  fprintf(stderr, "first_daemon: %s\n", what);
  return 1;
}

// Handlers run on the service's thread. What they leave in `*body` is sent to the client and released.
static int32_t refuse(void** body, uint32_t* len, const char* why) {
  qn_service_make_error_msg(1, body, len, "%s", why); // if that fails, too, no text goes with the refusal
  return -1;
}

static int32_t handle_get(const qn_msg_req_t* req, void** body, uint32_t* len) {
  uint16_t value_len = 0;
  if (req->body_len != 0) return refuse(body, len, "get takes no text");
  pthread_mutex_lock(&lock);
  const int32_t result = qn_kvs_get(store, &key, body, &value_len);
  pthread_mutex_unlock(&lock);
  *len = value_len;
  return result == 0 ? 0 : refuse(body, len, "no text has been set");
}

static int32_t handle_set(const qn_msg_req_t* req, void** body, uint32_t* len) {
  pthread_mutex_lock(&lock);
  const int32_t result = qn_kvs_put(store, &key, req->body, (uint16_t)req->body_len);
  const int reason = errno; // 0 when it is on disk: a text that only memory has is no success here
  pthread_mutex_unlock(&lock);
  if (result != 0 || reason != 0) return refuse(body, len, result != 0 ? "no room" : strerror(reason));
  QN_LOG_RECORD(QN_LOG_I, 9101, "first", "set", "a text of %u bytes.", req->body_len);
  return 0;
}

static qn_api_entry_t rows[] = {{ANYONE, GET, handle_get, NULL}, {ANYONE, SET, handle_set, NULL}};
static const qn_service_conf_t conf = {SOCKET_PATH, 8, QN_KVS_VALUE_MAX, 0}; // backlog, body, slot

static int bring_up(qn_cycle_t* cycle) {
  if (cycle == NULL || qn_log_new_singleton_instance(0, ROLE, 1) != 0) return fail("no log");
  if (qn_kvs_open(&store, cycle->pool, STORE_PATH) != 0) return fail("no store");
  const qn_apis_t* api = qn_apis_new(cycle->pool, 2, rows);
  if (api == NULL || qn_service_start_with_thread(cycle, &conf, api, NULL) != 0) return fail("no thread");
  int32_t fd; // whether that thread could make the socket is told by a connect
  for (int tries = 0; qn_sock_connect_unix_socket_server(SOCKET_PATH, &fd) != 0; usleep(10000)) {
    if (++tries == 20) return fail("no socket");
  }
  return close(fd);
}

static int serve(void) {
  int fd, number; // a standard stream that came closed is filled, or what is opened later becomes one
  while ((fd = open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO) continue;
  if (fd < 0 || close(fd) != 0) return fail("no /dev/null");
  sigset_t ending; // blocked before there is a second thread, so that only sigwait() sees them
  if (sigemptyset(&ending) != 0 || sigaddset(&ending, SIGTERM) != 0 || sigaddset(&ending, SIGINT) != 0 ||
      pthread_sigmask(SIG_BLOCK, &ending, NULL) != 0 || signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
    return fail("no signals");
  }
  umask(077); // socket, store, log and pid file are for our user only
  if (qn_init_dir() != 0 || qn_proc_check_or_create_pidfile(PID_FILE) != 0) return fail("no pid file");
  unlink(SOCKET_PATH); // of one that was killed

  qn_cycle_t* cycle = qn_cycle_new(); // its pool holds what lives as long as the process
  const int result = bring_up(cycle) != 0 || sigwait(&ending, &number) != 0;
  qn_service_stop_with_thread(cycle);
  pthread_mutex_lock(&lock); // for good: log and cycle stay, too, since a handler may wait here
  qn_kvs_close(store);
  unlink(SOCKET_PATH);
  qn_proc_clean_pidfile(PID_FILE);
  return result;
}

static int ask(uint8_t type, const char* text) {
  const size_t len = strlen(text), head = sizeof(qn_msg_hdr_t);
  if (len > QN_KVS_VALUE_MAX) return fail("text too long");
  struct {
    qn_msg_hdr_t header; // packed: the body is right behind it
    char body[QN_KVS_VALUE_MAX];
  } message = {{type, QN_MSG_ACT_REQ, QN_MSG_ERR_OK, ANYONE, (uint16_t)len, 1}, ""};
  memcpy(message.body, text, len);
  int32_t fd;
  if (qn_sock_connect_unix_socket_server(SOCKET_PATH, &fd) != 0) return fail("nobody serves");
  const int bounded = qn_sock_set_fd_recv_timeout(fd, 5, 0) == 0; // a wrong request gets no answer
  const int sent = bounded && send(fd, &message, head + len, MSG_NOSIGNAL) > 0;
  const ssize_t got = sent ? recv(fd, &message, sizeof(message), 0) : -1;
  if (close(fd) != 0 || got < (ssize_t)head) return fail("no answer");
  const int refused = message.header.msg_err != QN_MSG_ERR_OK;
  const size_t skip = head + (refused ? sizeof(uint32_t) : 0); // the code in front of a reason
  if ((size_t)got > skip) printf("%.*s\n", (int)((size_t)got - skip), (const char*)&message + skip);
  return refused || fflush(stdout) != 0;
}

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "get") == 0) return ask(GET, "");
  if (argc == 3 && strcmp(argv[1], "set") == 0) return ask(SET, argv[2]);
  return argc == 1 ? serve() : fail("takes nothing, get, or set TEXT");
}
