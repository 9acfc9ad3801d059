// One program in plain C11, on the public headers alone, that runs on every target and prints the same
// lines on each: "ok FAMILY: WHAT", or "skip FAMILY: WHAT (why)" for what an emulator cannot do.
//
// The exit status is 0 when nothing failed, and what failed is said once more at the end; it is 77 where
// the kernel gives it no namespaces of its own, in which /tmp/quillnet and the network are private.
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <pthread.h>
#include <quillcore/quillcore.h>
#include <sched.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <linux/sockios.h> // behind the C library's headers

enum { kNoNamespace = 77 };
static const char kLog[] = "/tmp/quillnet/log/hubd_0.log.txt";
static const char kErrors[] = "/tmp/quillnet/log/hubd_error_0.log.txt";
static const char kStore[] = "/tmp/quillnet/abi.kvs";
static const char kFile[] = "/tmp/quillnet/abi.txt";
static const char kZeros[10000];

static const char* family = "";
static char failed[4096]; // what failed, a line each

static void check(int held, const char* what) {
  printf("%s %s: %s\n", held ? "ok" : "FAILED", family, what);
  const size_t used = strlen(failed);
  if (!held) snprintf(failed + used, sizeof(failed) - used, "  %s: %s\n", family, what);
}

static int write_text(const char* path, const char* text) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const ssize_t written = write(fd, text, strlen(text));
  close(fd);
  return written == (ssize_t)strlen(text);
}

static ssize_t read_bytes(const char* path, off_t offset, void* bytes, size_t size) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  const ssize_t got = pread(fd, bytes, size, offset);
  close(fd);
  return got;
}

static int file_holds(const char* path, const char* text) {
  static char content[65536];
  const ssize_t size = read_bytes(path, 0, content, sizeof(content) - 1);
  content[size > 0 ? size : 0] = '\0';
  return strstr(content, text) != NULL;
}

static int is_zero(const void* bytes, size_t size) { return memcmp(bytes, kZeros, size) == 0; }

static void test_memory(void) {
  family = "memory";
  char* block = memset(qn_alloc(300), 7, 300);
  block = qn_realloc(block, 600, 300);
  check(block[299] == 7 && is_zero(block + 300, 300), "a longer block keeps what it held, then zeros");
  qn_free(block);
  void* aligned = qn_memalign(64, 10);
  check((uintptr_t)aligned % 64 == 0 && is_zero(aligned, 10), "an aligned block lies where it should");
  qn_free(aligned);
  qn_pool_t* pool = qn_pool_create(4096);
  char *first = qn_palloc(pool, 3), *next = qn_palloc(pool, 4), *large = qn_pcalloc(pool, 10000);
  check((uintptr_t)first % 4 == 0 && next == first + 4, "small blocks of a pool follow each other");
  check(is_zero(large, 10000), "a large one is zero");
  check(qn_pfree(pool, large) == 0 && qn_pfree(pool, first) == -1, "and goes by itself");
  qn_pool_free(pool);
}

static void test_log(void) {
  family = "log";
  check(qn_init_dir() == 0 && qn_log_new_singleton_instance(0, QN_LOG_ROLE_HUBD, 0) == 0,
        "folders and an instance");
  QN_LOG_RECORD(QN_LOG_D, 7001, "abi", "write", "refused %d", 1);
  check(!file_holds(kLog, "refused"), "level D is refused by default");
  QN_LOG_RECORD(QN_LOG_I, 7002, "abi", "write", "%d %s %llu", -5, "text", 0x123456789abULL);
  check(file_holds(kLog, "[7002] [I] [abi] [write] -5 text 1250999896491\n"), "64-bit numbers");
  QN_LOG_RECORD(QN_LOG_E, 7003, "abi", "write", "bad");
  check(file_holds(kLog, "[7003] [E]") && file_holds(kErrors, "[7003] [E]"), "level E is in both files");
  qn_log_fault_adpater(7004, "overrun", "abi", 1, "write", "fault %s", "text");
  check(file_holds(kErrors, "[7004] [F] [abi] [write] [overrun] fault text"), "a fault's own bracket");
}

static int32_t echo(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  *rsp_body = qn_strdup((const char*)req->body, req->body_len);
  *rsp_len = req->body_len;
  return 0;
}

static int32_t refuse(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  qn_service_make_error_msg(0x01020304, rsp_body, rsp_len, "no %s for %u", (char*)req->ctx, req->msg_id);
  return -1;
}

