// Questions that sysfs answers, and two that need no system at all.
#include <quillcore/interface.h>
#include <quillcore/utility.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/log_record.h"
#include "net/null_pointer.h"
#include "net/sysfs.h"
#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"

namespace {

using qn::Message;
using qn::or_dash;
using qn::SysfsPath;
using qn::SysfsResult;
using qn::UniqueFd;

constexpr char kModule[] = "link";
constexpr char kPowerState[] = "QnIntfGetPowerState";

constexpr Message kPathTooLong{QN_LOG_E, 527, kModule, kPowerState, "snprintf_s error. intfName=%s"};
constexpr Message kOpenFailed{QN_LOG_D, 528, kModule, kPowerState, "open file=%s error. errno=%d"};
constexpr Message kGetFlagsFailed{QN_LOG_E, 529, kModule, kPowerState,
                                  "Fcntl error for F_GETFL. errno=%d"};
constexpr Message kSetFlagsFailed{QN_LOG_E, 530, kModule, kPowerState,
                                  "Fcntl error for F_SETFL. errno=%d"};
constexpr Message kNothingRead{QN_LOG_D, 531, kModule, kPowerState, "read file=%s error. errno=%d"};
constexpr Message kNoCarrier{QN_LOG_D, 532, kModule, kPowerState, "file=%s state=%s"};
constexpr Message kCheckPathTooLong{QN_LOG_E, 4196, kModule, "qn_cheack_intf_is_exist",
                                    "snprintf_s error. intf_name=%s"};

constexpr size_t kCarrierSize = 4;
constexpr size_t kStateSize = 32;
constexpr size_t kCounterSize = 32;
constexpr size_t kSpeedSize = 64;

// Media type codes of IEEE 1905.1.
constexpr uint32_t kEthernetLast = 0x0001;
constexpr uint32_t kWirelessFirst = 0x0100;
constexpr uint32_t kWirelessLast = 0x0107;

constexpr struct {
  char text[16];
  int32_t code;
} kOperStates[] = {
    {"unknown", QN_INTF_OPER_UP},      {"notpresent", QN_INTF_OPER_NOT_PRESENT},
    {"down", QN_INTF_OPER_DOWN},       {"lowerlayerdown", QN_INTF_OPER_LOWER_LAYER_DOWN},
    {"testing", QN_INTF_OPER_TESTING}, {"dormant", QN_INTF_OPER_DORMANT},
    {"up", QN_INTF_OPER_UP},
};

constexpr struct {
  char file[12];
  uint64_t qn_intf_eth_metric_t::*counter;
} kCounters[] = {
    {"rx_packets", &qn_intf_eth_metric_t::rx_packets}, {"rx_errors", &qn_intf_eth_metric_t::rx_errors},
    {"tx_packets", &qn_intf_eth_metric_t::tx_packets}, {"tx_errors", &qn_intf_eth_metric_t::tx_errors},
    {"rx_bytes", &qn_intf_eth_metric_t::rx_bytes},     {"tx_bytes", &qn_intf_eth_metric_t::tx_bytes},
};

struct DirectoryClose {
  void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryPtr = std::unique_ptr<DIR, DirectoryClose>;

DIR* open_directory(const char* path) {
  const qn::StandardStreamsHeld held;
  return opendir(path);
}

bool exists(const SysfsPath& path) { return path.fits() && access(path.text(), F_OK) == 0; }

// The carrier of a descriptor as a text. False when the file could not be read as such.
bool read_carrier(int fd, const char* path, char (&state)[kCarrierSize]) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return QN_FAIL(false, kGetFlagsFailed, errno);
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return QN_FAIL(false, kSetFlagsFailed, errno);
  // The kernel refuses the read for an interface that is down: an empty state, and not a failure.
  if (read(fd, state, sizeof(state) - 1) != 0) return true;
  QN_LOG(kNothingRead, path, errno);
  return false;
}

int32_t QnIntfGetParameter(const char* intf_name, const char* file, char* value, size_t size) {
  if (intf_name == nullptr || file == nullptr || value == nullptr) {
    qn::print_null_pointer("QnIntfGetParameter", 237);
    return -1;
  }
  const SysfsPath path(intf_name, "%s", file);
  return path.fits() && qn::sysfs_read_line(path.text(), value, size) == SysfsResult::kRead ? 0 : -1;
}

uint64_t read_counter(const char* intf_name, const char* file) {
  char text[kCounterSize];
  const SysfsPath path(intf_name, "statistics/%s", file);
  if (!path.fits() || qn::sysfs_read_line(path.text(), text, sizeof(text)) != SysfsResult::kRead)
    return 0;
  return strtoull(text, nullptr, 10);
}

// The name of the first entry whose port number is the wanted one, or null. The name lies in the entry.
const char* find_port(DIR* directory, const char* bridge_name, uint32_t port_no) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the directory is the caller's own
  while (const dirent* const entry = readdir(directory)) {
    const SysfsPath path(bridge_name, "brif/%s/port_no", entry->d_name);
    unsigned int number = 0;
    if (path.fits() && qn::sysfs_read_hex(path.text(), &number) && number == port_no)
      return entry->d_name;
  }
  return nullptr;
}

} // namespace

