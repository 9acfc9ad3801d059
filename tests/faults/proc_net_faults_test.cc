// Daemons, children, pid files, random keys, interfaces and the log's files, on a system of their own:
// see make_own_system().
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillcore/interface.h>
#include <quillcore/process.h>
#include <quillcore/utility.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "core/log.h"
#include "faults/table.h"
#include "log/permission.h"
#include "platform/guards.h"
#include "support/main.h"
#include "support/temp_dir.h"

namespace {

using namespace shim;

constexpr char kPidFile[] = "/tmp/quillnet/x.pid";
constexpr int32_t kUntouched = -7;

std::string pid_bytes(int32_t pid) { return {reinterpret_cast<const char*>(&pid), sizeof(pid)}; }

struct Call : Operation {
  Call(int64_t (*made)(), const Outcome& outcome) : call(made) { undisturbed = outcome; }
  // What the interface functions print on standard output is read like their records.
  int64_t run() override {
    fflush(nullptr);
    const qn::UniqueFd kept(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
    dup3(STDERR_FILENO, STDOUT_FILENO, 0);
    errno = 0;
    const int64_t result = call();
    fflush(stdout);
    dup3(kept.get(), STDOUT_FILENO, 0);
    return result;
  }

  int64_t (*call)();
};

Make on(int64_t (*call)(), const Outcome& undisturbed = {}) { return make<Call>(call, undisturbed); }

// The exit status of the child, or the signal that ended it, negated. The fault stays armed in the child.
int64_t ended(int32_t pid) {
  spare(true);
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  spare(false);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// --- processes ---

qn_child_proc_t child_record(int32_t (*entry)(void*)) {
  return {entry, "worker", {}, kUntouched, kUntouched, kUntouched};
}

int32_t leave(void*) { _exit(7); }

int32_t stay(void*) {
  for (;;) pause();
}

int64_t start_child() {
  qn_child_proc_t child = child_record(leave);
  const int32_t result = qn_proc_child_start(&child);
  for (const int32_t left : {child.pid, child.read_fd, child.write_fd})
    EXPECT_EQ(result != 0, left == kUntouched);
  if (result != 0) return result;
  close(child.read_fd);
  close(child.write_fd);
  return ended(child.pid);
}

// How the child ended, provided that the stop succeeded.
template <auto entry>
int64_t stop_child() {
  qn_child_proc_t child = child_record(entry);
  spare(true);
  EXPECT_EQ(0, qn_proc_child_start(&child));
  spare(false);
  EXPECT_EQ(0, qn_proc_child_stop(&child));
  return ended(child.pid);
}

int64_t start_program() {
  char name[] = "true";
  char* const arguments[] = {name, nullptr};
  int32_t pid = kUntouched;
  const int32_t result = qn_proc_child_start_exec("name", "/bin/true", arguments, &pid);
  EXPECT_EQ(result != 0, pid == kUntouched);
  return result == 0 ? ended(pid) : result;
}

// Neither process 1, which may be our own, nor a group of processes.
int64_t stop_low_pids() {
  int64_t sum = 0;
  for (const int32_t pid : {1, 0, -1, INT32_MIN}) sum += qn_proc_child_stop_exec("path", "name", pid);
  return sum;
}
int64_t stop_pid_2() { return qn_proc_child_stop_exec("path", "name", 2); }

// Only the child's process goes on as a daemon; what it says comes through a pipe.
int64_t daemonise() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(0, pipe(ends));
  spare(true);
  const pid_t starter = fork();
  spare(false);
  if (starter == 0) {
    const std::set<int> before = open_descriptors();
    const char answer = qn_daemon() == 0 && open_descriptors() == before ? 'y' : 'n';
    _exit(write(ends[1], &answer, 1) == 1 ? 0 : 1);
  }
  close(ends[1]);
  EXPECT_EQ(0, ended(starter));
  char answer = '-';
  const ssize_t got = read(ends[0], &answer, 1);
  close(ends[0]);
  return got == 1 && answer == 'y' ? 0 : kUntouched;
}

// The pid file afterwards is one of these; which, goes into the result.
constexpr int64_t kUnchanged = 100;
constexpr int64_t kGone = 200;

template <bool own>
int64_t take_pid_file() {
  const std::string before = pid_bytes(own ? getpid() : 0);
  write_file(kPidFile, before);
  const int32_t result = qn_proc_check_or_create_pidfile("x.pid");
  disarm();
  if (!std::filesystem::exists(kPidFile)) return kGone + result;
  const std::string after = read_file(kPidFile);
  if (result == 0) EXPECT_EQ(pid_bytes(getpid()), after);
  return result == 0 ? 0 : (after == before ? kUnchanged : 0) + result;
}

// The length of the key; a key of less than four characters leaves nothing behind.
int64_t random_key() {
  char key[5] = {'#', '#', '#', '#', '#'};
  qn_generate_random_key(key, 4);
  const int64_t length = static_cast<int64_t>(strnlen(key, 5));
  if (length < 4) EXPECT_EQ(5, std::count(key, key + 5, '\0'));
  return length;
}

int64_t random_number() {
  spare(true);
  const qn::UniqueFd fd(qn_random_open());
  spare(false);
  return qn_random_get_num(fd.get());
}

// --- interfaces ---

int64_t hardware_address() {
  uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
  const int32_t result = qn_utils_get_intf_mac_addr("left0", mac);
  EXPECT_EQ(result != 0, std::count(mac, mac + 6, 9) == 6);
  return result;
}

// How many ends are up, or the result of a failed call.
int64_t make_pair() {
  EXPECT_EQ(0, system("ip link del made0 2>/dev/null; :"));
  const int32_t result = QnIntfCreateVEthPair("made0", "made1");
  disarm();
  return result == 0 ? int64_t{QnIntfIsUp("made0")} + QnIntfIsUp("made1") : result;
}

int64_t read_counters() {
  qn_intf_eth_metric_t metric;
  QnIntfGetEthMetric("port0", &metric);
  return static_cast<int64_t>(metric.rx_packets + metric.rx_errors + metric.tx_packets +
                              metric.tx_errors + metric.rx_bytes + metric.tx_bytes);
}

int64_t port_name() {
  char name[16] = "untouched";
  const int32_t result = QnIntfGetNameByPortNo("bridge0", 10, name, sizeof(name));
  EXPECT_STREQ(result == 0 ? "port0" : "untouched", name);
  return result;
}

// --- the log ---

const std::string kLive = "/tmp/quillnet/log/relay_0.log.txt";
constexpr uint32_t kRelay = 5;

size_t size_of(const std::string& path) { return read_file(path).size(); }

// What is in the live file of one record of 10 bytes and in the error file, and whether the next one gets
// there too.
struct Write : Operation {
  explicit Write(size_t filled = 0) {
    log = qn_log_local_new(0, kRelay, 0);
    const std::string before(filled, 'b');
    if (filled != 0) put(QN_LOG_I, before);
    undisturbed = {1010};
  }
  ~Write() override { qn_log_free(log); }

