// Runs each hot operation of the library a fixed number of times between two marks, so that whoever
// watches the program from outside can count its instructions. Prints the names of the operations in the
// order of the marks.
//
// A mark is a write() to a descriptor that cannot be: the count of what stands between two of them holds
// nothing of the driver itself, because only instructions of the library's text are looked at.
#define _GNU_SOURCE
#include <fcntl.h>
#include <link.h>
#include <quillcore/quillcore.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

enum { MARK_TEXT = -1001, MARK_BEGIN = -1002, MARK_END = -1003 };

static void mark(int what, uintptr_t first, uintptr_t second) {
  if (write(what, (const void*)first, second) != -1) abort();
}

static void must(int held, const char* what) {
  if (held) return;
  perror(what);
  exit(1);
}

// Tells where the library's instructions lie.
static int find_text(struct dl_phdr_info* info, size_t size, void* found) {
  (void)size;
  if (strstr(info->dlpi_name, "libquillcore") == NULL) return 0;
  for (int i = 0; i < info->dlpi_phnum; i++) {
    const ElfW(Phdr)* const part = &info->dlpi_phdr[i];
    if (part->p_type != PT_LOAD || (part->p_flags & PF_X) == 0) continue;
    mark(MARK_TEXT, info->dlpi_addr + part->p_vaddr, part->p_memsz);
    *(int*)found = 1;
  }
  return 1;
}

// In place of the C library's: the stamp of a record has more instructions for a number of more digits.
int gettimeofday(struct timeval* restrict now, void* restrict zone) {
  (void)zone;
  *now = (struct timeval){1700000000, 654321};
  return 0;
}

static void begin(void) { mark(MARK_BEGIN, 0, 0); }

static void end(const char* name, unsigned times) {
  mark(MARK_END, times, 0);
  printf("%s %u\n", name, times);
}

// Once unmeasured, so that no call is bound and no page made between the marks; then `times` times.
#define MEASURE(name, times, ...)            \
  do {                                       \
    for (unsigned i = 0; i < 16; i++) {      \
      __VA_ARGS__;                           \
    }                                        \
    begin();                                 \
    for (unsigned i = 0; i < (times); i++) { \
      __VA_ARGS__;                           \
    }                                        \
    end(name, times);                        \
  } while (0)

// --- records ---

static void switch_others(const char* permit) {
  qn_log_permit_config_t change = {0};
  strcpy(change.role, "hubd");
  strcpy(change.permit, permit);
  strcpy(change.biz_name, "palloc_block");
  change.logid = 414;
  change.mask = QN_LOG_PERMIT_LOGID | QN_LOG_PERMIT_BIZ;
  must(qn_log_set_log_permit_config(&change) == 0, "qn_log_set_log_permit_config");
}

static void records(void) {
  int number = 0;
#define REFUSED \
  qn_log_core_adpater(QN_LOG_D, 523, "alloc", 1, 1, "memalloc", "ptr=%p, size=%d", (void*)&number, 64)
  MEASURE("record_refused", 1000, REFUSED);
  MEASURE("record_refused_trace", 1000,
          qn_log_core_adpater(QN_LOG_T, 507, "kvstore", 1, 1, "kvs_get", "entering %s. called by %s.",
                              "a", "nil"));
  switch_others("on");
  MEASURE("record_refused_switches_on", 1000, REFUSED);
  switch_others("off");
  MEASURE("record_accepted_one_file", 100,
          qn_log_core_adpater(QN_LOG_I, 9001, "hubd", 1, 1, "request", "request %d served", 1234));
  MEASURE("record_accepted_two_files", 100,
          qn_log_core_adpater(QN_LOG_E, 9001, "hubd", 1, 1, "request", "request %d served", 1234));
}

// --- memory ---

static void pool_batch(qn_pool_t* pool, uint32_t size, unsigned count) {
  for (unsigned i = 0; i < count; i++) qn_palloc(pool, size);
}

