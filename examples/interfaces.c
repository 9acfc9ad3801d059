// The interfaces of the machine as one table of text, and a pair of interfaces on a bridge.
#include <inttypes.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>

#include "hubd.h"

#define ANSWER_MAX 65535 // bytes of an answer

// By QN_INTF_OPER_*.
static const char* const oper_names[] = {"up", "down", "testing", "dormant", "absent", "lower-down"};

static const char* kind_of(const char* name) {
  if (QnIntfIsBridgeDev(name)) return "bridge";
  return QnIntfIsVEthDev(name) ? "veth" : "-";
}

// Each bridge is asked: the kernel's answer is by the pair.
static const char* bridge_of(const char* name, const struct if_nameindex* all) {
  for (; all->if_name != NULL; all++) {
    if (QnIntfIsOnBridge(all->if_name, name)) return all->if_name;
  }
  return "-";
}

static void print_row(FILE* out, const char* name, const struct if_nameindex* all) {
  uint8_t mac[6] = {0}; // stays so where there is none
  qn_intf_eth_metric_t metric;
  qn_utils_get_intf_mac_addr(name, mac);
  QnIntfGetEthMetric(name, &metric);
  fprintf(out, "%-15s %-6s %-10s %02x:%02x:%02x:%02x:%02x:%02x", name, kind_of(name),
          QnIntfIsUp(name) ? oper_names[QnIntfGetOperState(name)] : "off", mac[0], mac[1], mac[2], mac[3],
          mac[4], mac[5]);
  fprintf(out, " %-6s %10" PRIu64 " %10" PRIu64 "\n", bridge_of(name, all), metric.rx_bytes,
          metric.tx_bytes);
}

int32_t handle_interfaces(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  if (req->body_len != 0) return HUB_REFUSE(HUB_ERR_MALFORMED, "this takes no words");
  char* text = NULL;
  size_t len = 0;
  FILE* out = open_memstream(&text, &len);
  struct if_nameindex* all = if_nameindex();
  if (out != NULL) {
    fprintf(out, "%-15s %-6s %-10s %-17s %-6s %10s %10s\n", "name", "kind", "state", "mac", "bridge",
            "rx bytes", "tx bytes");
    for (const struct if_nameindex* row = all; row != NULL && row->if_name != NULL; row++) {
      if (QnIntfIsExist(row->if_name)) print_row(out, row->if_name, all);
    }
  }
  const int whole = out != NULL && fclose(out) == 0 && all != NULL && len <= ANSWER_MAX;
  if_freenameindex(all);
  if (!whole) {
    free(text);
    return HUB_REFUSE(HUB_ERR_INTERFACES, "the interfaces could not be listed");
  }
  *rsp_body = text; // a block of malloc(), which the library releases
  *rsp_len = (uint32_t)len;
  return 0;
}

int32_t handle_pair(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  hub_words_t words;
  hub_split(req, &words);
  const char *name = words.word[0].data, *peer = words.word[1].data, *bridge = words.word[2].data;
  if (words.count != 3) return HUB_REFUSE(HUB_ERR_MALFORMED, "a pair takes three names");
  // Asked first: a pair that has no bridge to go to is not made.
  if (!QnBridgeIsExist(bridge)) return HUB_REFUSE(HUB_ERR_PAIR, "%.15s is no bridge", bridge);
  if (QnIntfCreateVEthPair(name, peer) != 0) {
    return HUB_REFUSE(HUB_ERR_PAIR, "%.15s and %.15s could not be made: ip's standard error tells why",
                      name, peer);
  }
  // The ip of busybox names the peer as it likes, and ends well.
  if (!QnIntfIsExist(peer)) {
    return HUB_REFUSE(HUB_ERR_PAIR, "%.15s is made without %.15s: it takes iproute2's ip, not busybox's",
                      name, peer);
  }
  // 0 does not prove that the port is on this bridge: it may be on another already.
  if (QnIntfAddIfToBridge(bridge, name) == 0 && QnIntfIsOnBridge(bridge, name)) return 0;
  return HUB_REFUSE(HUB_ERR_PAIR, "%.15s and %.15s are made, but not on %.15s", name, peer, bridge);
}
