// The supervised child of hubd, both sides of it: once a second it looks how many interfaces are up,
// tells the log of a change, and beats its heart.
//
// The pipes carry nothing but words. The child ends on the stop word, on SIGTERM, and by itself when its
// parent is gone.
#include <errno.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "hubd.h"

#define PERIOD_MS 1000
#define SILENCE_MS_MAX 10000 // of a heart that beats every second
#define STOP_MS_MAX 2000
#define WORDS_MAX 100000 // taken out of the pipe at once, which holds 16,384

static int32_t run_child(void* arg);

static struct {
  pthread_mutex_t lock; // covers all of this
  qn_child_proc_t child;
  int runs;
  int wanted;      // to be started anew when it ends
  int wait_status; // of the last one that ended
  int64_t heard_ms;
  uint32_t starts;
  uint32_t beats; // of this one's heart
} sampler = {
    .lock = PTHREAD_MUTEX_INITIALIZER,
    .child = {.entry = run_child, .name = "sampler"},
};

// --- The child. It is alone in its process and takes no lock that another thread may have held.

static int count_up(void) {
  struct if_nameindex* all = if_nameindex();
  int count = 0;
  for (const struct if_nameindex* row = all; row != NULL && row->if_name != NULL; row++) {
    count += QnIntfIsUp(row->if_name) && QnIntfGetOperState(row->if_name) == QN_INTF_OPER_UP;
  }
  if_freenameindex(all);
  return count;
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
  qn_child_proc_t* self = qn_proc_child_of_entry(arg);

  // A child inherits the signals that its parent has blocked for the sake of its own threads, and the
  // handlers of a bus loop that runs there.
  signal(SIGTERM, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, NULL);

  for (int before = -1;;) {
    const int now = count_up();
    if (now != before) HUB_LOG(QN_LOG_I, 9006, "hubd_sampler", "%d interfaces are up.", now);
    before = now;
    qn_proc_child_send_heatbeat(self);
    if (is_told_to_end(self)) return 0; // which closes the pipe, and that is the answer
  }
}

// --- The parent, under the lock.

static int start(void) {
  if (qn_proc_child_start(&sampler.child) != 0) return -1;
  sampler.runs = 1;
  sampler.heard_ms = qn_time_timestamp();
  sampler.starts++;
  sampler.beats = 0;
  return 0;
}

// Takes heartbeats out of the pipe for `timeout_ms`. Returns 1 when the child has closed its end.
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
    sampler.beats++;
    sampler.heard_ms = qn_time_timestamp();
  }
  return 0;
}

// qn_proc_child_stop() waits for an answer without a limit, so it comes when the child's end of the pipe
// is closed for certain: by the child itself, which is sent the word here, or by force.
static void stop(void) {
  static const uint32_t word = QN_PROC_STOP_WORD;
  if (!sampler.runs) return;
  int closed = listen_to_heart(0);
  if (!closed && write(sampler.child.write_fd, &word, sizeof(word)) == (ssize_t)sizeof(word)) {
    closed = listen_to_heart(STOP_MS_MAX);
  }
  if (!closed) kill(sampler.child.pid, SIGKILL);
  qn_proc_child_stop(&sampler.child);
  while (waitpid(sampler.child.pid, &sampler.wait_status, 0) < 0 && errno == EINTR) continue;
  sampler.runs = 0;
}

static int watch(void) {
  if (!sampler.wanted) return 0;
  const int ended = !sampler.runs || listen_to_heart(0);
  if (!ended && qn_time_timestamp() - sampler.heard_ms <= SILENCE_MS_MAX) return 0;
  stop();
  HUB_LOG(QN_LOG_W, 9007, "hubd_sampler", "sampler pid=%d is gone or silent, starting it again.",
          sampler.child.pid);
  return start();
}

static int take_step(enum hub_step step) {
  if (step == HUB_CHILD_WATCH) return watch();
  if (step != HUB_CHILD_STATUS) sampler.wanted = step == HUB_CHILD_START;
  if (step == HUB_CHILD_STOP) stop();
  return step == HUB_CHILD_START && !sampler.runs ? start() : 0;
}

// One line of how the child is.
static int describe(char* text, size_t size) {
  const int status = sampler.wait_status, killed = WIFSIGNALED(status);
  if (!sampler.runs) {
    return snprintf(text, size, "stopped, %s %d", killed ? "signal" : "exit status",
                    killed ? WTERMSIG(status) : WEXITSTATUS(status));
  }
  listen_to_heart(0);
  return snprintf(text, size, "runs, pid %d, start %u, %u beats", sampler.child.pid, sampler.starts,
                  sampler.beats);
}

int hub_child(enum hub_step step) {
  pthread_mutex_lock(&sampler.lock);
  const int result = take_step(step);
  pthread_mutex_unlock(&sampler.lock);
  return result;
}

int32_t handle_child(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  static const char* const names[] = {
      [HUB_CHILD_STATUS] = "status", [HUB_CHILD_START] = "start", [HUB_CHILD_STOP] = "stop"};
  hub_words_t words;
  hub_split(req, &words);
  enum hub_step step = HUB_CHILD_STATUS;
  while (step < HUB_CHILD_WATCH && strcmp(words.word[0].data, names[step]) != 0) step++;
  if (step == HUB_CHILD_WATCH || words.count != 1) return HUB_REFUSE(HUB_ERR_MALFORMED, "no such step");

  char text[80];
  pthread_mutex_lock(&sampler.lock);
  const int result = take_step(step);
  const int len = describe(text, sizeof(text));
  pthread_mutex_unlock(&sampler.lock);
  if (result != 0) return HUB_REFUSE(HUB_ERR_CHILD, "the child could not be started");
  *rsp_body = qn_strdup(text, (uint32_t)len);
  *rsp_len = *rsp_body != NULL ? (uint32_t)len : 0;
  return *rsp_body != NULL ? 0 : -1;
}
