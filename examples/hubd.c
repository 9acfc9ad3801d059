// hubd: a small daemon that keeps settings in a store, looks after the interfaces of the machine, and
// serves both on a local socket.
//
//   hubd --dir DIR [--store FILE] [--socket PATH] [--bus PATH] [--pid-file NAME] [--daemon]
//
// DIR exists; FILE is DIR/hubd.kvs and PATH is DIR/hubd.sock unless said otherwise. With --bus hubd joins
// the bus whose socket is there and listens to the mesh (bus_handlers.c). With --daemon it goes to the
// background; without, it stays in the foreground, as a supervisor wants it. It prints a line on standard
// output when it serves, and ends on SIGTERM or SIGINT. There is one hubd with a NAME, which is hubd.pid
// unless said otherwise and lies in /tmp/quillnet/. Its log is in /tmp/quillnet/log/; what the library
// says before that is open goes to standard error.
//
// This file is about the order in which a process brings the library up and takes it down:
//
//   up     qn_init_dir, qn_daemon, qn_proc_check_or_create_pidfile, qn_cycle_new,
//          qn_log_new_singleton_instance, qn_kvs_open, the handler table, qn_service_start_with_thread,
//          and the bus last. The supervised child starts before the first thread does.
//   down   qn_service_stop_with_thread, qn_kvs_close, qn_proc_clean_pidfile,
//          qn_log_free_singleton_instance, qn_cycle_free
//
// What the requests do is in store_handlers.c, interfaces.c, sampler.c and log_handler.c; what they look
// like is in hub_protocol.h.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <quillcore/quillcore.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "bus_handlers.h"
#include "hub_protocol.h"
#include "interfaces.h"
#include "sampler.h"
#include "store_handlers.h"

#define ROLE_HUBD 2  // names the log files and the keys of the permissions
#define LOG_CONFIG 0 // with files
#define LOG_APPEND 1 // a restart continues them

// What the service's thread uses. It is static because that thread is detached.
static struct {
  qn_cycle_t* cycle;
  hub_store_t store;
  qn_service_conf_t conf;
  char store_path[PATH_MAX];
  char socket_path[PATH_MAX]; // `conf` borrows it
  char bus_path[PATH_MAX];    // empty for none
  // How far it has come up.
  const char* pid_file; // null until it is ours
  int logs;
  int keeps;  // the store is open
  int serves; // a thread of the service may be there
} hub;

typedef struct arguments {
  const char* dir;
  const char* store;
  const char* socket;
  const char* bus;
  const char* pid_file;
  int daemon;
} arguments_t;

static int fail(const char* what) {
  fprintf(stderr, "hubd: %s\n", what);
  return -1;
}

static int read_arguments(int argc, char** argv, arguments_t* out) {
  const struct {
    const char* name;
    const char** value;
  } options[] = {{"--dir", &out->dir},
                 {"--store", &out->store},
                 {"--socket", &out->socket},
                 {"--bus", &out->bus},
                 {"--pid-file", &out->pid_file}};
  const size_t count = sizeof(options) / sizeof(options[0]);

  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--daemon") == 0) {
      out->daemon = 1;
      continue;
    }
    size_t row = 0;
    while (row < count && strcmp(argv[i], options[row].name) != 0) row++;
    if (row == count || ++i == argc) return -1;
    *options[row].value = argv[i];
  }
  return out->dir != NULL ? 0 : -1;
}

// Writes `path`, or DIR/name if there is none, to `out`. A daemon works in "/", so a path that begins
// elsewhere is made absolute while the folder it is meant from is still the current one.
static int choose_path(char* out, const char* path, const char* dir, const char* name) {
  char here[PATH_MAX] = "";
  const char* first = path != NULL ? path : dir;
  if (first[0] != '/' && getcwd(here, sizeof(here)) == NULL) return fail("no current folder");
  const int len = path != NULL
                      ? snprintf(out, PATH_MAX, "%s%s%s", here, here[0] ? "/" : "", path)
                      : snprintf(out, PATH_MAX, "%s%s%s/%s", here, here[0] ? "/" : "", dir, name);
  return len >= 0 && len < PATH_MAX ? 0 : fail("a path is too long");
}

static int choose_paths(const arguments_t* arguments) {
  if (choose_path(hub.store_path, arguments->store, arguments->dir, "hubd.kvs") != 0) return -1;
  if (choose_path(hub.socket_path, arguments->socket, arguments->dir, "hubd.sock") != 0) return -1;
  if (strlen(hub.socket_path) > QN_SOCK_PATH_MAX) return fail("the socket's path is too long");
  if (arguments->bus == NULL) return 0;
  return choose_path(hub.bus_path, arguments->bus, "", "");
}

static int take_pid_file(const char* name) {
  const int32_t result = qn_proc_check_or_create_pidfile(name);
  if (result == QN_PROC_ALIVE) return fail("another hubd runs");
  if (result != 0) return fail("cannot make the pid file");
  hub.pid_file = name;
  return 0;
}

