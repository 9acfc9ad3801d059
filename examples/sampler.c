// The supervised child of hubd, both sides of it.
//
// The results lie in a mapping that parent and child share. A sequence number guards them: it is odd
// while the child writes, so a reader that meets an odd number, or another one after its copy, reads
// again. A child that is killed while it writes leaves an odd number, and no results until the next one
// starts.
#include "sampler.h"

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <quillcore/interface.h>
#include <quillcore/log.h>
#include <quillcore/memory.h>
#include <quillcore/process.h>
#include <quillcore/service.h>
#include <quillcore/utility.h>
#include <signal.h>
#include <stdatomic.h>
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#define SAMPLES_MAX 256
#define READ_TRIES 100
#define PERIOD_MS 1000
#define SILENCE_MS_MAX 10000 // of a heart that beats every second
#define STOP_MS_MAX 2000
#define WORDS_MAX 100000 // taken out of the pipe at once, which holds 16,384

typedef struct sample {
  char name[HUB_INTF_NAME_SIZE];
  uint64_t rx_bytes;
  uint64_t tx_bytes;
  hub_rates_t rates;
} sample_t;

typedef struct samples {
  int64_t taken_ms;
  uint32_t count;
  sample_t rows[SAMPLES_MAX];
} samples_t;

typedef struct shared {
  _Atomic uint32_t sequence; // odd while `samples` is written
  samples_t samples;
} shared_t;

static int32_t run_child(void* arg);

static struct {
  pthread_mutex_t lock; // covers all of this in the parent
  shared_t* shared;     // from the first start on
  qn_child_proc_t child;
  int wanted; // to be started anew when it ends
  int64_t heard_ms;
  hub_child_t state; // what a request is answered with
} sampler = {
    .lock = PTHREAD_MUTEX_INITIALIZER,
    .child = {.entry = run_child, .name = "sampler"},
};

// --- The child. It is alone in its process and takes no lock that another thread may have held.

static const sample_t* find(const samples_t* samples, const char* name) {
  for (uint32_t i = 0; i < samples->count; i++) {
    if (strcmp(samples->rows[i].name, name) == 0) return &samples->rows[i];
  }
  return NULL;
}

static uint64_t per_second(uint64_t now, uint64_t before, int64_t elapsed_ms) {
  if (now < before || elapsed_ms <= 0) return 0; // the counters began anew
  return (now - before) * 1000 / (uint64_t)elapsed_ms;
}

static void take(const char* name, const samples_t* last, samples_t* out) {
  sample_t* row = &out->rows[out->count];
  if (out->count == SAMPLES_MAX || strlen(name) >= sizeof(row->name)) return;

  qn_intf_eth_metric_t metric;
  QnIntfGetEthMetric(name, &metric);
  *row = (sample_t){.rx_bytes = metric.rx_bytes, .tx_bytes = metric.tx_bytes};
  memcpy(row->name, name, strlen(name));
  const sample_t* before = find(last, name);
  if (before != NULL) {
    const int64_t elapsed_ms = out->taken_ms - last->taken_ms;
    row->rates.rx_bytes_per_s = per_second(row->rx_bytes, before->rx_bytes, elapsed_ms);
    row->rates.tx_bytes_per_s = per_second(row->tx_bytes, before->tx_bytes, elapsed_ms);
  }
  out->count++;
}

static void take_all(const samples_t* last, samples_t* out) {
  out->count = 0;
  out->taken_ms = qn_time_timestamp();
  DIR* directory = opendir("/sys/class/net");
  if (directory == NULL) return;
  const struct dirent* entry;
  while ((entry = readdir(directory)) != NULL) {
    if (QnIntfIsExist(entry->d_name)) take(entry->d_name, last, out);
  }
  closedir(directory);
}

static void publish(shared_t* shared, const samples_t* samples) {
  const uint32_t sequence = atomic_load_explicit(&shared->sequence, memory_order_relaxed);
  atomic_exchange(&shared->sequence, sequence + 1); // what is written next stays behind this
  shared->samples = *samples;
  atomic_store_explicit(&shared->sequence, sequence + 2, memory_order_release);
}