static void memory(void) {
  void* volatile block;
  MEASURE("alloc_free_64", 1000, block = qn_alloc(64); qn_free(block));

  qn_pool_t* pool = qn_pool_create(32768);
  MEASURE("palloc_16", 1000, qn_palloc(pool, 16));
  qn_pool_reset(pool);
  pool_batch(pool, 256, 1000);
  qn_pool_reset(pool);
  begin();
  pool_batch(pool, 256, 1000);
  end("palloc_256_after_reset", 1000);
  qn_pool_free(pool);

  pool = qn_pool_create(32768);
  pool_batch(pool, 256, 1000);
  qn_pool_free(pool);
  pool = qn_pool_create(32768);
  begin();
  pool_batch(pool, 256, 1000);
  end("palloc_256_fresh", 1000);
  qn_pool_free(pool);
}

// --- tables and maps ---

static void make_key(char* key, size_t size, unsigned number) {
  snprintf(key, size, "station.%06x.rssi", number);
}

static void tables(unsigned count, const char* get, const char* put_known, const char* put_new,
                   const char* drop) {
  char(*keys)[24] = calloc(count, sizeof(*keys));
  for (unsigned i = 0; i < count; i++) make_key(keys[i], sizeof(keys[i]), i);
  static int value;
  qn_table_t* table = _qn_table_new((int32_t)count, NULL, NULL);
  begin();
  for (unsigned i = 0; i < count; i++) _qn_table_put(table, keys[i], &value, NULL);
  end(put_new, count);
  MEASURE(get, count, qn_table_get(table, keys[i]));
  MEASURE(put_known, count, _qn_table_put(table, keys[i], &value, NULL));
  begin();
  for (unsigned i = 0; i < count; i++) qn_table_remove(table, keys[i]);
  end(drop, count);
  qn_table_free(&table);
  free(keys);
}

static void configuration(const char* folder) {
  char path[256], key[64];
  snprintf(path, sizeof(path), "%s/conf", folder);
  FILE* const file = fopen(path, "w");
  must(file != NULL, "fopen");
  for (int i = 0; i < 100; i++) fprintf(file, "radio%d.setting.%03d=value number %d\n", i % 2, i, i);
  fclose(file);

  const int kept = dup(STDERR_FILENO), null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDERR_FILENO);
  MEASURE("conf_load_100", 20, qn_map_free(qn_conf_load(path)));
  qn_map_t* const map = qn_conf_load(path);
  dup2(kept, STDERR_FILENO);
  must(map != NULL, "qn_conf_load");
  snprintf(key, sizeof(key), "radio1.setting.051");
  MEASURE("map_get_middle_of_100", 100, must(qn_map_get(key, map) != NULL, "qn_map_get"));
  qn_map_free(map);
}

// --- the store ---

static void store(const char* folder) {
  char path[256], names[100][32], text[1600];
  memset(text, 'v', sizeof(text));
  snprintf(path, sizeof(path), "%s/settings.kvs", folder);
  qn_pool_t* const pool = qn_pool_create(32768);
  kvstore_t* opened = NULL;
  must(qn_kvs_open(&opened, pool, path) == 0, "qn_kvs_open");
  static const struct { uint16_t size, count; } spread[] = {{16, 32}, {100, 28}, {200, 32}, {1500, 8}};
  qn_str_t keys[100];
  for (unsigned row = 0, at = 0; row < 4; row++) {
    for (unsigned i = 0; i < spread[row].count; i++, at++) {
      snprintf(names[at], sizeof(names[at]), "wireless.radio%u.option%u", at % 3, at * 61 % 100);
      keys[at] = (qn_str_t){(uint32_t)strlen(names[at]), names[at]};
      must(qn_kvs_put(opened, &keys[at], text, spread[row].size) == 0, "qn_kvs_put");
    }
  }
  void* value;
  uint16_t length;
#define GET(key)                            \
  value = NULL;                             \
  qn_kvs_get(opened, key, &value, &length); \
  free(value)
  MEASURE("kvs_get_16", 320, GET(&keys[i % 32]));
  MEASURE("kvs_get_200", 320, GET(&keys[60 + i % 32]));
  MEASURE("kvs_get_1500", 320, GET(&keys[92 + i % 8]));
  qn_str_t absent = {20, (char*)"wireless.radio2.none"};
  MEASURE("kvs_get_absent", 320, GET(&absent));
  MEASURE("kvs_put_known", 50, qn_kvs_put(opened, &keys[60 + i % 32], text, 200));
  MEASURE("kvs_put_and_delete", 20, qn_kvs_put(opened, &absent, text, 16);
          qn_kvs_delete(opened, &absent));
  qn_kvs_close(opened);
  MEASURE("kvs_open_close_100", 20, qn_pool_reset(pool);
          must(qn_kvs_open(&opened, pool, path) == 0, "qn_kvs_open"); qn_kvs_close(opened));
  qn_pool_free(pool);
}