// Makes sure that no other hubd works on a file, whatever its pid file is called: a store takes no lock
// on its file by itself, a service takes over a socket that is there, and a pid file does not hold
// against a second hubd of the same moment. The descriptor stays open, and with it the lock, until the
// process ends, however it ends. It is a lock of the process, which its children do not inherit.
static int lock_beside(const char* file, const char* if_taken) {
  char path[PATH_MAX + sizeof(".lock")];
  snprintf(path, sizeof(path), "%s.lock", file);

  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return fail("cannot make a lock file beside the store or the socket");
  struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
  if (fcntl(fd, F_SETLK, &whole) == 0) return 0;
  const int taken = errno == EACCES || errno == EAGAIN;
  close(fd);
  return fail(taken ? if_taken : "cannot lock the file beside the store or the socket");
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

static int open_store(void) {
  // The cycle's pool outlives the store, because it outlives everything.
  kvstore_t* store;
  if (qn_kvs_open(&store, hub.cycle->pool, hub.store_path) != 0) return fail("cannot open the store");
  hub_store_init(&hub.store, store);
  hub.keeps = 1;
  return 0;
}

static int start_service(void) {
  const qn_apis_t* apis = hub_store_apis(hub.cycle->pool, &hub.store);
  if (apis == NULL) return fail("no memory for the handler table");

  hub.conf = (qn_service_conf_t){
      .server_path = hub.socket_path, .backlog = 8, .max_msg_len = HUB_BODY_MAX, .slot = 0};
  if (qn_service_start_with_thread(hub.cycle, &hub.conf, apis, NULL) != 0) {
    return fail("cannot start the service");
  }
  hub.serves = 1;
  return 0;
}

// The locks come before the pid file: who has them is the one that may take that over and remove it.
static int take_what_is_ours(const char* pid_file) {
  if (lock_beside(hub.store_path, "the store is in use by another hubd") != 0) return -1;
  if (lock_beside(hub.socket_path, "the socket is in use by another hubd") != 0) return -1;
  return take_pid_file(pid_file);
}

static int bring_up(const arguments_t* arguments) {
  qn_init_dir(); // does not tell whether it could; the pid file does
  if (arguments->daemon) qn_daemon();
  // A supervisor starts hubd with any umask, and qn_daemon() leaves 0: the store is for nobody else.
  umask(077);
  if (take_what_is_ours(arguments->pid_file) != 0) return -1;

  hub.cycle = qn_cycle_new();
  if (hub.cycle == NULL) return fail("no memory for the cycle");

  // From here on the gates apply and records go to the files.
  if (qn_log_new_singleton_instance(LOG_CONFIG, ROLE_HUBD, LOG_APPEND) != 0) {
    return fail("cannot open the log");
  }
  hub.logs = 1;
  if (open_store() != 0) return -1;
  if (hub_interfaces_init() != 0) return fail("no memory for the interfaces");
  // Forked while there is one thread only.
  if (hub_sampler_start() != 0) return fail("cannot start the child that samples the counters");
  if (start_service() != 0 || wait_until_served() != 0) return -1;
  if (hub.bus_path[0] != '\0' && hub_bus_start(hub.bus_path, &hub.store) != 0) {
    return fail("cannot start the bus client");
  }
  return 0;
}

// Whether this thread is the only one of the process.
static int is_alone(void) {
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == NULL) return 0;
  int count = 0;
  const struct dirent* entry;
  while ((entry = readdir(tasks)) != NULL) count += entry->d_name[0] != '.';
  closedir(tasks);
  return count == 1;
}

// The service's thread is detached, and sleeps until something happens on its socket: a connection lets
// it see the stop. Returns 1 when it is gone, and no other thread is there, within two seconds.
static int wait_until_alone(void) {
  const struct timespec pause = {.tv_nsec = 10000000}; // 10 ms
  for (int tries = 0; tries < 200; tries++) {
    if (is_alone()) return 1;
    int32_t fd;
    if (qn_file_is_exist(hub.socket_path) &&
        qn_sock_connect_unix_socket_server(hub.socket_path, &fd) == 0) {
      close(fd);
    }
    if (hub.bus_path[0] != '\0') return 0; // the bus thread stays as long as the process
    nanosleep(&pause, NULL);
  }
  return 0;
}

// Undoes what has been reached, also when bringing up has failed half-way.
static void shut_down(void) {
  if (hub.serves) qn_service_stop_with_thread(hub.cycle);
  const int alone = !hub.serves || wait_until_alone();
  if (hub.keeps) hub_store_close(&hub.store); // waits for a handler that runs; later ones are refused
  hub_sampler_stop();
  if (hub.serves) unlink(hub.socket_path); // the service leaves its socket file behind
  if (hub.pid_file != NULL) qn_proc_clean_pidfile(hub.pid_file);

  // A thread that is still there may log, and the service's writes to its record in the cycle's pool as
  // the last thing it does. Then the process's end takes both; every record is on disk already.
  if (!alone) return;
  if (hub.logs) qn_log_free_singleton_instance();
  qn_cycle_free(hub.cycle);
}

// Waits for one of the signals, looking after the child meanwhile. Returns its number.
static int wait_for_the_end(const sigset_t* ending) {
  const struct timespec second = {.tv_sec = 1};
  for (;;) {
    const int number = sigtimedwait(ending, NULL, &second);
    if (number > 0) return number;
    hub_sampler_watch();
  }
}

int main(int argc, char** argv) {
  arguments_t arguments = {.pid_file = "hubd.pid"};
  if (read_arguments(argc, argv, &arguments) != 0) {
    fail(
        "usage: hubd --dir DIR [--store FILE] [--socket PATH] [--bus PATH] [--pid-file NAME] [--daemon]");
    return 2;
  }
  if (choose_paths(&arguments) != 0) return 2;

  // A client that hangs up before its answer is sent must not end the daemon.
  sigaction(SIGPIPE, &(struct sigaction){.sa_handler = SIG_IGN}, NULL);

  // Blocked before any thread exists, so that every thread inherits it and only sigtimedwait() sees them.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, NULL);

  if (bring_up(&arguments) != 0) {
    shut_down();
    return 1;
  }
  printf("hubd: serving on %s\n", hub.socket_path);
  fflush(stdout);

  const int number = wait_for_the_end(&ending);
  shut_down();
  printf("hubd: stopped by signal %d\n", number);
  return 0;
}
