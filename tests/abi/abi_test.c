// One program in plain C11, on the public headers alone, that runs on every target and prints the same
// lines on each: "ok FAMILY: WHAT", or "skip FAMILY: WHAT (why)" for what an emulator cannot do.
//
// The exit status is 0 when nothing failed. /tmp/quillnet and the network are its own.
#include <errno.h>
#include <inttypes.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <quillcore/quillcore.h>
#include <sched.h>
#include <signal.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/sockios.h> // behind the C library's headers

#define KIB 1024

static const char* family = "";
static int failures;
static char folder[] = "/tmp/quillnet/abi-XXXXXX";

static void check(int held, const char* what) {
  printf("%s %s: %s\n", held ? "ok" : "FAILED", family, what);
  failures += !held;
}

static void skip(const char* what, const char* why) { printf("skip %s: %s (%s)\n", family, what, why); }

// A path in the program's own folder; the text is good until the next call but three.
static const char* in_folder(const char* name) {
  static char texts[4][128];
  static unsigned next;
  char* text = texts[next++ % 4];
  snprintf(text, sizeof(texts[0]), "%s/%s", folder, name);
  return text;
}

static int write_text(const char* path, const char* text) {
  FILE* file = fopen(path, "we");
  if (file == NULL) return -1;
  const int bad = fputs(text, file) < 0;
  return fclose(file) != 0 || bad ? -1 : 0;
}

static int file_holds(const char* path, const char* text) {
  static char content[64 * KIB];
  FILE* file = fopen(path, "re");
  if (file == NULL) return 0;
  const size_t size = fread(content, 1, sizeof(content) - 1, file);
  fclose(file);
  content[size] = '\0';
  return strstr(content, text) != NULL;
}

static int is_zero(const void* bytes, size_t size) {
  const unsigned char* at = bytes;
  for (size_t i = 0; i < size; i++) {
    if (at[i] != 0) return 0;
  }
  return 1;
}

// --- memory

static void test_memory(void) {
  family = "memory";
  char* block = qn_alloc(300);
  check(block != NULL && is_zero(block, 300), "a new block is zero");
  memset(block, 7, 300);
  block = qn_realloc(block, 600, 300);
  check(block != NULL && block[299] == 7 && is_zero(block + 300, 300),
        "a longer block keeps what it held");
  check(qn_realloc(block, 0, 600) == NULL, "a block of no size is no block");
  check(qn_alloc(0) == NULL, "nor is one of qn_alloc");
  void* aligned = qn_memalign(64, 10);
  check(aligned != NULL && (uintptr_t)aligned % 64 == 0, "an aligned block lies where it should");
  qn_free(aligned);
  char* copy = qn_strdup("quill and more", 5);
  check(copy != NULL && strcmp(copy, "quill") == 0, "a copied text ends where it was cut");
  qn_free(copy);

  qn_pool_t* pool = qn_pool_create(4096);
  check(pool != NULL, "a pool");
  char* small = qn_palloc(pool, 3);
  char* next = qn_palloc(pool, 4);
  check(small != NULL && (uintptr_t)next % 4 == 0 && next > small, "blocks of a pool follow each other");
  char* large = qn_pcalloc(pool, 100000);
  check(large != NULL && is_zero(large, 100000), "a large block is zero");
  check(qn_pfree(pool, large) == 0 && qn_pfree(pool, small) == -1, "only a large block goes by itself");
  qn_pool_reset(pool);
  check(qn_palloc(pool, 16) != NULL, "a pool that was reset goes on");
  qn_pool_free(pool);
}

// --- log

