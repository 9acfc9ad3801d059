// hubd: a small daemon that keeps settings in a store, looks after the interfaces of the machine, and
// serves both on a local socket.
//
//   hubd --dir DIR [--socket PATH] [--bus PATH] [--daemon]
//
// DIR exists and holds the store; the socket is DIR/hubd.sock unless said otherwise. With --bus hubd
// joins the bus whose socket is there and listens to the mesh. With --daemon it goes to the background;
// without, it stays in the foreground, as a supervisor wants it. It prints a line on standard output when
// it serves, and ends on SIGTERM or SIGINT. Its pid file and its log are in /tmp/quillnet/; what the
// library says before the log is open goes to standard error.
//
// This file is about the order in which a process brings the library up and takes it down; what the
// requests do is in the other files, what they look like is in hub_protocol.h.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "hubd.h"
#include "log_switches.h"

#define PID_FILE "hubd.pid"
#define LOG_CONFIG 0 // with files
#define LOG_APPEND 1 // a restart continues them

// It lives as long as the process, and so as the service's thread, which is detached.
static struct {
  const char *dir, *socket, *bus; // arguments; null for none
  int daemon;
  char store_path[PATH_MAX];
  char socket_path[QN_SOCK_PATH_MAX + 1];
  qn_cycle_t* cycle;
  hub_store_t store;
  // How far it has come up.
  int is_the_one; // the pid file is ours
  int logs;
  int serves; // a thread of the service may be there
} hub = {.store = {.lock = PTHREAD_MUTEX_INITIALIZER}};

static int fail(const char* what) {
  fprintf(stderr, "hubd: %s\n", what);
  return -1;
}

static int read_arguments(int argc, char** argv) {
  const struct {
    const char* name;
    const char** value;
  } options[] = {{"--dir", &hub.dir}, {"--socket", &hub.socket}, {"--bus", &hub.bus}};
  const size_t count = sizeof(options) / sizeof(options[0]);

  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--daemon") == 0) {
      hub.daemon = 1;
      continue;
    }
    size_t row = 0;
    while (row < count && strcmp(argv[i], options[row].name) != 0) row++;
    if (row == count || ++i == argc) return -1;
    *options[row].value = argv[i];
  }
  return hub.dir != NULL ? 0 : -1;
}

// A daemon works in "/", so each path is a whole one.
static int choose_paths(void) {
  char dir[PATH_MAX];
  if (realpath(hub.dir, dir) == NULL) return fail("--dir is not there");
  if ((hub.socket != NULL && hub.socket[0] != '/') || (hub.bus != NULL && hub.bus[0] != '/')) {
    return fail("--socket and --bus take a path that begins with /");
  }
  const size_t store_size = sizeof(hub.store_path), socket_size = sizeof(hub.socket_path);
  const int store_len = snprintf(hub.store_path, store_size, "%s/hubd.kvs", dir);
  const int socket_len = hub.socket != NULL ? snprintf(hub.socket_path, socket_size, "%s", hub.socket)
                                            : snprintf(hub.socket_path, socket_size, "%s/hubd.sock", dir);
  const int fit = store_len < (int)store_size && socket_len < (int)socket_size;
  return fit ? 0 : fail("the path is too long");
}

