// The interfaces of the machine, kept in a table by name and told on request.
//
// A record stays in the table from the moment its interface is first seen until it is gone. Each round of
// asking marks the records that it found; what is not marked afterwards is taken out.
#include "interfaces.h"

#include <dirent.h>
#include <quillcore/container.h>
#include <quillcore/interface.h>
#include <quillcore/memory.h>
#include <quillcore/service.h>
#include <quillcore/utility.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "request.h"
#include "sampler.h"

#define EXPECTED_MAX 256 // a hint for the table, not a limit

typedef struct record {
  hub_intf_t intf;
  int found; // in this round
} record_t;

static qn_table_t* table;

int hub_interfaces_init(void) {
  table = _qn_table_new(EXPECTED_MAX, NULL, NULL);
  return table != NULL ? 0 : -1;
}

static uint8_t kind_of(const char* name) {
  if (QnIntfIsBridgeDev(name)) return HUB_INTF_BRIDGE;
  if (QnIntfIsVEthDev(name)) return HUB_INTF_VETH;
  return HUB_INTF_OTHER;
}

// `name` fits.
static void ask(hub_intf_t* intf, const char* name) {
  memset(intf, 0, sizeof(*intf));
  memcpy(intf->name, name, strlen(name));
  intf->index = QnIntfNameToIndex(name);
  intf->up = (uint8_t)QnIntfIsUp(name);
  intf->oper = (uint8_t)QnIntfGetOperState(name);
  intf->power = (uint8_t)QnIntfGetPowerState(name);
  intf->speed_mbit = QnIntfGetSpeed(name);
  intf->kind = kind_of(name);
  qn_utils_get_intf_mac_addr(name, intf->mac); // stays zero where there is none
  QnIntfGetEthMetric(name, &intf->metric);

  hub_rates_t rates;
  intf->sampled = hub_sampler_rates(name, &rates) == 0;
  if (!intf->sampled) return;
  intf->rx_bytes_per_s = rates.rx_bytes_per_s;
  intf->tx_bytes_per_s = rates.tx_bytes_per_s;
}

static int ask_one(const char* name) {
  record_t* record = qn_table_get(table, name);
  if (record == NULL) {
    record = qn_alloc(sizeof(*record));
    if (record == NULL) return -1;
    const int32_t before = qn_table_length(table);
    _qn_table_put(table, name, record, qn_free);
    if (qn_table_length(table) == before) { // no memory for it, which a put does not tell
      qn_free(record);
      return -1;
    }
  }
  record->found = 1;
  ask(&record->intf, name);
  return 0;
}

// Which bridge an interface is on is asked of each bridge: the kernel's answer is by the pair.
static void find_bridges(void** pairs, int32_t count) {
  for (int32_t i = 0; i < count; i++) {
    const char* bridge = pairs[2 * i];
    if (!QnBridgeIsExist(bridge)) continue;
    for (int32_t j = 0; j < count; j++) {
      record_t* port = pairs[2 * j + 1];
      if (!QnIntfIsOnBridge(bridge, port->intf.name)) continue;
      memcpy(port->intf.bridge, bridge, strlen(bridge) + 1); // it is a name of the table, so it fits
      port->intf.port_no = QnIntfGetPortIndex(port->intf.name) + 1;
    }
  }
}

static void forget_the_lost(void** pairs, int32_t count) {
  for (int32_t i = 0; i < count; i++) {
    record_t* record = pairs[2 * i + 1];
    if (record->found) {
      record->found = 0;
    } else {
      qn_free(qn_table_remove(table, pairs[2 * i]));
    }
  }
}