static void test_log(void) {
  static const char live[] = "/tmp/quillnet/log/hubd_0.log.txt";
  static const char errors[] = "/tmp/quillnet/log/hubd_error_0.log.txt";
  family = "log";
  check(qn_init_dir() == 0 && qn_file_is_exist("/tmp/quillnet/log/"), "the folders are made");
  check(qn_log_new_singleton_instance(0, 2, 0) == 0, "an instance");
  check(qn_log_core_adpater(QN_LOG_D, 7001, "abi", 1, 1, "write", "refused %d", 1) == 0,
        "level D is refused by default");
  qn_log_core_adpater(QN_LOG_I, 7002, "abi", 1, 1, "write", "number %d, %s, %" PRIu64, -5, "text",
                      UINT64_C(0x123456789ab));
  check(file_holds(live, "[7002] [I] [abi] [write] number -5, text, 1250999896491\n"),
        "a record with 64-bit numbers is in the file");
  check(!file_holds(live, "refused"), "a refused one is not");
  check(!file_holds(errors, "[7002]"), "level I is not in the file of errors");
  qn_log_core_adpater(QN_LOG_E, 7003, "abi", 1, 1, "write", "bad");
  check(file_holds(live, "[7003] [E]") && file_holds(errors, "[7003] [E]"), "level E is in both files");
  qn_log_permit_config_t change = {
      .role = "hubd", .permit = "on", .logid = 7001, .mask = QN_LOG_PERMIT_LOGID};
  check(qn_log_set_log_permit_config(&change) == 0, "one number is switched on");
  qn_log_core_adpater(QN_LOG_D, 7001, "abi", 1, 1, "write", "let through");
  check(file_holds(live, "[7001] [D] [abi] [write] let through"), "and its record passes");
  qn_log_fault_adpater(7004, "overrun", "abi", 1, "write", "fault %s", "text");
  check(file_holds(errors, "[7004] [F] [abi] [write] [overrun] fault text"),
        "a fault has a bracket more");
  static const uint8_t mac[6] = {0x02, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  qn_log_dump_macaddr_adpater(QN_LOG_I, 7005, "abi", 1, "write", "peer", mac);
  check(file_holds(live, "peer=02:1A:**:**:4D:5E."), "an address is half hidden");
}

// --- context and threads

static int32_t answer_twice(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  char* body = qn_alloc(2 * req->body_len);
  if (body == NULL) return -1;
  memcpy(body, req->body, req->body_len);
  memcpy(body + req->body_len, req->body, req->body_len);
  *rsp_body = body;
  *rsp_len = 2 * req->body_len;
  return 0;
}

static int32_t refuse(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  qn_service_make_error_msg(0x01020304, rsp_body, rsp_len, "no %s for %u", (const char*)req->ctx,
                            req->msg_id);
  return -1;
}

static char instance[] = "bread";
static const qn_api_entry_t rows[] = {{0x0001, 1, answer_twice, NULL}, {0x8000, 2, refuse, NULL}};

static qn_apis_t* test_context(qn_cycle_t* cycle) {
  family = "context";
  check(cycle != NULL && cycle->pool != NULL, "a cycle with its pool");
  check(is_zero(cycle->process_area, sizeof(cycle->process_area)), "the process's area is zero");
  qn_cycle_set_worker_role(cycle, 77);
  check(cycle->worker_role == 77, "a role is kept");
  qn_api_entry_t* own = qn_service_inject_instance(cycle->pool, rows, 2, instance);
  check(own != NULL && own[1].instance == instance && rows[1].instance == NULL,
        "rows are copied with an instance");
  qn_apis_t* apis = qn_apis_new(cycle->pool, 2, own);
  check(qn_apis_get_callback(apis, 0x8001, 2) == &own[1], "a row is found by source and type");
  check(qn_apis_get_callback(apis, 0x0001, 2) == NULL, "and not for another source");
  return apis;
}

static void* stack_size(void* arg) {
  pthread_attr_t attributes;
  size_t* size = arg;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return NULL;
  pthread_attr_getstacksize(&attributes, size);
  pthread_attr_destroy(&attributes);
  return arg;
}

static void* print_until_told(void* told) {
  while (!atomic_load((atomic_int*)told)) qn_log_println(QN_LOG_I, 7006, "abi", "print", "beside a fork");
  return NULL;
}

// A lock that the printing thread held at the moment of the fork would hold the child up for ever.
static int children_print(void) {
  atomic_int told = 0;
  pthread_t thread;
  if (pthread_create(&thread, NULL, print_until_told, &told) != 0) return 0;
  int printed = 1;
  for (int i = 0; i < 200 && printed; i++) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      qn_log_println(QN_LOG_I, 7007, "abi", "print", "in the child");
      _exit(0);
    }
    int status = -1;
    printed = waitpid(child, &status, 0) == child && status == 0;
  }
  atomic_store(&told, 1);
  pthread_join(thread, NULL);
  return printed;
}

