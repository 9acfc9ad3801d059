// Commands, files, threads and sockets.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillcore/socket.h>
#include <quillcore/thread.h>
#include <quillcore/utility.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "faults/table.h"
#include "platform/guards.h"
#include "support/temp_dir.h"

namespace {

using namespace shim;

// Gets a path in a folder of its own, where nothing is yet.
struct OnPath : Operation {
  OnPath(int64_t (*made)(const char* path), const Outcome& outcome) : call(made) {
    undisturbed = outcome;
  }
  int64_t run() override { return call(dir.file("file").c_str()); }

  TempDir dir;
  int64_t (*call)(const char* path);
};

Make on(int64_t (*call)(const char* path), const Outcome& undisturbed = {}) {
  return make<OnPath>(call, undisturbed);
}

// 1 when the command has run, 0 when it has not though the call gave 0.
int64_t has_run(int32_t result, const char* path) {
  return result == 0 ? std::filesystem::exists(path) : result;
}

int64_t exec_cmd(const char* path) {
  return has_run(qn_os_exec_cmd((std::string(": >") + path).c_str()), path);
}

int64_t exec_vcmd(const char* path) { return has_run(qn_os_exec_vcmd(": >%s", path), path); }

int64_t init_dir(const char*) { return qn_init_dir(); }

// The length of the output, which begins as a text of nine bytes.
int64_t read_output(const char*) {
  char output[64] = "untouched";
  const int32_t result = qn_os_exec_cmd_and_read_output("printf 'one\\ntwo\\n'", output, sizeof(output));
  return result == 0 ? static_cast<int64_t>(std::string(output).size()) : result;
}

int64_t read_value(const char* path) {
  write_file(path, "mode=ap\n");
  char value[64] = "untouched";
  const int32_t result = qn_os_read_value_by_key_from_file(path, "mode", "=", value, sizeof(value));
  if (result == 0) EXPECT_STREQ("ap", value);
  return result;
}

int64_t is_exist(const char*) { return qn_file_is_exist("/"); }
int64_t is_modified(const char*) { return qn_file_is_modified("/", -1); }
int64_t has_mtime(const char*) { return qn_file_get_last_mtime("/proc/self") != 0; }

int64_t start_thread(const char*) {
  pthread_t thread;
  bool ran = false;
  const auto routine = [](void* arg) {
    *static_cast<bool*>(arg) = true;
    return arg;
  };
  const int32_t result = qn_pthread_new(&thread, routine, &ran);
  if (result == 0) pthread_join(thread, nullptr);
  EXPECT_EQ(result == 0, ran);
  return result;
}

int64_t safe_read(const char*) {
  int fds[2] = {-1, -1};
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
  const qn::UniqueFd end(fds[0]), other_end(fds[1]);
  send(fds[1], "hello", 5, 0);
  char buffer[64];
  uint32_t bytes_read = 77;
  const int32_t result = qn_sock_safe_read(fds[0], buffer, sizeof(buffer), &bytes_read);
  EXPECT_EQ(result == 0 ? 5u : 77u, bytes_read);
  return result;
}

int64_t set_nonblock(const char*) {
  const qn::UniqueFd fd(eventfd(0, EFD_CLOEXEC));
  const int32_t result = qn_sock_set_nonblock(fd.get());
  disarm();
  EXPECT_EQ(result == 0, (fcntl(fd.get(), F_GETFL) & O_NONBLOCK) != 0);
  return result;
}

template <int32_t (*set)(int32_t fd, uint32_t seconds, uint32_t microseconds)>
int64_t set_timeout(const char*) {
  const qn::UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  return set(fd.get(), 1, 2);
}

// What a call hands out is close-on-exec, or nothing at all.
template <typename Call>
int64_t make_socket(Call call) {
  int32_t fd = -7;
  const int32_t result = call(&fd);
  EXPECT_EQ(result != 0, fd == -7);
  if (result != 0) return result;
  EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
  close(fd);
  return 0;
}

int64_t serve(const char* path) {
  return make_socket([=](int32_t* fd) { return qn_sock_create_unix_socket_server(path, 4, fd); });
}

int64_t connect_alone(const char* path) {
  return make_socket([=](int32_t* fd) { return qn_sock_connect_unix_socket_server(path, fd); });
}

int64_t connect_to_server(const char* path) {
  int32_t listener = -1;
  spare(true);
  qn_sock_create_unix_socket_server(path, 4, &listener);
  spare(false);
  const qn::UniqueFd owner(listener);
  return connect_alone(path);
}

} // namespace