uint32_t qn_cheack_intf_is_exist(const char* intf_name) {
  const SysfsPath path(intf_name, "carrier");
  if (!path.fits()) QN_LOG(kCheckPathTooLong, or_dash(intf_name));
  return exists(path) ? 1 : 0;
}

uint32_t QnBridgeIsExist(const char* bridge_name) {
  const SysfsPath path(bridge_name, "bridge");
  struct stat status;
  return path.fits() && stat(path.text(), &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

uint32_t QnIntfIsOnBridge(const char* bridge_name, const char* intf_name) {
  return intf_name != nullptr && exists(SysfsPath(bridge_name, "brif/%s", intf_name)) ? 1 : 0;
}

uint32_t QnIntfIsWireless(uint32_t media_type) {
  return media_type >= kWirelessFirst && media_type <= kWirelessLast ? 1 : 0;
}

uint32_t QnIntfIsEthernet(uint32_t media_type) { return media_type <= kEthernetLast ? 1 : 0; }

int32_t QnIntfGetPowerState(const char* intf_name) {
  const SysfsPath path(intf_name, "carrier");
  if (!path.fits()) return QN_FAIL(QN_INTF_POWER_OFF, kPathTooLong, or_dash(intf_name));
  UniqueFd fd(qn::open_above(path.text(), O_RDONLY));
  if (!fd.valid()) return QN_FAIL(QN_INTF_POWER_OFF, kOpenFailed, path.text(), errno);
  char state[kCarrierSize] = "";
  if (!read_carrier(fd.get(), path.text(), state)) return QN_INTF_POWER_OFF;
  fd.reset();
  if (atoi(state) != 0) return QN_INTF_POWER_ON;
  QN_LOG(kNoCarrier, path.text(), state);
  return QN_INTF_POWER_OFF;
}

int32_t QnIntfGetOperState(const char* intf_name) {
  const SysfsPath path(intf_name, "operstate");
  if (!path.fits()) return QN_INTF_OPER_TESTING;
  char text[kStateSize];
  const SysfsResult result = qn::sysfs_read_line(path.text(), text, sizeof(text));
  if (result == SysfsResult::kNoFile) return QN_INTF_OPER_NOT_PRESENT;
  if (result == SysfsResult::kNoText) return QN_INTF_OPER_TESTING;
  qn_utils_rtrim(text);
  for (const auto& row : kOperStates) {
    if (strcmp(text, row.text) == 0) return row.code;
  }
  return QN_INTF_OPER_TESTING;
}

int32_t QnIntfGetSpeed(const char* intf_name) {
  char text[kSpeedSize] = "";
  return QnIntfGetParameter(intf_name, "speed", text, sizeof(text)) == 0 ? atoi(text) : 0;
}

int32_t QnIntfGetPortIndex(const char* intf_name) {
  const SysfsPath path(intf_name, "brport/port_no");
  if (!path.fits()) return 0;
  unsigned int number = 0;
  return qn::sysfs_read_hex(path.text(), &number) ? static_cast<int32_t>(number - 1) : -1;
}

int32_t QnIntfGetNameByPortNo(const char* bridge_name, uint32_t port_no, char* name, uint32_t size) {
  if (bridge_name == nullptr || name == nullptr) {
    qn::print_null_pointer("QnIntfGetNameByPortNo", 283);
    return -1;
  }
  const SysfsPath path(bridge_name, "brif");
  if (!path.fits() || size == 0) return -1;
  const DirectoryPtr directory(open_directory(path.text()));
  if (!directory) return -1;
  const char* const found = find_port(directory.get(), bridge_name, port_no);
  if (found == nullptr || strncpy_s(name, size, found, size - 1) != 0) return -1;
  name[size - 1] = '\0';
  return 0;
}

void QnIntfGetEthMetric(const char* intf_name, qn_intf_eth_metric_t* metric) {
  if (metric == nullptr) {
    puts("Invalid Param, metric = NULL");
    return;
  }
  *metric = {};
  for (const auto& row : kCounters) metric->*row.counter = read_counter(intf_name, row.file);
}
