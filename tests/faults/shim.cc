#include "faults/shim.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <new>
#include <vector>

#include "platform/standard_streams.h"

namespace {

// Lies in memory that a child shares, so that its parent learns of calls made there.
struct State {
  std::atomic<bool> armed{false}; // set last: the fault does not change while it is
  shim::Fault fault{};
  std::atomic<int> seen{0};
  std::atomic<bool> fired{false};
};

State& state() {
  static State* const shared =
      new (mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) State;
  return *shared;
}

// The program itself never becomes another one: its tests would end there, with that one's status.
const pid_t g_self = getpid();

thread_local bool t_spared = false;
std::atomic<int> g_blocks{0};
std::atomic<int> g_bad_closes{0};
std::atomic<int> g_inherited{0};
std::atomic<pthread_t*> g_kept{nullptr};

// Whether the armed fault hits this call; errno is set if so.
bool hit(std::string_view call) {
  State& shared = state();
  if (t_spared || !shared.armed.load(std::memory_order_acquire)) return false;
  if (shared.fault.call != call) return false;
  const int seen = ++shared.seen;
  if (seen < shared.fault.nth) return false;
  if (seen > shared.fault.nth && shared.fault.how != shim::kFailAlways) return false;
  shared.fired = true;
  errno = shared.fault.error;
  return true;
}

// A new descriptor, which a program started at any moment must not get.
int check_fd(int fd) {
  g_inherited += fd >= 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0;
  return fd;
}

template <typename Real>
ssize_t transfer(std::string_view call, size_t size, Real real) {
  if (!hit(call)) return real(size);
  if (state().fault.how == shim::kShort) return real(size / 2);
  return state().fault.how == shim::kNothing ? 0 : -1;
}

void* add_block(void* block) {
  g_blocks += block != nullptr;
  return block;
}

} // namespace

// Weak, because no libc has all the names that a function can go by.
#define WRAP(result, name, parameters)                              \
  extern "C" result __real_##name parameters __attribute__((weak)); \
  extern "C" result __wrap_##name parameters