static int refresh(void) {
  DIR* directory = opendir("/sys/class/net");
  if (directory == NULL) return -1;
  int result = 0;
  const struct dirent* entry;
  while ((entry = readdir(directory)) != NULL) {
    // The folder holds other files too.
    if (strlen(entry->d_name) >= HUB_INTF_NAME_SIZE || !QnIntfIsExist(entry->d_name)) continue;
    if (ask_one(entry->d_name) != 0) result = -1;
  }
  closedir(directory);

  void** pairs = qn_table_toarray(table, NULL);
  if (pairs == NULL) return -1;
  const int32_t count = qn_table_length(table);
  find_bridges(pairs, count);
  forget_the_lost(pairs, count);
  qn_free(pairs);
  return result;
}

static int by_index(const void* left, const void* right) {
  const record_t* const* a = left;
  const record_t* const* b = right;
  return ((*a)->intf.index > (*b)->intf.index) - ((*a)->intf.index < (*b)->intf.index);
}

// The records in the order of the kernel's indices: a block of as many pointers as the table is long.
static record_t** sorted(void) {
  void** pairs = qn_table_toarray(table, NULL);
  if (pairs == NULL) return NULL;
  const size_t count = (size_t)qn_table_length(table);
  for (size_t i = 0; i < count; i++) pairs[i] = pairs[2 * i + 1];
  qsort(pairs, count, sizeof(*pairs), by_index);
  return (record_t**)pairs;
}

int32_t handle_interfaces(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  uint32_t first;
  if (req->body_len != sizeof(first)) return request_refuse_malformed(req, rsp_body, rsp_len);
  memcpy(&first, req->body, sizeof(first));
  if (first == 0 && refresh() != 0) {
    qn_service_make_error_msg(HUB_ERR_INTERFACES, rsp_body, rsp_len,
                              "the interfaces could not be listed");
    return -1;
  }
  const uint32_t count = (uint32_t)qn_table_length(table);
  if (first >= count) return 0; // an empty body: there are no more

  const uint32_t rows = count - first < HUB_INTF_ROWS_MAX ? count - first : HUB_INTF_ROWS_MAX;
  record_t** records = sorted();
  hub_intf_t* answer = qn_alloc(rows * (uint32_t)sizeof(*answer));
  if (records == NULL || answer == NULL) {
    qn_free(records);
    qn_free(answer);
    return -1;
  }
  for (uint32_t i = 0; i < rows; i++) answer[i] = records[first + i]->intf;
  qn_free(records);
  *rsp_body = answer;
  *rsp_len = rows * (uint32_t)sizeof(*answer);
  return 0;
}

int32_t handle_pair(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  uid_t uid;
  if (!request_is_trusted(req, &uid)) {
    return request_refuse_user(uid, "make interfaces", rsp_body, rsp_len);
  }
  char name[HUB_INTF_NAME_SIZE], peer[HUB_INTF_NAME_SIZE], bridge[HUB_INTF_NAME_SIZE];
  cursor_t cursor = {req->body, req->body_len};
  if (request_take_text(&cursor, name, sizeof(name)) != 0 ||
      request_take_text(&cursor, peer, sizeof(peer)) != 0 ||
      request_take_text(&cursor, bridge, sizeof(bridge)) != 0 || cursor.left != 0) {
    return request_refuse_malformed(req, rsp_body, rsp_len);
  }
  // Asked first: a pair that has no bridge to go to is not made.
  if (!QnBridgeIsExist(bridge)) {
    qn_service_make_error_msg(HUB_ERR_PAIR, rsp_body, rsp_len, "%s is no bridge", bridge);
    return -1;
  }
  if (QnIntfCreateVEthPair(name, peer) != 0) {
    qn_service_make_error_msg(HUB_ERR_PAIR, rsp_body, rsp_len, "%s and %s could not be made", name, peer);
    return -1;
  }
  // 0 does not prove that the port is on this bridge: it may be on another already.
  if (QnIntfAddIfToBridge(bridge, name) != 0 || !QnIntfIsOnBridge(bridge, name)) {
    qn_service_make_error_msg(HUB_ERR_PAIR, rsp_body, rsp_len, "%s and %s were made, but %s is not on %s",
                              name, peer, name, bridge);
    return -1;
  }
  return 0;
}