  void put(uint32_t level, const std::string& line) {
    EXPECT_EQ(0, log->local_writer->write(log, level, line.c_str(), line.size()));
  }
  int64_t run() override {
    put(QN_LOG_G, "a record.\n");
    disarm();
    return static_cast<int64_t>(size_of(kLive) * 100 +
                                size_of("/tmp/quillnet/log/relay_error_0.log.txt"));
  }
  void check(const Outcome&) override {
    const size_t before = size_of(kLive);
    put(QN_LOG_I, "the next.\n");
    EXPECT_EQ(before + 10, size_of(kLive));
  }

  qn_log_t* log;
};

// Whether there is an instance.
int64_t make_instance() {
  qn_log_t* const log = qn_log_local_new(0, kRelay, 0);
  qn_log_free(log);
  return log != nullptr;
}

// Those that stand are replaced, or gone: ten times the result, and one if the switches are gone.
int64_t load_permissions() {
  spare(true);
  EXPECT_EQ(0, qn_log_permit_init());
  spare(false);
  const int32_t result = qn_log_permit_init() * 10 + (qn::permission_maps().user_configs == nullptr);
  disarm();
  if (result != 0) EXPECT_FALSE(qn_log_is_permitted("hubd", 1, "b", QN_LOG_W));
  qn_log_permit_free();
  return result;
}

} // namespace

// A folder for pid files; devices that are plain files; a pair of interfaces that are up, in a network of
// their own; and under /sys/class/net a bridge and a port that the kernel does not know.
void make_own_system() {
  using std::filesystem::create_directories;
  create_directories("/tmp/quillnet");
  ASSERT_EQ(0, unshare(CLONE_NEWNET));
  ASSERT_EQ(0, mount("tmpfs", "/dev", "tmpfs", 0, nullptr));
  write_file("/dev/console", "");
  write_file("/dev/null", "");
  write_file("/dev/random", "sixteen bytes...");
  ASSERT_EQ(0, mount("tmpfs", "/sys/class/net", "tmpfs", 0, nullptr));
  ASSERT_EQ(0, QnIntfCreateVEthPair("left0", "right0"));

  const std::string port = "/sys/class/net/port0/", bridge = "/sys/class/net/bridge0/";
  for (const char* folder : {"statistics", "brport"}) create_directories(port + folder);
  create_directories(bridge + "bridge");
  create_directories(bridge + "brif/port0");
  write_file(port + "carrier", "1\n");
  write_file(port + "operstate", "dormant\n");
  write_file(port + "speed", "1000\n");
  write_file(port + "brport/port_no", "0xa\n");
  write_file(bridge + "brif/port0/port_no", "0xa\n");
  int value = 1;
  for (const char* file :
       {"rx_packets", "rx_errors", "tx_packets", "tx_errors", "rx_bytes", "tx_bytes"}) {
    write_file(port + "statistics/" + file, std::to_string(value) + "\n");
    value *= 2;
  }
}

// One outcome for each heap block: of the map, its rows, the map of switches and its rows.
std::vector<Outcome> permission_blocks() {
  std::vector<Outcome> outcomes(1 + 16 + 1 + 6, {0, {524, 0}});
  outcomes[0].result = -10;
  outcomes[17].result = -9;
  return outcomes;
}

std::vector<Row> proc_net_rows() {
  const Make start = on(start_child, {7}), stop = on(stop_child<leave>, {7}), program = on(start_program);
  const Make daemon = on(daemonise),
             own = on(take_pid_file<true>, {kUnchanged + QN_PROC_ALIVE, {599, 600}});
  const Make stale = on(take_pid_file<false>, {0, {602}});
  const Make key = on(random_key, {4}), mac = on(hardware_address);
  const Make pair = on(make_pair, {2});
  const Make join = on([]() -> int64_t { return QnIntfAddIfToBridge("right0", "left0"); }, {-1});
  const Make exists = on([]() -> int64_t { return QnIntfIsExist("left0"); }, {1});
  const Make up = on([]() -> int64_t { return QnIntfIsUp("left0"); }, {1});
  const Make index = on([]() -> int64_t { return QnIntfNameToIndex("left0") > 0; }, {1});
  const Make veth = on([]() -> int64_t { return QnIntfIsVEthDev("left0"); }, {1});
  const Make power = on([]() -> int64_t { return QnIntfGetPowerState("port0"); }, {QN_INTF_POWER_ON});
  const Make state = on([]() -> int64_t { return QnIntfGetOperState("port0"); }, {QN_INTF_OPER_DORMANT});
  const Make speed = on([]() -> int64_t { return QnIntfGetSpeed("port0"); }, {1000});
  const Make port = on([]() -> int64_t { return QnIntfGetPortIndex("port0"); }, {9});
  const Make counters = on(read_counters, {63}), name = on(port_name);
  const Make check = on([]() -> int64_t { return qn_cheack_intf_is_exist("port0"); }, {1});
  const Make on_bridge = on([]() -> int64_t { return QnIntfIsOnBridge("bridge0", "port0"); }, {1});
  const Make bridge = on([]() -> int64_t { return QnBridgeIsExist("bridge0"); }, {1});
  const Make number = on(random_number, {0x74786973}); // "sixt"
  const Make record = make<Write>(), rotation = make<Write>(size_t{65530});
  const Make instance = on(make_instance, {1}), permissions = on(load_permissions);
  const std::vector<Outcome> one_counter_less = {{62}, {61}, {59}, {55}, {47}, {31}};
  const char* const no_socket = "Failed to create socket, errno=24\n";
  const char* const no_ip = "Child process work failed, errno=";
  return {
      {"child_start", start, "pipe2", EMFILE, {{-1, {0}}, {-1, {0}}}},
      {"child_start", start, "F_SETFL", EPERM, {{-1, {0}}, {-1, {0}}}},
      {"child_start", start, "fork", EAGAIN, {{-1, {588}}}},
      {"child_stop", stop, "write", EAGAIN, {{7}}},
      {"child_stop", stop, "read", EINTR, {{7}}}, // it goes on waiting
      {"child_stop_staying", on(stop_child<stay>), "read", EIO, {{-SIGTERM}}, kFail, kUntried},
      {"child_stop", stop, "kill", ESRCH, {{7}}},
      {"start_exec", program, "fork", ENOMEM, {{-1, {592}}}},
      {"start_exec", program, "execv", ENOENT, {{255}}}, // it shows in the child's status only
      {"stop_exec_low", on(stop_low_pids), "kill", EPERM, {}, kFailAlways}, // nobody is signalled
      {"stop_exec_2", on(stop_pid_2), "kill", EPERM, {{0}}, kFail, kUntried},
      {"daemon", daemon, "fork", EAGAIN, {{kUntouched}, {kUntouched}}},
      {"daemon", daemon, "open", ENXIO, {{0, {}, 0, "open(\"/dev/console\") failed. errno=(6,"}}},
      {"daemon", daemon, "dup2", EBUSY, {{0, {}, 0, "dup2(STDERR_FILENO) failed. errno=(16,"}}},
      {"stale_pid_file", stale, "stat", EACCES, {{0}}}, // as if there were none
      {"stale_pid_file", stale, "open", EACCES, {{kUnchanged - 1, {598}}, {kUnchanged - 1, {602, 595}}}},
      {"stale_pid_file", stale, "write", ENOSPC, {{kGone - 1, {602, 596}}}},
      {"stale_pid_file", stale, "write", 0, {{kGone - 1, {602, 596}}}, kShort},
      {"own_pid_file", own, "read", EIO, {{0, {602}}}},
      {"own_pid_file", own, "read", 0, {{0, {602}}}, kShort},
      {"own_pid_file", own, "kill", EPERM, {{0, {602}}}},
      {"random_key", key, "open", ENOENT, {{0}}},
      {"random_key", key, "read", EIO, {{0}, {0}, {0}, {0}}},
      {"random_key", key, "read", EINTR, {{4}, {4}, {4}, {4}}},
      {"random_key", key, "read", 0, {{0}, {0}, {0}, {0}}, kShort},
      {"random_number", number, "read", EBADF, {{0}}},
      {"mac_addr", mac, "socket", EMFILE, {{-1}}},
      {"mac_addr", mac, "SIOCGIFHWADDR", ENODEV, {{-1}}},
      {"make_pair", pair, "fork", EAGAIN, {{-1, {}, 0, "Failed to fork new process, errno=11\n"}}},
      {"make_pair", pair, "execlp", ENOENT, {{-1, {}, 0, no_ip}}},
      {"make_pair", pair, "waitpid", EINTR, {{2}}},
      {"make_pair", pair, "waitpid", ECHILD, {{-1, {}, 0, no_ip}}},
      {"make_pair", pair, "socket", EMFILE, {{1, {}, 0, no_socket}, {1, {}, 0, no_socket}}},
      {"make_pair", pair, "SIOCGIFFLAGS", ENODEV, {{1, {}, 0, "device made0 flags, errno:19\n"}, {1}}},
      {"make_pair", pair, "SIOCSIFFLAGS", EPERM, {{1, {}, 0, "tap device made0 flags, errno:1\n"}, {1}}},
      {"join_bridge", join, "socket", EMFILE, {{-1, {}, 0, "Create socket failed, errno=24.\n"}, {-1}}},
      {"join_bridge", join, "SIOCGIFINDEX", ENODEV, {{-1}}},
      {"join_bridge", join, "SIOCBRADDIF", EBUSY, {{0}}}, // a port already
      {"join_bridge", join, "SIOCBRADDIF", EPERM, {{-1, {}, 0, "bridge right0 failed, errno=1.\n"}}},
      {"is_exist", exists, "socket", EMFILE, {{0}}},
      {"is_exist", exists, "SIOCGIFINDEX", EIO, {{0}}},
      {"is_up", up, "SIOCGIFFLAGS", EIO, {{0}}},
      {"index", index, "SIOCGIFINDEX", EIO, {{0}}},
      {"is_veth", veth, "socket", EMFILE, {{0, {}, 0, no_socket}}},
      {"is_veth", veth, "SIOCETHTOOL", EOPNOTSUPP, {{0}}},
      {"power", power, "open", EACCES, {{2, {528}, 0, "carrier error. errno=13\n"}}},
      {"power", power, "F_GETFL", EBADF, {{2, {529}, 0, "F_GETFL. errno=9\n"}}},
      {"power", power, "F_SETFL", EPERM, {{2, {530}, 0, "F_SETFL. errno=1\n"}}},
      {"power", power, "read", 0, {{2, {531}, 0, "carrier error. errno=0\n"}}, kNothing},
      {"power", power, "read", EINVAL, {{2, {}, 0, "carrier state=\n"}}},
      {"state", state, "open", ENOENT, {{QN_INTF_OPER_NOT_PRESENT}}},
      {"state", state, "read", EIO, {{QN_INTF_OPER_TESTING}}},
      {"speed", speed, "open", EMFILE, {{0}}},
      {"counters", counters, "open", EMFILE, one_counter_less},
      {"counters", counters, "read", 0, one_counter_less, kNothing},
      {"port_index", port, "fopen", EMFILE, {{-1}}},
      // The first two entries are "." and "..", which are passed over in any case.
      {"port_name", name, "opendir", EMFILE, {{-1}}},
      {"port_name", name, "readdir", EBADF, {{-1}, {-1}, {-1}}},
      {"port_name", name, "fopen", EMFILE, {{0}, {0}, {-1}}},
      {"carrier_exists", check, "access", EACCES, {{0}}},
      {"on_bridge", on_bridge, "access", EACCES, {{0}}},
      {"bridge_exists", bridge, "stat", EACCES, {{0}}},
      {"log_instance", instance, "malloc", ENOMEM, {{0, {0}}, {0, {524, 0}}, {0, {0, 0}}, {0, {0, 0}}}},
      {"log_instance", instance, "open", EACCES, {{0, {451, 0, 0}}, {0, {451, 0, 0}}}},
      {"log_permissions", permissions, "malloc", ENOMEM, permission_blocks()},
      {"log_record", record, "write", ENOSPC, {{10}, {1000}}},
      {"log_record", record, "write", 0, {{510}, {1005}}, kShort},
      {"log_record", record, "fsync", EIO, {{1010}, {1010}}}, // once for each file
      {"log_record", record, "stat", EIO, {{1010}, {1010}}},  // as if the name were another file's
      {"log_rotation", rotation, "unlink", EACCES, {{1010}}},
      {"log_rotation", rotation, "open", EMFILE, {{10, {451}}}},
      {"log_rotation", rotation, "stat", EIO, {{1010}, {1010}, {1010}}},
  };
}
