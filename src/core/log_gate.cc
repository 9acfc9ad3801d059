// Storage of the gate words.
#include "core/log_gate.h"

namespace qn {

constinit std::atomic<uint32_t> g_log_gate{kGateOpen};

namespace {
constinit std::atomic<uint32_t> g_role_gates[kRoleCount]{
    kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps,
    kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps,
};
constinit std::atomic<SingleSwitch> g_single_switch{nullptr};
}  // namespace

void log_gate_set_current(uint32_t word) { g_log_gate.store(word, std::memory_order_relaxed); }

uint32_t log_gate_of_role(uint32_t role) {
  return role < kRoleCount ? g_role_gates[role].load(std::memory_order_relaxed) : kGateNoMaps;
}

void log_gate_set_role(uint32_t role, uint32_t word) {
  if (role < kRoleCount) g_role_gates[role].store(word, std::memory_order_relaxed);
}

void log_gate_set_single_switch(SingleSwitch is_on) {
  g_single_switch.store(is_on, std::memory_order_release);
}

bool log_gate_single_is_on(uint32_t role, uint32_t logid, const char* biz_name) {
  const SingleSwitch is_on = g_single_switch.load(std::memory_order_acquire);
  return is_on != nullptr && is_on(role, logid, biz_name);
}

}  // namespace qn