// A function that fails with one fixed result.
#define WRAP_PLAIN(call, failure, result, name, parameters, arguments) \
  WRAP(result, name, parameters) { return hit(call) ? failure : __real_##name arguments; }

WRAP(void*, malloc, (size_t size)) { return hit("malloc") ? nullptr : add_block(__real_malloc(size)); }
WRAP(void*, calloc, (size_t count, size_t size)) {
  return hit("malloc") ? nullptr : add_block(__real_calloc(count, size));
}
WRAP(void*, memalign, (size_t alignment, size_t size)) {
  return hit("memalign") ? nullptr : add_block(__real_memalign(alignment, size));
}
WRAP(int, posix_memalign, (void** block, size_t alignment, size_t size)) {
  if (hit("posix_memalign")) return errno;
  const int error = __real_posix_memalign(block, alignment, size);
  if (error == 0) add_block(*block);
  return error;
}
WRAP(char*, strdup, (const char* text)) {
  char* const copy = hit("strdup") ? nullptr : __real_strdup(text);
  add_block(copy);
  return copy;
}
WRAP(void, free, (void* block)) {
  g_blocks -= block != nullptr;
  __real_free(block);
}

#define WRAP_OPEN(name)                                                    \
  WRAP(int, name, (const char* path, int flags, ...)) {                    \
    va_list args;                                                          \
    va_start(args, flags);                                                 \
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0; \
    va_end(args);                                                          \
    return hit("open") ? -1 : check_fd(__real_##name(path, flags, mode));  \
  }
WRAP_OPEN(open)
WRAP_OPEN(open64)

// The library's commands have an int behind them, or nothing.
#define WRAP_FCNTL(name)                                             \
  WRAP(int, name, (int fd, int command, ...)) {                      \
    va_list args;                                                    \
    va_start(args, command);                                         \
    const int argument = command == F_GETFL ? 0 : va_arg(args, int); \
    va_end(args);                                                    \
    if (command == F_GETFL && hit("F_GETFL")) return -1;             \
    if (command == F_SETFL && hit("F_SETFL")) return -1;             \
    return __real_##name(fd, command, argument);                     \
  }
WRAP_FCNTL(fcntl)
WRAP_FCNTL(fcntl64)
WRAP_FCNTL(__fcntl_time64)

#define NAMED(request) \
  { request, #request }
constexpr struct {
  unsigned long request;
  const char* name;
} kRequests[] = {NAMED(SIOCGIFINDEX),  NAMED(SIOCGIFFLAGS), NAMED(SIOCSIFFLAGS),
                 NAMED(SIOCGIFHWADDR), NAMED(SIOCETHTOOL),  NAMED(SIOCBRADDIF)};

bool hit_ioctl(unsigned long request) {
  return std::ranges::any_of(kRequests, [request](const auto& row) {
    return row.request == (request & UINT32_MAX) && hit(row.name);
  });
}

// musl has a signed request here. The callers of either pass a register's worth.
#define WRAP_IOCTL(name)                                                   \
  WRAP(int, name, (int fd, unsigned long request, void* argument)) {       \
    return hit_ioctl(request) ? -1 : __real_##name(fd, request, argument); \
  }
WRAP_IOCTL(ioctl)
WRAP_IOCTL(__ioctl_time64)

#define WRAP_STAT(name) \
  WRAP_PLAIN("stat", -1, int, name, (const char* path, struct stat* status), (path, status))
WRAP_STAT(stat)
WRAP_STAT(stat64)
WRAP_STAT(__stat64_time64)

WRAP(ssize_t, read, (int fd, void* buffer, size_t size)) {
  return transfer("read", size, [=](size_t room) { return __real_read(fd, buffer, room); });
}
// What is printed on standard error is how a row learns of the failures.
WRAP(ssize_t, write, (int fd, const void* buffer, size_t size)) {
  if (fd == STDERR_FILENO) return __real_write(fd, buffer, size);
  return transfer("write", size, [=](size_t count) { return __real_write(fd, buffer, count); });
}
WRAP(int, close, (int fd)) {
  const int result = __real_close(fd);
  if (result != 0 && errno == EBADF) g_bad_closes++;
  return result;
}
WRAP_PLAIN("fsync", -1, int, fsync, (int fd), (fd))
WRAP_PLAIN("lseek", -1, off_t, lseek, (int fd, off_t to, int from), (fd, to, from))
WRAP_PLAIN("lseek", -1, off_t, lseek64, (int fd, off_t to, int from), (fd, to, from))
WRAP_PLAIN("ftruncate", -1, int, ftruncate, (int fd, off_t size), (fd, size))
WRAP_PLAIN("ftruncate", -1, int, ftruncate64, (int fd, off_t size), (fd, size))

using Compare = int (*)(const void*, const void*);
WRAP_PLAIN("tsearch", nullptr, void*, tsearch, (const void* key, void** root, Compare compare),
           (key, root, compare))

WRAP_PLAIN("fork", -1, pid_t, fork, (), ())
WRAP(int, execv, (const char* path, char* const arguments[])) {
  if (getpid() == g_self) abort();
  return hit("execv") ? -1 : __real_execv(path, arguments);
}
// Under the streams' lock, so that no other thread's child gets the ends of its pipe.
WRAP(FILE*, popen, (const char* command, const char* mode)) {
  if (pthread_mutex_trylock(&qn::g_standard_streams_lock) == 0) abort();
  return hit("popen") ? nullptr : __real_popen(command, mode);
}

WRAP_PLAIN("kill", -1, int, kill, (pid_t pid, int number), (pid, number))
WRAP_PLAIN("unlink", -1, int, unlink, (const char* path), (path))
WRAP_PLAIN("access", -1, int, access, (const char* path, int mode), (path, mode))
WRAP_PLAIN("dup2", -1, int, dup2, (int from, int to), (from, to))
WRAP_PLAIN("pipe2", -1, int, pipe2, (int* ends, int flags), (ends, flags))
WRAP_PLAIN("opendir", nullptr, DIR*, opendir, (const char* path), (path))
WRAP_PLAIN("readdir", nullptr, dirent*, readdir, (DIR * directory), (directory))
WRAP_PLAIN("readdir", nullptr, dirent*, readdir64, (DIR * directory), (directory))
WRAP_PLAIN("fopen", nullptr, FILE*, fopen, (const char* path, const char* mode), (path, mode))
WRAP_PLAIN("fopen", nullptr, FILE*, fopen64, (const char* path, const char* mode), (path, mode))

// Goes on as execvp(), which takes its arguments as a vector.
extern "C" int __wrap_execlp(const char* file, const char* first, ...) {
  if (hit("execlp")) return -1;
  std::vector<char*> arguments;
  va_list args;
  va_start(args, first);
  for (const char* text = first; text != nullptr; text = va_arg(args, const char*))
    arguments.push_back(const_cast<char*>(text));
  va_end(args);
  arguments.push_back(nullptr);
  return execvp(file, arguments.data());
}

// An error other than EINTR comes as if somebody else had waited for the child.
WRAP(pid_t, waitpid, (pid_t child, int* status, int options)) {
  if (!hit("waitpid")) return __real_waitpid(child, status, options);
  const int error = errno;
  if (error != EINTR) __real_waitpid(child, status, options);
  errno = error;
  return -1;
}

#define WRAP_SETSOCKOPT(name)                                                    \
  WRAP_PLAIN("setsockopt", -1, int, name,                                        \
             (int fd, int level, int option, const void* value, socklen_t size), \
             (fd, level, option, value, size))
WRAP_SETSOCKOPT(setsockopt)
WRAP_SETSOCKOPT(__setsockopt64)
WRAP(int, socket, (int domain, int type, int protocol)) {
  return hit("socket") ? -1 : check_fd(__real_socket(domain, type, protocol));
}
WRAP_PLAIN("bind", -1, int, bind, (int fd, const sockaddr* to, socklen_t size), (fd, to, size))
WRAP_PLAIN("listen", -1, int, listen, (int fd, int backlog), (fd, backlog))
WRAP_PLAIN("connect", -1, int, connect, (int fd, const sockaddr* to, socklen_t size), (fd, to, size))
WRAP_PLAIN("accept", -1, int, accept, (int fd, sockaddr* peer, socklen_t* size), (fd, peer, size))

WRAP_PLAIN("epoll_create1", -1, int, epoll_create1, (int flags), (flags))
WRAP_PLAIN("epoll_wait", -1, int, epoll_wait, (int epfd, epoll_event* events, int count, int timeout_ms),
           (epfd, events, count, timeout_ms))
WRAP(int, epoll_ctl, (int epfd, int command, int fd, epoll_event* event)) {
  if (command == EPOLL_CTL_ADD && hit("EPOLL_CTL_ADD")) return -1;
  if (command == EPOLL_CTL_MOD && hit("EPOLL_CTL_MOD")) return -1;
  return __real_epoll_ctl(epfd, command, fd, event);
}

using Attributes = pthread_attr_t*;
WRAP_PLAIN("pthread_attr_init", errno, int, pthread_attr_init, (Attributes attributes), (attributes))
WRAP_PLAIN("pthread_attr_setstacksize", errno, int, pthread_attr_setstacksize,
           (Attributes attributes, size_t size), (attributes, size))
WRAP(int, pthread_attr_destroy, (Attributes attributes)) {
  const int result = __real_pthread_attr_destroy(attributes);
  return hit("pthread_attr_destroy") ? errno : result;
}

using Routine = void* (*)(void*);
WRAP_PLAIN("pthread_create", errno, int, pthread_create,
           (pthread_t * thread, const pthread_attr_t* how, Routine routine, void* argument),
           (thread, how, routine, argument))
WRAP(int, pthread_detach, (pthread_t thread)) {
  pthread_t* const kept = g_kept.exchange(nullptr);
  if (kept == nullptr) return __real_pthread_detach(thread);
  *kept = thread;
  return 0;
}

namespace shim {

void arm(const Fault& fault) {
  State& shared = state();
  shared.fault = fault;
  shared.seen = 0;
  shared.fired = false;
  shared.armed.store(true, std::memory_order_release);
}

void disarm() { state().armed = false; }

bool fired() { return state().fired; }

void spare(bool on) { t_spared = on; }

void keep_detached(pthread_t* thread) { g_kept = thread; }

std::map<std::string_view, int> tally() {
  return {{"heap blocks", g_blocks}, {"bad closes", g_bad_closes}, {"inherited", g_inherited}};
}

} // namespace shim