std::vector<Row> utils_rows() {
  const Make cmd = on(exec_cmd, {1}), vcmd = on(exec_vcmd, {1}), dirs = on(init_dir);
  const Make output = on(read_output, {8}), value = on(read_value), thread = on(start_thread);
  const Make reading = on(safe_read), nonblock = on(set_nonblock);
  const Make send_timeout = on(set_timeout<qn_sock_set_fd_send_timeout>);
  const Make recv_timeout = on(set_timeout<qn_sock_set_fd_recv_timeout>);
  const Make server = on(serve), client = on(connect_to_server);
  const Make alone = on(connect_alone, {-1, {549}, ENOENT});
  return {
      {"exec_cmd", cmd, "fork", EAGAIN, {{-1}}},
      {"exec_cmd", cmd, "execv", ENOENT, {{0}}}, // the child's exit status is not looked at
      {"exec_cmd", cmd, "waitpid", EINTR, {{1}}},
      {"exec_cmd", cmd, "waitpid", ECHILD, {{-1, {611}}}},
      {"exec_vcmd", vcmd, "fork", ENOMEM, {{-1, {614}}}},
      {"exec_vcmd", vcmd, "execv", EACCES, {{0}}},
      {"exec_vcmd", vcmd, "waitpid", ECHILD, {{-1, {611, 614}}}},
      // Its folders are fixed ones, so that nothing may run.
      {"init_dir", dirs, "fork", EAGAIN, {{-1, {614, 614}}}, kFailAlways, kUntried},
      {"init_dir", dirs, "execv", ENOENT, {{0}}, kFailAlways, kUntried},
      {"read_output", output, "popen", EMFILE, {{-1, {4140}}}},
      {"read_output", output, "read", EIO, {{9}, {8}}},
      {"read_output", output, "read", EINTR, {{8}, {8}}},
      {"read_value", value, "popen", EMFILE, {{-1, {4142}}}},
      {"read_value", value, "read", EIO, {{-1, {4143}}, {-1, {4143}}}},
      {"read_value", value, "read", EINTR, {{0}, {0}}},
      {"is_exist", on(is_exist, {1}), "stat", EACCES, {{0}}},
      {"is_modified", on(is_modified, {1}), "stat", EACCES, {{0}}},
      {"get_last_mtime", on(has_mtime, {1}), "stat", EACCES, {{0}}},
      {"pthread_new", thread, "pthread_attr_init", ENOMEM, {{0, {603}}}},
      {"pthread_new", thread, "pthread_attr_setstacksize", EINVAL, {{0, {604}}}},
      {"pthread_new", thread, "pthread_create", EAGAIN, {{-1, {605}}}},
      {"pthread_new", thread, "pthread_attr_destroy", EINVAL, {{0, {606}}}},
      {"safe_read", reading, "read", EIO, {{-1}, {0}}},
      {"safe_read", reading, "read", 0, {{-1}, {0}}, kNothing},
      {"set_nonblock", nonblock, "F_GETFL", EBADF, {{-1, {534}}}},
      {"set_nonblock", nonblock, "F_SETFL", EPERM, {{-1, {535}}}},
      {"send_timeout", send_timeout, "setsockopt", EDOM, {{-1, {551}}}},
      {"recv_timeout", recv_timeout, "setsockopt", EDOM, {{-1, {552}}}},
      {"server", server, "socket", EMFILE, {{-1, {540}}}},
      {"server", server, "setsockopt", EINVAL, {{0}, {0}}},
      {"server", server, "bind", EADDRINUSE, {{-1, {541}}}},
      {"server", server, "listen", EADDRINUSE, {{-1, {542}}}},
      {"client", client, "socket", ENFILE, {{-1, {548}}}},
      {"client", client, "connect", ECONNREFUSED, {{-1, {549}}}},
      {"client", client, "connect", ENOENT, {{0}}}, // the second attempt succeeds
      // Without a server the second attempt's error is not the one that is named.
      {"client_alone", alone, "connect", EACCES, {{-1, {549}}, {-1, {549}, ENOENT}}},
  };
}