static void test_threads(void) {
  family = "thread";
  pthread_t thread;
  size_t size = 0;
  void* result = NULL;
  check(qn_pthread_new(&thread, stack_size, &size) == 0, "a thread starts");
  check(pthread_join(thread, &result) == 0 && result == &size, "and can be joined");
  check(size >= QN_PTHREAD_STACK_SIZE, "its stack has the size that is promised");
  check(children_print(), "children of forks print beside a thread that does");

  pthread_mutex_t mutex;
  check(qn_pthread_mutex_init(&mutex) == 0 && pthread_mutex_lock(&mutex) == 0, "a mutex");
  check(pthread_mutex_trylock(&mutex) == EBUSY, "is not recursive");
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
}

// --- containers

static int count_pairs(const char* key, void** value, void* closure) {
  (void)key;
  (void)value;
  ++*(int*)closure;
  return 0;
}

static void test_containers(void) {
  family = "container";
  const char* path = in_folder("settings.conf");
  check(write_text(path, "first = 1\n  second=two words \nthird=\n") == 0, "a configuration file");
  qn_map_t* map = qn_conf_load(path);
  check(map != NULL && strcmp(qn_map_get("second", map), "two words") == 0,
        "a value without the blanks around it");
  check(qn_map_get("fourth", map) == NULL, "an absent key");
  qn_map_free(map);
  check(qn_conf_load("/nowhere/settings.conf") == NULL, "an absent file");

  qn_table_t* table = _qn_table_new(2000, NULL, NULL);
  int numbers[1000];
  char key[16];
  int kept = 0, found = 0;
  for (int i = 0; i < 1000; i++) {
    snprintf(key, sizeof(key), "key %d", i);
    kept += _qn_table_put(table, key, &numbers[i], NULL) == NULL;
  }
  for (int i = 0; i < 1000; i++) {
    snprintf(key, sizeof(key), "key %d", i);
    found += qn_table_get(table, key) == &numbers[i];
  }
  check(kept == 1000 && found == 1000, "a table of a thousand keys");
  check(_qn_table_put(table, "key 7", &kept, NULL) == &numbers[7], "an earlier value comes back");
  check(qn_table_remove(table, "key 8") == &numbers[8] && qn_table_length(table) == 999,
        "a key is removed");
  int counted = 0;
  qn_table_map(table, count_pairs, &counted);
  void** pairs = qn_table_toarray(table, &counted);
  check(counted == 999 && pairs != NULL && pairs[2 * 999] == &counted,
        "all pairs are visited and listed");
  qn_free(pairs);
  qn_table_free(&table);
}

// --- store

