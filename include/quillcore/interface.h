// Interfaces: questions about network interfaces and bridges, and the two operations that change them.
//
// Each call looks at the system afresh, through /sys/class/net or one ioctl() on a socket of its own.
// Where an ioctl() is asked, a name is cut to 15 bytes. These functions report on standard output or not
// at all; QnIntfGetPowerState and qn_cheack_intf_is_exist use the log. Yes-or-no functions return 1 or 0,
// and 0 stands for every failure, a null name included.
//
// Threads: no function keeps state; all may run on any thread.
#ifndef QUILLCORE_INTERFACE_H
#define QUILLCORE_INTERFACE_H

#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

// Counters of an interface, from the files of the same names under its `statistics`.
typedef struct qn_intf_eth_metric {
  uint64_t rx_packets;
  uint64_t rx_errors;
  uint64_t tx_packets;
  uint64_t tx_errors;
  uint64_t rx_bytes;
  uint64_t tx_bytes;
} qn_intf_eth_metric_t;

// Results of QnIntfGetOperState().
#define QN_INTF_OPER_UP 0 // "up" and "unknown"
#define QN_INTF_OPER_DOWN 1
#define QN_INTF_OPER_TESTING 2 // also for every other text and when nothing can be read
#define QN_INTF_OPER_DORMANT 3
#define QN_INTF_OPER_NOT_PRESENT 4 // also for an interface that does not exist
#define QN_INTF_OPER_LOWER_LAYER_DOWN 5

// Results of QnIntfGetPowerState().
#define QN_INTF_POWER_ON 0
#define QN_INTF_POWER_OFF 2 // also for every failure

// Whether the kernel knows an interface of this name.
QN_API uint32_t QnIntfIsExist(const char* intf_name);
// Asks sysfs where QnIntfIsExist() asks the kernel by ioctl(): the interface has a `carrier` file.
QN_API uint32_t qn_cheack_intf_is_exist(const char* intf_name);
QN_API uint32_t QnBridgeIsExist(const char* bridge_name);
// Whether the interface is a port of this bridge. A name of "", "." or ".." is no interface's, and
// the answer is 1 then wherever there is such a bridge.
QN_API uint32_t QnIntfIsOnBridge(const char* bridge_name, const char* intf_name);
// Whether the interface is administratively up.
QN_API uint32_t QnIntfIsUp(const char* intf_name);
// Whether the interface's driver is "veth", or "bridge".
QN_API uint32_t QnIntfIsVEthDev(const char* intf_name);
QN_API uint32_t QnIntfIsBridgeDev(const char* intf_name);
// Whether a media type code of IEEE 1905.1 stands for IEEE 802.11 (0x0100 to 0x0107), or 802.3 (0 and 1).
QN_API uint32_t QnIntfIsWireless(uint32_t media_type);
QN_API uint32_t QnIntfIsEthernet(uint32_t media_type);

// Returns QN_INTF_POWER_ON when the interface has carrier, else QN_INTF_POWER_OFF (logged, 527 to 532).
QN_API int32_t QnIntfGetPowerState(const char* intf_name);

// Returns the operational state of RFC 2863, as a QN_INTF_OPER_* code. The kernel brings it up to date a
// moment behind a change: an interface that was just brought up, one of a new pair among them, can still
// tell QN_INTF_OPER_LOWER_LAYER_DOWN or its state before.
QN_API int32_t QnIntfGetOperState(const char* intf_name);

// Returns the speed in Mbit/s, -1 where the kernel knows none; 0 on failure.
QN_API int32_t QnIntfGetSpeed(const char* intf_name);

// Returns the kernel's index of the interface; 0 on failure.
QN_API int32_t QnIntfNameToIndex(const char* intf_name);

// Returns the zero-based port index of a bridge port; -1 on failure; 0 when the path does not fit and for
// a null name.
QN_API int32_t QnIntfGetPortIndex(const char* intf_name);

// Finds the port of a bridge that the kernel counts as `port_no`, from 1 on. Its name goes to `name`, cut
// to size - 1 bytes and terminated. Returns 0; -1 on failure and when there is no such port.
QN_API int32_t QnIntfGetNameByPortNo(const char* bridge_name, uint32_t port_no, char* name,
                                     uint32_t size);

// Reads the counters. One that cannot be read is 0, which cannot be told from a real 0.
QN_API void QnIntfGetEthMetric(const char* intf_name, qn_intf_eth_metric_t* metric);

// Makes a pair of virtual Ethernet interfaces with the command `ip`, found along PATH, and brings both
// ends up. It takes the `ip` of iproute2 (on OpenWrt the package ip-full) and the kernel's veth.
// Returns 0 when `ip` has made it, also if bringing an end up failed; -1 when `ip` could not be started,
// failed or was killed, or a name is null. Waits for `ip` without a time limit.
//
// The `ip` of busybox makes a pair, too, and ends with status 0, but gives the peer a name of the
// kernel's, "veth0" for example. Then the result is 0, "Failed to get device PEER flags, errno:19" is
// printed, and `peer_name` is not there: ask QnIntfIsExist() for it.
QN_API int32_t QnIntfCreateVEthPair(const char* intf_name, const char* peer_name);

// Makes the interface a port of the bridge.
// Returns 0, also for an interface that is a port already, of this bridge or another (see
// QnIntfIsOnBridge()); -1 on any other failure.
QN_API int32_t QnIntfAddIfToBridge(const char* bridge_name, const char* intf_name);

QN_END_DECLS

#endif // QUILLCORE_INTERFACE_H