// A standard stream that came closed is filled: what is opened later must not become one, since records
// and other people's output go there.
static int fill_standard_streams(void) {
  int fd;
  while ((fd = open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO) continue;
  if (fd < 0) return fail("cannot open /dev/null");
  close(fd);
  return 0;
}

// Makes sure that no other hubd works on the store, which takes no lock on its file by itself; a pid file
// does not hold against a second hubd of the same moment. The descriptor stays open, and with it the
// lock, until the process ends, however it ends. It is a lock of the process, which its children do not
// inherit.
static int lock_store(void) {
  char path[PATH_MAX + sizeof(".lock")];
  snprintf(path, sizeof(path), "%s.lock", hub.store_path);
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return fail("cannot make a lock file beside the store");
  struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
  if (fcntl(fd, F_SETLK, &whole) == 0) return 0;
  const int taken = errno == EACCES || errno == EAGAIN;
  close(fd);
  return fail(taken ? "the store is in use by another hubd" : "cannot lock the file beside the store");
}

// Whether the pid file names this process. Where pids begin anew, as in a container, one that was left
// behind often does.
static int names_ourselves(void) {
  const int fd = open("/tmp/quillnet/" PID_FILE, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return 0;
  int32_t pid = 0;
  const ssize_t got = read(fd, &pid, sizeof(pid));
  close(fd);
  return got == (ssize_t)sizeof(pid) && pid == getpid();
}

static int take_pid_file(void) {
  if (names_ourselves()) qn_proc_clean_pidfile(PID_FILE);
  const int32_t result = qn_proc_check_or_create_pidfile(PID_FILE);
  hub.is_the_one = result == 0;
  if (result == QN_PROC_ALIVE) return fail("another hubd runs");
  return result == 0 ? 0 : fail("cannot make the pid file");
}

static int start_service(void) {
  // Constant: the same rows could serve a second store. The copy that is made of them carries this one.
  static const qn_api_entry_t rows[] = {
      {HUB_SRC_CONFIG, HUB_MSG_PUT, handle_put, NULL},
      {HUB_SRC_CONFIG | HUB_SRC_MONITOR, HUB_MSG_GET, handle_get, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_DELETE, handle_delete, NULL},
      {HUB_SRC_CONFIG | HUB_SRC_MONITOR, HUB_MSG_INTERFACES, handle_interfaces, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_PAIR, handle_pair, NULL},
      {HUB_SRC_CONFIG, HUB_MSG_CHILD, handle_child, NULL},
      LOG_SWITCHES_ROW(HUB_SRC_CONFIG),
  };
  static const qn_service_conf_t conf = {
      .server_path = hub.socket_path, .backlog = 8, .max_msg_len = HUB_BODY_MAX, .slot = 0};
  const uint32_t count = sizeof(rows) / sizeof(rows[0]);
  qn_pool_t* pool = hub.cycle->pool;
  const qn_apis_t* apis =
      qn_apis_new(pool, count, qn_service_inject_instance(pool, rows, count, &hub.store));
  hub.serves = apis != NULL && qn_service_start_with_thread(hub.cycle, &conf, apis, NULL) == 0;
  return hub.serves ? 0 : fail("cannot start the service");
}

// Whether a client can connect. The test comes first because a connect to a missing file waits a whole
// second.
static int can_connect(void) {
  int32_t fd;
  if (!qn_file_is_exist(hub.socket_path)) return 0;
  if (qn_sock_connect_unix_socket_server(hub.socket_path, &fd) != 0) return 0;
  close(fd);
  return 1;
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

// Asks every 10 ms for five seconds. Returns the last answer.
static int wait_until(int (*is_so)(void)) {
  const struct timespec pause = {.tv_nsec = 10000000};
  for (int tries = 0; tries < 500; tries++) {
    if (is_so()) return 1;
    nanosleep(&pause, NULL);
  }
  return 0;
}

static int bring_up(void) {
  qn_init_dir(); // does not tell whether it could; the pid file does
  if (hub.daemon) qn_daemon();
  // A supervisor starts hubd with any umask, and qn_daemon() leaves 0: store and socket are for hubd's
  // own user, and so what can be asked of it is.
  umask(077);
  // The lock comes first: who has it may take over a pid file that was left behind.
  if (lock_store() != 0 || take_pid_file() != 0) return -1;

  hub.cycle = qn_cycle_new();
  if (hub.cycle == NULL) return fail("no memory for the cycle");
  // From here on the gates apply and records go to the files.
  hub.logs = qn_log_new_singleton_instance(LOG_CONFIG, QN_LOG_ROLE_HUBD, LOG_APPEND) == 0;
  if (!hub.logs) return fail("cannot open the log");
  // The cycle's pool outlives the store, because it outlives everything.
  const int32_t opened = qn_kvs_open(&hub.store.store, hub.cycle->pool, hub.store_path);
  if (opened != 0) return fail("cannot open the store");
  // Forked while there is one thread only.
  if (hub_child(HUB_CHILD_START) != 0) return fail("cannot start the child");
  // The start only tells that a thread exists; whether the socket could be made is decided there.
  if (start_service() != 0) return -1;
  if (!wait_until(can_connect)) return fail("the socket could not be made");
  if (hub.bus == NULL) return 0;
  return hub_bus_start(hub.bus, &hub.store) == 0 ? 0 : fail("cannot start the bus client");
}

// Undoes what has been reached, also when bringing up has failed half-way.
static void shut_down(void) {
  if (hub.serves) qn_service_stop_with_thread(hub.cycle);
  if (hub.serves) can_connect(); // wakes it; more of these would fill a queue that nobody empties
  // The bus thread stays as long as the process.
  const int alone = hub.bus != NULL ? is_alone() : wait_until(is_alone);
  hub_store_close(&hub.store); // waits for a handler that runs; later ones are refused
  hub_child(HUB_CHILD_STOP);
  if (hub.serves) unlink(hub.socket_path); // the service leaves its socket file behind
  if (hub.is_the_one) qn_proc_clean_pidfile(PID_FILE);

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
    hub_child(HUB_CHILD_WATCH);
  }
}

int main(int argc, char** argv) {
  if (fill_standard_streams() != 0) return 1;
  if (argc == 2 && strcmp(argv[1], "--version") == 0) return puts("hubd " QN_VERSION) < 0;
  if (read_arguments(argc, argv) != 0) {
    fail("usage: hubd --dir DIR [--socket PATH] [--bus PATH] [--daemon]");
    return 2;
  }
  if (choose_paths() != 0) return 2;

  // A client that hangs up before its answer is sent must not end the daemon.
  sigaction(SIGPIPE, &(struct sigaction){.sa_handler = SIG_IGN}, NULL);

  // Blocked before any thread exists, so that every thread inherits it and only sigtimedwait() sees them.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, NULL);

  if (bring_up() != 0) {
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