static void test_store(qn_cycle_t* cycle) {
  family = "store";
  const char* path = in_folder("abi.kvs");
  char name[] = "wan.mtu";
  const qn_str_t key = {sizeof(name) - 1, name};
  kvstore_t* store = NULL;
  void* value = NULL;
  uint16_t size = 0;
  check(qn_kvs_open(&store, cycle->pool, path) == 0, "a new store");
  check(qn_kvs_get(store, &key, &value, &size) == -1, "an absent key");
  check(qn_kvs_put_fmt(store, &key, "%d", 1500) == 0, "a text is put");
  check(qn_kvs_get(store, &key, &value, &size) == 0 && size == 4 && memcmp(value, "1500", 4) == 0,
        "and comes back");
  qn_free(value);
  static char large[QN_KVS_VALUE_MAX + 1];
  memset(large, 'x', sizeof(large));
  check(qn_kvs_put(store, &key, large, QN_KVS_VALUE_MAX) == 0, "the longest value takes the key's place");
  check(qn_kvs_put(store, &key, large, QN_KVS_VALUE_MAX + 1) == -1, "one more byte is refused");
  qn_kvs_close(store);

  struct stat status;
  check(stat(path, &status) == 0 && status.st_size == 131072, "the file has its size");
  check(qn_kvs_open(&store, cycle->pool, path) == 0, "it opens again");
  check(qn_kvs_get(store, &key, &value, &size) == 0 && size == QN_KVS_VALUE_MAX, "with what was put");
  qn_free(value);
  check(qn_kvs_delete(store, &key) == 0 && qn_kvs_delete(store, &key) == -1, "a key is deleted once");
  qn_kvs_close(store);

  FILE* file = fopen(path, "re");
  unsigned char bytes[36] = {0};
  const int read_both = file != NULL && fread(bytes, 1, 25, file) == 25 && bytes[24] == 1 &&
                        memcmp(bytes, "qnkv8deea96c7bc2b089429s", 24) == 0 &&
                        fseek(file, 10240 + 36 * 33, SEEK_SET) == 0 && fread(bytes, 1, 36, file) == 36;
  if (file != NULL) fclose(file);
  check(read_both && bytes[33] == 1 && bytes[34] == 1 && bytes[35] == 0,
        "magic and entry 33 are where they should be");
}

// --- sockets and services

// Sends a request and waits for the answer; the number of bytes that came, -1 for none.
static ssize_t ask(int fd, uint16_t src, uint8_t type, const char* body, void* answer, size_t size) {
  unsigned char message[256];
  const qn_msg_hdr_t header = {.msg_type = type,
                               .msg_act = QN_MSG_ACT_REQ,
                               .msg_src = src,
                               .msg_len = (uint16_t)strlen(body),
                               .msg_id = 0xfedcba98};
  memcpy(message, &header, sizeof(header));
  memcpy(message + sizeof(header), body, strlen(body));
  if (send(fd, message, sizeof(header) + strlen(body), MSG_NOSIGNAL) < 0) return -1;
  return recv(fd, answer, size, 0);
}

static void test_services(qn_cycle_t* cycle, const qn_apis_t* apis) {
  static qn_service_conf_t conf;
  static char path[128];
  snprintf(path, sizeof(path), "%s", in_folder("abi.sock"));
  family = "service";
  conf = (qn_service_conf_t){.server_path = path, .backlog = 4, .max_msg_len = 200, .slot = 9};
  check(sizeof(qn_msg_hdr_t) == 11, "the header has 11 bytes");
  check(qn_service_start_with_thread(cycle, &conf, apis, NULL) == 0, "a service starts");
  for (int tries = 0; tries < 500 && !qn_file_is_exist(path); tries++) usleep(10000);

  family = "socket";
  int32_t fd = -1;
  check(qn_sock_connect_unix_socket_server(path, &fd) == 0, "a client connects");
  check(qn_sock_set_fd_recv_timeout(fd, 10, 0) == 0 && qn_sock_set_fd_send_timeout(fd, 10, 0) == 0,
        "with limits to its waits");

  family = "service";
  unsigned char answer[600];
  qn_msg_hdr_t header = {0};
  const ssize_t twice = ask(fd, 1, 1, "quill", answer, sizeof(answer));
  memcpy(&header, answer, sizeof(header));
  check(twice == 11 + 10 && memcmp(answer + 11, "quillquill", 10) == 0, "a request is answered");
  check(header.msg_act == QN_MSG_ACT_RSP && header.msg_id == 0xfedcba98 && header.msg_len == 10,
        "under its own number");
  const ssize_t refused = ask(fd, 0x8000, 2, "", answer, sizeof(answer));
  check(refused == 11 + 4 + 24 && answer[2] == QN_MSG_ERR_HANDLER_FAILED &&
            memcmp(answer + 15, "no bread for 4275878552", 24) == 0,
        "a refusal has its text");
  check(ask(fd, 1, 9, "", answer, sizeof(answer)) == 11 && answer[2] == QN_MSG_ERR_NO_HANDLER,
        "an unknown type is told so");

  family = "socket";
  int pair[2];
  uint32_t got = 0;
  char text[8] = "";
  check(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) == 0 && qn_sock_set_nonblock(pair[0]) == 0,
        "a descriptor that does not block");
  check(write(pair[1], "abc", 3) == 3 && qn_sock_safe_read(pair[0], text, sizeof(text), &got) == 0 &&
            got == 3,
        "a read takes what is there");
  close(pair[0]);
  close(pair[1]);
  check(qn_sock_connect_unix_socket_server(in_folder("nobody.sock"), &pair[0]) == -1,
        "nobody listens there");

  family = "service";
  check(qn_service_stop_with_thread(cycle) == 0, "a service is asked to end");
  ask(fd, 1, 1, "x", answer, sizeof(answer));
  close(fd);
  check(qn_service_stop_with_thread(NULL) == -3, "no cycle has no services");
}