static qn_apis_t* test_context(qn_cycle_t* cycle) {
  static char instance[] = "bread";
  static const qn_api_entry_t rows[] = {{0x0001, 1, echo, NULL}, {0x8000, 2, refuse, NULL}};
  family = "context";
  qn_cycle_set_worker_role(cycle, 77);
  check(cycle->worker_role == 77 && is_zero(cycle->process_area, sizeof(cycle->process_area)),
        "a cycle has a role and an area of zeros");
  qn_api_entry_t* own = qn_service_inject_instance(cycle->pool, rows, 2, instance);
  check(own[1].instance == instance && rows[1].instance == NULL, "rows are copied with an instance");
  qn_apis_t* apis = qn_apis_new(cycle->pool, 0x10002, own);
  check(apis->count == 2, "a count is cut to 16 bits");
  check(qn_apis_get_callback(apis, 0x8001, 2) == &own[1], "a row is found by source and type");
  return apis;
}

static void* stack_size(void* arg) {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return NULL;
  pthread_attr_getstacksize(&attributes, arg);
  pthread_attr_destroy(&attributes);
  return arg;
}

static int exit_status(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

static void* print_until_told(void* told) {
  while (!atomic_load((atomic_int*)told)) qn_log_println(QN_LOG_I, 7006, "abi", "print", "beside a fork");
  return NULL;
}

// A lock that the printing thread held at the moment of the fork would hold the child up for ever.
static int children_print(void) {
  atomic_int told = 0;
  pthread_t thread;
  int printed = qn_pthread_new(&thread, print_until_told, &told) == 0;
  for (int i = 0; i < 200 && printed; i++) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      qn_log_println(QN_LOG_I, 7007, "abi", "print", "in the child");
      _exit(0);
    }
    printed = exit_status(child) == 0;
  }
  atomic_store(&told, 1);
  return pthread_join(thread, NULL) == 0 && printed;
}

static void test_threads(void) {
  family = "thread";
  pthread_t thread;
  size_t size = 0;
  void* result = NULL;
  check(qn_pthread_new(&thread, stack_size, &size) == 0, "a thread starts");
  check(pthread_join(thread, &result) == 0 && result == &size, "and is joined");
  check(size >= QN_PTHREAD_STACK_SIZE && size < 16 * QN_PTHREAD_STACK_SIZE, "its stack's size");
  // Tens of thousands of lines, in which whatever else is printed would be lost.
  const int kept = dup(STDERR_FILENO), nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDERR_FILENO);
  const int printed = children_print();
  dup2(kept, STDERR_FILENO);
  close(nowhere);
  close(kept);
  check(printed, "children of forks print beside a thread that does");
}

static void test_containers(void) {
  family = "container";
  write_text(kFile, "first:1\n second = two words \nthird=");
  qn_map_t* map = qn_conf_load(kFile);
  check(map != NULL && strcmp(qn_map_get("third", map), "") == 0, "a configuration");
  qn_map_free(map);
  qn_table_t* table = _qn_table_new(0, NULL, NULL);
  check(_qn_table_put(table, "key", table, NULL) == NULL && qn_table_get(table, "key") == table,
        "a table");
  qn_table_free(&table);
}

static void test_store(qn_cycle_t* cycle) {
  static char name[] = "wan.mtu";
  const qn_str_t key = {sizeof(name) - 1, name};
  kvstore_t* store = NULL;
  void* value = NULL;
  uint16_t size = 0;
  family = "store";
  check(qn_kvs_open(&store, cycle->pool, kStore) == 0, "a new store");
  check(qn_kvs_get(store, &key, &value, &size) == -1, "an absent key");
  check(qn_kvs_put_fmt(store, &key, "%d", 1500) == 0, "a text is put");
  qn_kvs_close(store);
  check(qn_kvs_open(&store, cycle->pool, kStore) == 0, "it opens again");
  check(qn_kvs_get(store, &key, &value, &size) == 0 && size == 4 && memcmp(value, "1500", 4) == 0,
        "with what was put");
  qn_free(value);
  check(qn_kvs_put(store, &key, kZeros, QN_KVS_VALUE_MAX) == 0, "the longest value takes its place");
  check(qn_kvs_delete(store, &key) == 0 && qn_kvs_delete(store, &key) == -1, "a key is deleted once");
  qn_kvs_close(store);

  struct stat status;
  unsigned char bytes[36];
  check(stat(kStore, &status) == 0 && status.st_size == 131072, "the file has its size");
  check(read_bytes(kStore, 0, bytes, 25) == 25 && memcmp(bytes, "qnkv8deea96c7bc2b089429s\1", 25) == 0,
        "its magic");
  check(read_bytes(kStore, 10240 + 36 * 33, bytes, 36) == 36 && memcmp(bytes + 33, "\1\1", 3) == 0,
        "and entry 33 where it should be");
}

