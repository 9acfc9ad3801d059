// hubd: a small daemon that keeps settings in a store and serves them on a local socket.
//
//   hubd --dir DIR [--store FILE] [--socket PATH] [--bus PATH]
//
// With --bus it joins the bus whose socket is there and listens to the mesh (bus_handlers.c).
// DIR exists; FILE is DIR/hubd.kvs and PATH is DIR/hubd.sock unless said otherwise. hubd stays in the
// foreground, prints a line on standard output when it serves, and ends on SIGTERM or SIGINT. Its log is
// in /tmp/quillnet/log/; what the library says before that is open goes to standard error.
//
// This file is about the order in which a process brings the library up and takes it down:
//
//   up     qn_init_dir, qn_cycle_new, qn_log_new_singleton_instance, qn_kvs_open, the handler table,
//          qn_service_start_with_thread, and the bus last
//   down   qn_service_stop_with_thread, qn_kvs_close, the end of the process
//
// What the requests do is in store_handlers.c, what they look like in hub_protocol.h.
#include <fcntl.h>
#include <pthread.h>
#include <quillcore/quillcore.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include "bus_handlers.h"
#include "hub_protocol.h"
#include "store_handlers.h"

#define PATH_SIZE 512
#define ROLE_HUBD 2  // names the log files and the keys of the permissions
#define LOG_CONFIG 0 // with files
#define LOG_APPEND 1 // a restart continues them

// What the service's thread uses. It is static, and the cycle is never freed, because that thread is
// detached: nothing tells when it has ended, and until then it may touch any of this.
static struct {
  qn_cycle_t* cycle;
  hub_store_t store;
  qn_service_conf_t conf;
  char store_path[PATH_SIZE];
  char socket_path[PATH_SIZE]; // `conf` borrows it
  const char* bus_path;        // null for none
} hub;

static int fail(const char* what) {
  fprintf(stderr, "hubd: %s\n", what);
  return -1;
}

// Writes `path` to `out`, or DIR/name if there is none.
static int choose_path(char* out, const char* path, const char* dir, const char* name) {
  const int len =
      path != NULL ? snprintf(out, PATH_SIZE, "%s", path) : snprintf(out, PATH_SIZE, "%s/%s", dir, name);
  return len >= 0 && len < PATH_SIZE ? 0 : fail("a path is too long");
}

static int read_arguments(int argc, char** argv) {
  const char* dir = NULL;
  const char* store = NULL;
  const char* socket = NULL;
  int unknown = argc % 2 == 0; // each option has a value
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--dir") == 0) {
      dir = argv[i + 1];
    } else if (strcmp(argv[i], "--store") == 0) {
      store = argv[i + 1];
    } else if (strcmp(argv[i], "--socket") == 0) {
      socket = argv[i + 1];
    } else if (strcmp(argv[i], "--bus") == 0) {
      hub.bus_path = argv[i + 1];
    } else {
      unknown = 1;
    }
  }
  if (unknown || dir == NULL)
    return fail("usage: hubd --dir DIR [--store FILE] [--socket PATH] [--bus PATH]");
  if (choose_path(hub.store_path, store, dir, "hubd.kvs") != 0) return -1;
  return choose_path(hub.socket_path, socket, dir, "hubd.sock");
}

// Makes sure that no other hubd works on the store: a store takes no lock on its file by itself. The
// descriptor stays open, and with it the lock, until the process ends, however it ends.
static int lock_store(void) {
  char path[PATH_SIZE + sizeof(".lock")];
  snprintf(path, sizeof(path), "%s.lock", hub.store_path);

  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return fail("cannot make the lock file beside the store");
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return 0;
  close(fd);
  return fail("the store is in use by another hubd");
}

// Waits at most five seconds until a client can connect. The start of a service only tells that its
// thread exists; whether the socket could be made is decided on that thread.
static int wait_until_served(void) {
  const struct timespec pause = {.tv_nsec = 10000000}; // 10 ms
  for (int tries = 0; tries < 500; tries++) {
    // The test comes first because a connect to a missing file waits a whole second.
    int32_t fd;
    if (qn_file_is_exist(hub.socket_path) &&
        qn_sock_connect_unix_socket_server(hub.socket_path, &fd) == 0) {
      close(fd);
      return 0;
    }
    nanosleep(&pause, NULL);
  }
  return fail("the socket could not be made");
}

static int bring_up(void) {
  qn_init_dir(); // does not tell whether it could; opening the log does
  if (lock_store() != 0) return -1;

  hub.cycle = qn_cycle_new();
  if (hub.cycle == NULL) return fail("no memory for the cycle");

  // From here on the gates apply and records go to the files.
  if (qn_log_new_singleton_instance(LOG_CONFIG, ROLE_HUBD, LOG_APPEND) != 0) {
    return fail("cannot open the log");
  }

  // The cycle's pool outlives the store, because it outlives everything.
  kvstore_t* store;
  if (qn_kvs_open(&store, hub.cycle->pool, hub.store_path) != 0) return fail("cannot open the store");
  hub_store_init(&hub.store, store);

  const qn_apis_t* apis = hub_store_apis(hub.cycle->pool, &hub.store);
  if (apis == NULL) return fail("no memory for the handler table");

  hub.conf = (qn_service_conf_t){
      .server_path = hub.socket_path, .backlog = 8, .max_msg_len = HUB_BODY_MAX, .slot = 0};
  if (qn_service_start_with_thread(hub.cycle, &hub.conf, apis, NULL) != 0) {
    return fail("cannot start the service");
  }
  if (hub.bus_path != NULL && hub_bus_start(hub.bus_path, &hub.store) != 0) {
    return fail("cannot start the bus client");
  }
  return wait_until_served();
}

static void shut_down(void) {
  // The service sleeps until something happens on its socket, so one connection lets it see the stop. It
  // may have missed it all the same, or be in the middle of a request: nothing below relies on its end.
  qn_service_stop_with_thread(hub.cycle);
  int32_t fd;
  if (qn_sock_connect_unix_socket_server(hub.socket_path, &fd) == 0) close(fd);

  hub_store_close(&hub.store); // waits for a handler that runs; later ones are refused
  unlink(hub.socket_path);     // the service leaves its socket file behind

  // No qn_log_free_singleton_instance() either: it wants that no other thread logs, and the service's
  // thread may. Nothing is lost by that, every record is on disk already.
  //
  // No qn_cycle_free(). The service's thread writes to its record in the cycle's pool as the last thing
  // it does, and there is no way to wait for that. The process's end takes both at once.
}

int main(int argc, char** argv) {
  if (read_arguments(argc, argv) != 0) return 2;

  // A client that hangs up before its answer is sent must not end the daemon.
  sigaction(SIGPIPE, &(struct sigaction){.sa_handler = SIG_IGN}, NULL);

  // Blocked before any thread exists, so that every thread inherits it and only sigwait() sees them.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, NULL);

  if (bring_up() != 0) return 1;
  printf("hubd: serving on %s\n", hub.socket_path);
  fflush(stdout);

  int number;
  while (sigwait(&ending, &number) != 0) continue;
  shut_down();
  printf("hubd: stopped by signal %d\n", number);
  return 0;
}