// --- bus

static int32_t on_connect(struct ubus_context* ctx) {
  (void)ctx;
  return 0;
}

static void on_event(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                     struct blob_attr* msg) {
  (void)ctx;
  (void)ev;
  (void)type;
  (void)msg;
}

static void test_bus(void) {
  family = "bus";
  check(qn_ubus_init() == 0, "the rows are empty");
  int added = 0;
  for (uint32_t type = 0; type < HANDLER_SIZE; type++)
    added += qn_ubus_add_handler(type, on_connect) == 0;
  check(added == HANDLER_SIZE && qn_ubus_add_handler(99, on_connect) == -1, "eight handlers and no more");
  check(qn_ubus_add_event_handler("a.name.that.is.longer.than.the.31", on_event) == -1,
        "a long name is refused");
  check(qn_ubus_add_event_handler("mesh.*", on_event) == 0 &&
            qn_ubus_add_event_handler("mesh.*", on_event) == -1,
        "one subscription and no more");
  check(qn_ubus_start(NULL) == -1, "no path is refused");
  check(qn_ubus_start("/tmp/quillnet/no-bus.sock") == 0, "a bus that is not there is told by the log");
  int told = 0;
  for (int tries = 0; tries < 500 && !told; tries++) {
    usleep(10000);
    told = file_holds("/tmp/quillnet/log/hubd_0.log.txt", "[0621] [E] [qn_ubus]");
  }
  check(told, "which it does");
}

// --- processes

static int32_t run_child(void* arg) {
  qn_child_proc_t* self = (qn_child_proc_t*)((char*)arg - offsetof(qn_child_proc_t, name));
  uint32_t word = 0;
  for (int i = 0; i < 100000; i++) qn_proc_child_send_heatbeat(self);
  return read(self->read_fd, &word, sizeof(word)) == (ssize_t)sizeof(word) && word == QN_PROC_STOP_WORD
             ? 7
             : 8;
}

static int exit_status(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

static void test_processes(void) {
  family = "process";
  check(qn_proc_check_or_create_pidfile("abi.pid") == 0, "a pid file");
  int32_t stored = 0;
  FILE* file = fopen("/tmp/quillnet/abi.pid", "re");
  check(file != NULL && fread(&stored, 1, 8, file) == 4 && stored == getpid(), "with four bytes of pid");
  if (file != NULL) fclose(file);
  check(qn_proc_check_or_create_pidfile("abi.pid") == QN_PROC_ALIVE, "is held by the living");
  check(qn_proc_clean_pidfile("abi.pid") == 0 && qn_proc_clean_pidfile("abi.pid") == -1,
        "and removed once");

  qn_child_proc_t child = {.entry = run_child, .name = "abi child"};
  child.caller_words[8] = 0xabcdef01;
  check(qn_proc_child_start(&child) == 0 && child.pid > 0, "a child starts");
  uint32_t word = 0;
  check(read(child.read_fd, &word, sizeof(word)) == 4 && word == QN_PROC_HEARTBEAT_WORD,
        "its heart beats");
  // The unread beats are taken out, so that what ends the wait is the child's end.
  word = QN_PROC_STOP_WORD;
  int sent = write(child.write_fd, &word, sizeof(word)) == 4;
  while (read(child.read_fd, &word, sizeof(word)) == 4) continue;
  check(sent && exit_status(child.pid) == 7, "it ends on the stop word, with its status");
  check(qn_proc_child_stop(&child) == 0 && child.caller_words[8] == 0xabcdef01,
        "a stop of one that is gone returns");

  int32_t pid = 0;
  char program[] = "/bin/sh", option[] = "-c", command[] = "exit 9";
  char* const arguments[] = {program, option, command, NULL};
  check(qn_proc_child_start_exec("shell", program, arguments, &pid) == 0 && exit_status(pid) == 9,
        "a program runs");
  check(qn_proc_child_start_exec("nothing", "/nowhere", arguments, &pid) == 0 && exit_status(pid) == 255,
        "one that is not there ends with 255");
  check(qn_proc_child_stop_exec("/sbin/init", "init", 1) == 0, "pid 1 is left alone");
}

// --- interfaces

static int driver_can_be_asked(void) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct ifreq request = {0};
  memcpy(request.ifr_name, "lo", sizeof("lo"));
  const int known = ioctl(fd, SIOCETHTOOL, &request) == 0 || errno != ENOSYS;
  close(fd);
  return known;
}