// Sends a request and waits for the answer; the number of bytes that came, -1 for none.
static ssize_t ask(int fd, uint16_t src, uint8_t type, const char* body, unsigned char* answer) {
  unsigned char message[64];
  const uint16_t length = (uint16_t)strlen(body);
  const qn_msg_hdr_t header = {type, QN_MSG_ACT_REQ, 0, src, length, 0xfedcba98};
  memcpy(message, &header, sizeof(header));
  memcpy(message + sizeof(header), body, length);
  if (send(fd, message, sizeof(header) + length, MSG_NOSIGNAL) < 0) return -1;
  return recv(fd, answer, 600, 0);
}

static void test_services(qn_cycle_t* cycle, const qn_apis_t* apis) {
  static const qn_service_conf_t conf = {"/tmp/quillnet/abi.sock", 4, 200, 9};
  int32_t fd = -1;
  unsigned char answer[600];
  qn_msg_hdr_t header;
  family = "service";
  check(qn_service_start_with_thread(cycle, &conf, apis, NULL) == 0, "a service starts");
  for (int tries = 0; tries < 500 && !qn_file_is_exist(conf.server_path); tries++) usleep(10000);
  check(qn_sock_connect_unix_socket_server(conf.server_path, &fd) == 0, "a client connects");
  check(qn_sock_set_fd_recv_timeout(fd, 10, 0) == 0, "with a limit to its wait");
  check(ask(fd, 1, 1, "quill", answer) == 16 && memcmp(answer + 11, "quill", 5) == 0, "and is answered");
  memcpy(&header, answer, sizeof(header));
  check(header.msg_act == QN_MSG_ACT_RSP && header.msg_id == 0xfedcba98, "under its own number");
  check(ask(fd, 0x8000, 2, "", answer) == 39 && answer[2] == QN_MSG_ERR_HANDLER_FAILED, "a refusal");
  check(memcmp(answer + 15, "no bread for 4275878552", 24) == 0, "has its text");
  check(ask(fd, 1, 9, "", answer) == 11 && answer[2] == QN_MSG_ERR_NO_HANDLER, "an unknown type");
  check(qn_service_stop_with_thread(cycle) == 0, "a service is asked to end");
  close(fd); // which wakes it
}

static void on_event(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                     struct blob_attr* msg) {
  (void)ctx, (void)ev, (void)type, (void)msg;
}

static void test_bus(void) {
  family = "bus";
  check(qn_ubus_init() == 0 && qn_ubus_add_event_handler("mesh.*", on_event) == 0, "a subscription");
  check(qn_ubus_start("/tmp/quillnet/no-bus.sock") == 0, "the client starts without a bus");
  int told = 0;
  for (int tries = 0; tries < 500 && !told; tries++) {
    usleep(10000);
    told = file_holds(kLog, "[0621] [E] [qn_ubus]");
  }
  check(told, "which the log tells");
}

static int32_t run_child(void* arg) {
  qn_child_proc_t* self = qn_proc_child_of_entry(arg);
  uint32_t word = 0;
  for (int i = 0; i < 100000; i++) qn_proc_child_send_heatbeat(self);
  return read(self->read_fd, &word, sizeof(word)) == 4 && word == QN_PROC_STOP_WORD ? 7 : 8;
}

static void test_processes(void) {
  family = "process";
  int32_t stored[2] = {0};
  check(qn_proc_check_or_create_pidfile("abi.pid") == 0, "a pid file");
  check(read_bytes("/tmp/quillnet/abi.pid", 0, stored, 8) == 4 && stored[0] == getpid(), "of four bytes");
  check(qn_proc_check_or_create_pidfile("abi.pid") == QN_PROC_ALIVE, "is held by the living");
  check(qn_proc_clean_pidfile("abi.pid") == 0, "and removed");

  qn_child_proc_t child = {.entry = run_child, .name = "abi child"};
  child.caller_words[8] = 0xabcdef01;
  uint32_t word = 0;
  check(qn_proc_child_start(&child) == 0, "a child starts");
  check(read(child.read_fd, &word, 4) == 4 && word == QN_PROC_HEARTBEAT_WORD, "its heart beats");
  // The unread beats are taken out, so that what ends the wait is the child's end.
  word = QN_PROC_STOP_WORD;
  const int sent = write(child.write_fd, &word, sizeof(word)) == 4;
  while (read(child.read_fd, &word, sizeof(word)) == 4) continue;
  check(sent && exit_status(child.pid) == 7, "it ends on the stop word, with its status");
  check(qn_proc_child_stop(&child) == 0 && child.caller_words[8] == 0xabcdef01, "a stop of one gone");
}

static int driver_can_be_asked(void) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct ifreq request = {.ifr_name = "lo"};
  const int known = ioctl(fd, SIOCETHTOOL, &request) == 0 || errno != ENOSYS;
  close(fd);
  return known;
}