// Waits a second for a word. Returns 1 when the child is to end: it was asked to, or its parent is gone.
static int is_told_to_end(const qn_child_proc_t* self) {
  struct pollfd pipe = {.fd = self->read_fd, .events = POLLIN};
  if (poll(&pipe, 1, PERIOD_MS) <= 0) return 0;
  uint32_t word = 0;
  const ssize_t got = read(self->read_fd, &word, sizeof(word));
  return got == 0 || (got == (ssize_t)sizeof(word) && word == QN_PROC_STOP_WORD);
}

static int32_t run_child(void* arg) {
  // The record begins one field ahead of `name`, whose address comes here.
  qn_child_proc_t* self = (qn_child_proc_t*)((char*)arg - offsetof(qn_child_proc_t, name));

  // A child inherits the signals that its parent has blocked for the sake of its own threads, and the
  // handlers of a bus loop that runs there.
  signal(SIGTERM, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, NULL);

  static samples_t both[2];
  for (unsigned turn = 0;; turn++) {
    take_all(&both[(turn + 1) % 2], &both[turn % 2]);
    publish(sampler.shared, &both[turn % 2]);
    qn_proc_child_send_heatbeat(self);
    if (is_told_to_end(self)) return 0; // which closes the pipe, and that is the answer
  }
}

// --- The parent, under the lock.