static void test_interfaces(void) {
  static const char emulator[] = "the emulator does not know the request";
  family = "interface";
  check(QnIntfIsExist("lo") == 1 && QnIntfIsExist("nowhere0") == 0, "lo is there");
  check(QnIntfNameToIndex("lo") == 1, "and is the first");
  check(QnIntfIsUp("lo") == 0, "and down in a new network");
  check(QnIntfCreateVEthPair("abi0", "abi1") == 0, "a pair of interfaces");
  check(QnIntfIsUp("abi0") == 1 && QnIntfIsUp("abi1") == 1, "both are up");
  check(QnIntfCreateVEthPair("abi0", "abi2") == -1 && QnIntfIsExist("abi2") == 0, "a name is taken once");
  check(QnIntfGetOperState("abi0") == QN_INTF_OPER_UP && QnIntfGetPowerState("abi0") == QN_INTF_POWER_ON,
        "its state is told");
  check(QnIntfGetOperState("nowhere0") == QN_INTF_OPER_NOT_PRESENT, "also of one that is not there");
  qn_intf_eth_metric_t metric = {.rx_errors = 9};
  QnIntfGetEthMetric("nowhere0", &metric);
  check(is_zero(&metric, sizeof(metric)), "whose counters are zero");
  uint8_t mac[6] = {0};
  check(qn_utils_get_intf_mac_addr("abi0", mac) == 0 && !is_zero(mac, 6), "an address");
  check(QnIntfIsWireless(0x0107) == 1 && QnIntfIsWireless(0x0108) == 0 && QnIntfIsEthernet(1) == 1,
        "media codes");
  check(qn_os_exec_cmd("ip link add abibr type bridge") == 0 && QnBridgeIsExist("abibr") == 1,
        "a bridge");
  if (driver_can_be_asked()) {
    check(QnIntfIsVEthDev("abi0") == 1 && QnIntfIsBridgeDev("abibr") == 1, "drivers");
    check(QnIntfAddIfToBridge("abibr", "abi0") == 0 && QnIntfIsOnBridge("abibr", "abi0") == 1, "a port");
  } else {
    skip("drivers", emulator);
    skip("a port", emulator);
    qn_os_exec_cmd("ip link set abi0 master abibr");
  }
  char name[16] = "";
  check(QnIntfGetPortIndex("abi0") == 0, "its index");
  check(QnIntfGetNameByPortNo("abibr", 1, name, sizeof(name)) == 0 && strcmp(name, "abi0") == 0,
        "and its name");
}

// --- utilities