static void test_interfaces(void) {
  family = "interface";
  check(QnIntfNameToIndex("lo") == 1 && QnIntfIsUp("lo") == 0, "lo is there, and down in a new network");
  check(QnIntfCreateVEthPair("abi0", "abi-interface-1") == 0, "a pair of interfaces");
  // The kernel brings the operational state up to date some time after a link went up.
  for (int tries = 0; tries < 2000 && QnIntfGetOperState("abi0") != QN_INTF_OPER_UP; tries++)
    usleep(10000);
  check(QnIntfGetPowerState("abi0") == QN_INTF_POWER_ON, "comes up");
  uint8_t mac[6] = {0};
  check(qn_utils_get_intf_mac_addr("abi-interface-1-cut", mac) == 0 && !is_zero(mac, 6),
        "and has an address");
  qn_intf_eth_metric_t metric = {.rx_errors = 9};
  QnIntfGetEthMetric("nowhere0", &metric);
  check(is_zero(&metric, sizeof(metric)), "one that is not there has counted nothing");
  check(qn_os_exec_cmd("ip link add abibr type bridge") == 0 && QnBridgeIsExist("abibr") == 1,
        "a bridge");
  if (driver_can_be_asked()) {
    check(QnIntfIsVEthDev("abi0") == 1 && QnIntfAddIfToBridge("abibr", "abi0") == 0, "and its port");
  } else {
    printf("skip %s: and its port (the emulator does not know the request)\n", family);
    qn_os_exec_cmd("ip link set abi0 master abibr");
  }
  char name[16] = "";
  check(QnIntfGetPortIndex("abi0") == 0 && QnIntfGetNameByPortNo("abibr", 1, name, 16) == 0, "by number");
  check(strcmp(name, "abi0") == 0, "and name");
}

static int64_t milliseconds(const struct timespec* time) {
  return (int64_t)time->tv_sec * 1000 + time->tv_nsec / 1000000;
}

static void test_utilities(void) {
  family = "utility";
  char output[32] = "";
  check(qn_str2num("99999999999", 10) == INT32_MAX, "numbers end at 32 bits");
  check(qn_os_exec_cmd("kill -9 $$") == -1, "a shell that is killed");
  check(qn_os_read_value_by_key_from_file(kFile, "^first", ":", output, 32) == 0 && output[0] == '1',
        "a value out of a file");
  check(qn_os_exec_vcmd("touch -d 2100-01-01T00:00:00Z %s", kFile) == 0, "a command with an argument");
  check(qn_file_get_last_mtime(kFile) == 4102444800, "a file of the year 2100");
  check(qn_file_is_exist(kFile) == 1 && qn_file_get_last_mtime("/nowhere") == 0, "is there");
  check(qn_file_is_modified(kFile, 4102444799) == 1, "and was changed");
  check(!qn_file_is_modified(kFile, 4102444800), "in no later second");
  struct timespec before, after;
  clock_gettime(CLOCK_MONOTONIC, &before);
  const int64_t now = qn_time_timestamp();
  clock_gettime(CLOCK_MONOTONIC, &after);
  check(milliseconds(&before) <= now && now <= milliseconds(&after),
        "milliseconds of the monotonic clock");
}

// /tmp/quillnet, the network and its view in /sys become the program's own. Without root it takes a user
// namespace, in which we are root.
static int enter_own_world(void) {
  const unsigned uid = geteuid(), gid = getegid();
  char users[64], groups[64];
  snprintf(users, sizeof(users), "0 %u 1", uid);
  snprintf(groups, sizeof(groups), "0 %u 1", gid);
  mkdir("/tmp/quillnet", 0777);
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | (uid != 0 ? CLONE_NEWUSER : 0)) != 0) return 0;
  if (uid != 0 && !(write_text("/proc/self/setgroups", "deny") &&
                    write_text("/proc/self/uid_map", users) && write_text("/proc/self/gid_map", groups)))
    return 0;
  return mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) == 0 &&
         mount("sysfs", "/sys", "sysfs", 0, NULL) == 0 &&
         mount("tmpfs", "/tmp/quillnet", "tmpfs", 0, NULL) == 0;
}

int main(void) {
  static qn_cycle_t* cycle; // never freed: no call tells when the thread of a stopped service has ended
  setvbuf(stdout, NULL, _IOLBF, 0);
  signal(SIGPIPE, SIG_IGN);
  if (!enter_own_world()) {
    printf("skipped: no namespaces of its own: %s\n", strerror(errno));
    return kNoNamespace;
  }
  test_memory();
  test_log();
  cycle = qn_cycle_new();
  const qn_apis_t* apis = test_context(cycle);
  test_threads();
  test_containers();
  test_store(cycle);
  test_processes(); // before there are threads that never end
  test_services(cycle, apis);
  test_bus();
  test_interfaces();
  test_utilities();
  fflush(stderr); // the library's records end before the reason for a failure
  if (failed[0] != '\0') printf("failed:\n%s", failed);
  return failed[0] != '\0';
}