// --- a request ---

static int32_t echo(const qn_msg_req_t* request, void** body, uint32_t* length) {
  *body = malloc(request->body_len); // not ours: what a handler does is not counted
  memcpy(*body, request->body, request->body_len);
  *length = request->body_len;
  return 0;
}

static void exchange(int fd) {
  char message[sizeof(qn_msg_hdr_t) + 64] = {0};
  const qn_msg_hdr_t header = {1, QN_MSG_ACT_REQ, 0, 1, 64, 7};
  memcpy(message, &header, sizeof(header));
  must(write(fd, message, sizeof(message)) == sizeof(message), "write");
  must(read(fd, message, sizeof(message)) == sizeof(message), "read");
}

static void requests(const char* folder) {
  static char path[100];
  snprintf(path, sizeof(path), "%s/socket", folder);
  static qn_service_conf_t conf = {path, 8, QN_MSG_SIZE_MAX, 0};
  static qn_api_entry_t rows[] = {{1, 1, echo, NULL}};
  qn_cycle_t* const cycle = qn_cycle_new();
  must(qn_service_start_with_thread(cycle, &conf, qn_apis_new(cycle->pool, 1, rows), NULL) == 0,
       "service");
  int fd = -1;
  usleep(100000);
  must(qn_sock_connect_unix_socket_server(path, &fd) == 0, "connect");
  for (int i = 0; i < 16; i++) exchange(fd);
  usleep(100000); // the service is back in its wait, whatever the scheduler does
  begin();
  for (int i = 0; i < 200; i++) exchange(fd);
  usleep(100000);
  end("request_64", 200);
}

int main(void) {
  int found = 0;
  dl_iterate_phdr(find_text, &found);
  must(found, "finding the library");
  setvbuf(stdout, NULL, _IOLBF, 0);

  // File systems of its own: no daemon's files are touched, and what lies there decides nothing.
  must(unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWNS | CLONE_NEWUSER) == 0, "unshare");
  must(mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) == 0, "mount");
  must(mount("tmpfs", "/tmp", "tmpfs", 0, NULL) == 0, "mount");
  must(mount("tmpfs", "/etc/quillnet", "tmpfs", 0, NULL) == 0 || access("/etc/quillnet", F_OK) != 0,
       "mount");
  must(qn_init_dir() == 0, "qn_init_dir");
  must(qn_log_new_singleton_instance(0, 2, 0) == 0, "qn_log_new_singleton_instance");

  records();
  memory();
  tables(500, "table_get_500", "table_put_known_500", "table_put_new_500", "table_remove_500");
  tables(50000, "table_get_50000", "table_put_known_50000", "table_put_new_50000", "table_remove_50000");
  configuration("/tmp/quillnet");
  store("/tmp/quillnet");
  requests("/tmp/quillnet");
  fflush(stdout);
  _exit(0); // the service's thread stays in its wait
}