static void test_utilities(void) {
  family = "utility";
  char text[] = " \t quill \n";
  check(strcmp(qn_utils_trim(text), "quill") == 0, "blanks are cut");
  check(qn_str2num("0x7fffffff", 0) == INT32_MAX && qn_str2num("99999999999", 10) == INT32_MAX &&
            qn_str2num("-99999999999", 10) == INT32_MIN,
        "numbers end at 32 bits");
  check(qn_str2num("12x", 10) == 0, "a number with a tail is none");
  check(qn_os_exec_cmd("exit 3") == 0 && qn_os_exec_cmd("kill -9 $$") == -1,
        "a shell that ends, and one that is killed");
  char output[32] = "";
  check(qn_os_exec_cmd_and_read_output("printf 'a b'", output, sizeof(output)) == 0 &&
            strcmp(output, "a b") == 0,
        "what a command prints");
  check(write_text(in_folder("pairs"), "alpha:1\nbeta:2\n") == 0 &&
            qn_os_read_value_by_key_from_file(in_folder("pairs"), "^beta", ":", output, sizeof(output)) ==
                0 &&
            output[0] == '2',
        "a value out of a file");
  check(qn_os_exec_vcmd("test %d -eq %s", 5, "5") == 0, "a command with arguments");
  const int64_t mtime = qn_file_get_last_mtime(in_folder("pairs"));
  check(mtime > 1600000000 && qn_file_is_modified(in_folder("pairs"), mtime - 1) == 1 &&
            qn_file_is_modified(in_folder("pairs"), mtime) == 0,
        "when a file was changed");
  check(qn_os_exec_vcmd("touch -d 2100-01-01T00:00:00Z %s", in_folder("pairs")) == 0 &&
            qn_file_get_last_mtime(in_folder("pairs")) == INT64_C(4102444800),
        "also in the year 2100");
  char key[33];
  memset(key, 'z', sizeof(key));
  qn_generate_random_key(key, 32);
  check(strspn(key, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789") == 32 &&
            key[32] == '\0',
        "a random key");
  uint8_t mac[6] = {0};
  static const uint8_t expected[6] = {0x02, 0x1a, 0x2b, 0x3c, 0x4d, 0xff};
  check(qn_utils_char_to_mac("02:1a:2B:3c:4D:fF", mac) == 0 && memcmp(mac, expected, 6) == 0,
        "an address out of a text");
  check(qn_utils_char_to_mac("02-1a-2B-3c-4D-fF", mac) == -1, "with colons only");
  const int64_t before = qn_time_timestamp();
  usleep(20000);
  const int64_t after = qn_time_timestamp();
  check(before > 0 && after - before >= 20, "milliseconds go by");
  check(qn_trans_cm_auth_mode_to_qn(9) == 0x18 && qn_trans_wlan_auth_to_qn(10) == 0x60 &&
            qn_trans_wlan_auth_to_qn(8) == 0x20,
        "authentication codes");
}

// Without root it takes a user namespace, in which we are root.
static int become_root(void) {
  char map[64];
  const unsigned uid = geteuid(), gid = getegid();
  if (uid == 0) return 0;
  if (unshare(CLONE_NEWUSER) != 0 || write_text("/proc/self/setgroups", "deny") != 0) return -1;
  snprintf(map, sizeof(map), "0 %u 1", uid);
  if (write_text("/proc/self/uid_map", map) != 0) return -1;
  snprintf(map, sizeof(map), "0 %u 1", gid);
  return write_text("/proc/self/gid_map", map);
}

// /tmp/quillnet, the network and its view in /sys become the program's own.
static int enter_own_world(void) {
  mkdir("/tmp/quillnet", 0777);
  return become_root() == 0 && unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
                 mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) == 0 &&
                 mount("sysfs", "/sys", "sysfs", 0, NULL) == 0 &&
                 mount("tmpfs", "/tmp/quillnet", "tmpfs", 0, NULL) == 0 && mkdtemp(folder) != NULL
             ? 0
             : -1;
}

// Never freed: no call tells when the thread of a stopped service has ended.
static qn_cycle_t* cycle;

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  signal(SIGPIPE, SIG_IGN);
  if (enter_own_world() != 0) {
    printf("FAILED: no namespaces of its own (errno %d)\n", errno);
    return 1;
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
  return failures == 0 ? 0 : 1;
}