static int start(void) {
  if (sampler.shared == NULL) {
    void* mapping =
        mmap(NULL, sizeof(shared_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) return -1;
    sampler.shared = mapping;
  }
  memset(sampler.shared, 0, sizeof(*sampler.shared));
  if (qn_proc_child_start(&sampler.child) != 0) return -1;

  sampler.wanted = 1;
  sampler.heard_ms = qn_time_timestamp();
  sampler.state.pid = sampler.child.pid;
  sampler.state.starts++;
  sampler.state.beats = 0;
  return 0;
}

// A child that has closed its pipe and does not end within STOP_MS_MAX is ended by force.
static void reap(uint8_t ended_by) {
  const int64_t until = qn_time_timestamp() + STOP_MS_MAX;
  const struct timespec pause = {.tv_nsec = 1000000}; // 1 ms
  int status = 0;
  pid_t ended = 0;
  while ((ended = waitpid(sampler.child.pid, &status, WNOHANG)) == 0 || (ended < 0 && errno == EINTR)) {
    if (qn_time_timestamp() > until) {
      kill(sampler.child.pid, SIGKILL);
      ended_by = HUB_ENDED_BY_FORCE;
    }
    nanosleep(&pause, NULL);
  }
  sampler.state.pid = 0;
  sampler.state.ended_by = ended_by;
  sampler.state.wait_status = status;
}

// Takes the heartbeats out of the pipe, waiting at most `timeout_ms` for the next thing to come. Returns
// 0 when nothing more came in that time, or when the child never stops talking; 1 when it has closed its
// end.
static int listen_to_heart(int timeout_ms) {
  const int64_t until = qn_time_timestamp() + timeout_ms;
  struct pollfd pipe = {.fd = sampler.child.read_fd, .events = POLLIN};
  for (int words = 0; words < WORDS_MAX; words++) {
    const int64_t left = until - qn_time_timestamp();
    const int ready = poll(&pipe, 1, left > 0 ? (int)left : 0);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return 0;

    uint32_t word = 0;
    if (read(sampler.child.read_fd, &word, sizeof(word)) != (ssize_t)sizeof(word)) return 1;
    if (word != QN_PROC_HEARTBEAT_WORD) continue;
    sampler.state.beats++;
    sampler.heard_ms = qn_time_timestamp();
  }
  return 0;
}

// qn_proc_child_stop() waits for an answer without a limit, so it comes last, when the child's end of the
// pipe is closed for certain: by the child itself, which was sent the word here, or by force.
static void stop(void) {
  static const uint32_t word = QN_PROC_STOP_WORD;
  if (sampler.state.pid == 0) return;

  const int told = write(sampler.child.write_fd, &word, sizeof(word)) == (ssize_t)sizeof(word);
  const int closed = listen_to_heart(told ? STOP_MS_MAX : 0);
  if (!closed) kill(sampler.child.pid, SIGKILL);
  qn_proc_child_stop(&sampler.child);
  reap(closed ? HUB_ENDED_BY_WORD : HUB_ENDED_BY_FORCE);
}

static void restart(const char* why) {
  qn_log_core_adpater(QN_LOG_W, 9006, "hubd", 1, 1, "hubd_sampler", "sampler pid=%d %s.",
                      sampler.child.pid, why);
  if (start() != 0) {
    qn_log_core_adpater(QN_LOG_E, 9007, "hubd", 1, 1, "hubd_sampler", "sampler could not be started.");
  }
}

static void watch(void) {
  if (!sampler.wanted) return;
  if (sampler.state.pid == 0) {
    restart("is not there, starting it again");
    return;
  }
  if (listen_to_heart(0)) {
    qn_proc_child_stop(&sampler.child); // closes the pipes; it does not wait, the other end is closed
    reap(HUB_ENDED_BY_ITSELF);
    restart("has ended, starting it again");
  } else if (qn_time_timestamp() - sampler.heard_ms > SILENCE_MS_MAX) {
    stop();
    restart("was silent, starting it again");
  }
}

int hub_sampler_start(void) {
  pthread_mutex_lock(&sampler.lock);
  const int result = start();
  pthread_mutex_unlock(&sampler.lock);
  return result;
}

void hub_sampler_watch(void) {
  pthread_mutex_lock(&sampler.lock);
  watch();
  pthread_mutex_unlock(&sampler.lock);
}

void hub_sampler_stop(void) {
  pthread_mutex_lock(&sampler.lock);
  sampler.wanted = 0;
  stop();
  pthread_mutex_unlock(&sampler.lock);
}

static int copy_row(const char* intf_name, hub_rates_t* rates) {
  shared_t* shared = sampler.shared;
  if (shared == NULL) return -1;
  for (int tries = 0; tries < READ_TRIES; tries++) {
    const uint32_t before = atomic_load_explicit(&shared->sequence, memory_order_acquire);
    if (before % 2 != 0) continue;
    const sample_t* row = shared->samples.count <= SAMPLES_MAX ? find(&shared->samples, intf_name) : NULL;
    if (row != NULL) *rates = row->rates;
    // A change of nothing, which what was read above stays in front of.
    if (atomic_fetch_or(&shared->sequence, 0) == before) return row != NULL ? 0 : -1;
  }
  return -1;
}

int hub_sampler_rates(const char* intf_name, hub_rates_t* rates) {
  pthread_mutex_lock(&sampler.lock);
  const int result = sampler.state.pid != 0 ? copy_row(intf_name, rates) : -1;
  pthread_mutex_unlock(&sampler.lock);
  return result;
}

// Does what the step of a request says. Returns 0 or a HUB_ERR_* code.
static uint32_t do_step(uint8_t step) {
  switch (step) {
    case HUB_CHILD_STATUS:
      if (sampler.state.pid != 0) listen_to_heart(0);
      return 0;
    case HUB_CHILD_STOP:
      sampler.wanted = 0;
      stop();
      return 0;
    case HUB_CHILD_START:
      return sampler.state.pid != 0 || start() == 0 ? 0 : HUB_ERR_CHILD;
    case HUB_CHILD_RESTART:
      stop();
      return start() == 0 ? 0 : HUB_ERR_CHILD;
    default:
      return HUB_ERR_MALFORMED;
  }
}

int32_t handle_child(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  hub_child_t* answer = qn_alloc(sizeof(*answer));
  if (answer == NULL) return -1;

  pthread_mutex_lock(&sampler.lock);
  const uint32_t failure = req->body_len == 1 ? do_step(req->body[0]) : HUB_ERR_MALFORMED;
  *answer = sampler.state;
  pthread_mutex_unlock(&sampler.lock);

  if (failure != 0) {
    qn_free(answer);
    qn_service_make_error_msg(
        failure, rsp_body, rsp_len,
        failure == HUB_ERR_CHILD ? "the child could not be started" : "no such step");
    return -1;
  }
  *rsp_body = answer;
  *rsp_len = sizeof(*answer);
  return 0;
}
