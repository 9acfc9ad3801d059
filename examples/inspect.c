// What hubctl shows of the machine.
#include "inspect.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>

static const char* const oper_names[] = {
    [QN_INTF_OPER_UP] = "up",
    [QN_INTF_OPER_DOWN] = "down",
    [QN_INTF_OPER_TESTING] = "testing",
    [QN_INTF_OPER_DORMANT] = "dormant",
    [QN_INTF_OPER_NOT_PRESENT] = "absent",
    [QN_INTF_OPER_LOWER_LAYER_DOWN] = "lower-down",
};
static const char* const kind_names[] = {
    [HUB_INTF_OTHER] = "-", [HUB_INTF_BRIDGE] = "bridge", [HUB_INTF_VETH] = "veth"};

static const char* name_of(const char* const* names, size_t count, uint8_t code) {
  return code < count ? names[code] : "?";
}

static void print_heading(void) {
  printf("%-15s %5s %-6s %-5s %-10s %-5s %6s %-17s %-15s %4s %12s %12s %10s %10s\n", "name", "index",
         "kind", "admin", "oper", "power", "Mbit/s", "mac", "bridge", "port", "rx bytes", "tx bytes",
         "rx/s", "tx/s");
}

static void print_interface(const hub_intf_t* intf) {
  const uint8_t* mac = intf->mac;
  printf("%-15s %5" PRId32 " %-6s %-5s %-10s %-5s %6" PRId32 " %02x:%02x:%02x:%02x:%02x:%02x", intf->name,
         intf->index, name_of(kind_names, sizeof(kind_names) / sizeof(kind_names[0]), intf->kind),
         intf->up ? "up" : "down",
         name_of(oper_names, sizeof(oper_names) / sizeof(oper_names[0]), intf->oper),
         intf->power == QN_INTF_POWER_ON ? "on" : "off", intf->speed_mbit, mac[0], mac[1], mac[2], mac[3],
         mac[4], mac[5]);
  printf(" %-15s %4" PRId32 " %12" PRIu64 " %12" PRIu64, intf->bridge[0] != '\0' ? intf->bridge : "-",
         intf->port_no, intf->metric.rx_bytes, intf->metric.tx_bytes);
  if (intf->sampled) {
    printf(" %10" PRIu64 " %10" PRIu64 "\n", intf->rx_bytes_per_s, intf->tx_bytes_per_s);
  } else {
    printf(" %10s %10s\n", "-", "-");
  }
}

// Prints the rows of one answer. Returns their number; -1 for a body that is not made of rows.
static int print_rows(const hub_answer_t* answer) {
  if (answer->body_len % sizeof(hub_intf_t) != 0) return -1;
  const int count = (int)(answer->body_len / sizeof(hub_intf_t));
  for (int i = 0; i < count; i++) {
    hub_intf_t intf; // a copy: the body has no alignment
    memcpy(&intf, answer->body + (size_t)i * sizeof(intf), sizeof(intf));
    intf.name[sizeof(intf.name) - 1] = '\0';
    intf.bridge[sizeof(intf.bridge) - 1] = '\0';
    print_interface(&intf);
  }
  return count;
}

hub_result_t inspect_interfaces(hub_client_t* client, hub_answer_t* answer) {
  print_heading();
  uint32_t first = 0;
  for (;;) {
    const hub_result_t result =
        hub_exchange(client, HUB_MSG_INTERFACES, &first, sizeof(first), sizeof(first), answer);
    if (result != HUB_DONE) return result;
    const int rows = print_rows(answer);
    if (rows < 0) return HUB_NO_ANSWER;
    if (rows == 0) return HUB_DONE;
    first += (uint32_t)rows;
  }
}

static void print_end(const hub_child_t* child) {
  const char* how = "by itself";
  if (child->ended_by == HUB_ENDED_BY_WORD) how = "by its word";
  if (child->ended_by == HUB_ENDED_BY_FORCE) how = "by force";
  if (WIFSIGNALED(child->wait_status)) {
    printf("stopped %s, signal %d", how, WTERMSIG(child->wait_status));
  } else {
    printf("stopped %s, exit status %d", how, WEXITSTATUS(child->wait_status));
  }
}

hub_result_t inspect_child(hub_client_t* client, uint8_t step, hub_answer_t* answer) {
  const hub_result_t result = hub_exchange(client, HUB_MSG_CHILD, &step, 1, 1, answer);
  if (result != HUB_DONE) return result;

  hub_child_t child;
  if (answer->body_len != sizeof(child)) return HUB_NO_ANSWER;
  memcpy(&child, answer->body, sizeof(child));
  if (child.ended_by != 0) {
    print_end(&child);
    printf("; ");
  }
  if (child.pid != 0) {
    printf("running, pid %" PRId32 ", start %" PRIu32 ", %" PRIu32 " beats\n", child.pid, child.starts,
           child.beats);
  } else {
    printf("not running, %" PRIu32 " starts\n", child.starts);
  }
  return HUB_DONE;
}
