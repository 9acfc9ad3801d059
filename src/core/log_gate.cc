// Storage of the gate words and filters.
#include "core/log_gate.h"

#include <cstring>

namespace qn {

constinit std::atomic<uint32_t> g_log_gate{kGateOpen};
constinit SingleFilter g_single_filters[kRoleCount];

namespace {
constinit std::atomic<uint32_t> g_role_gates[kRoleCount]{
    kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps,
    kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps,
};
constinit std::atomic<ExactRule> g_exact_rule{nullptr};

// Length, first, middle and last byte tell the operations of one subsystem apart well enough.
uint64_t name_bit(const char* biz_name) {
  const size_t length = strlen(biz_name);
  if (length == 0) return 1;
  const uint32_t mixed = static_cast<uint32_t>(length) ^ static_cast<uint32_t>(biz_name[0] << 6) ^
                         static_cast<uint32_t>(biz_name[length / 2] << 14) ^
                         static_cast<uint32_t>(biz_name[length - 1] << 22);
  return SingleBits::bit(mixed);
}
} // namespace

void SingleBits::add(const char* biz_name) {
  starts |= uint64_t{1} << place_of_start(biz_name);
  biz_names |= name_bit(biz_name);
}

void log_gate_set_current(uint32_t word) { g_log_gate.store(word, std::memory_order_relaxed); }

uint32_t log_gate_of_role(uint32_t role) {
  return role < kRoleCount ? g_role_gates[role].load(std::memory_order_relaxed) : kGateNoMaps;
}

void log_gate_set_role(uint32_t role, uint32_t word) {
  if (role < kRoleCount) g_role_gates[role].store(gate_with_role(word, role), std::memory_order_relaxed);
}

void log_gate_set_filter(uint32_t role, const SingleBits& bits) {
  if (role >= kRoleCount) return;
  g_single_filters[role].logids.store(bits.logids, std::memory_order_relaxed);
  g_single_filters[role].starts.store(bits.starts, std::memory_order_relaxed);
  g_single_filters[role].biz_names.store(bits.biz_names, std::memory_order_relaxed);
}

void log_gate_set_exact_rule(ExactRule rule) { g_exact_rule.store(rule, std::memory_order_release); }

bool log_gate_single_permits(uint32_t role, uint32_t logid, const char* biz_name, uint32_t level) {
  const SingleFilter& filter = g_single_filters[role];
  if ((filter.logids.load(std::memory_order_relaxed) & SingleBits::bit(logid)) == 0 &&
      (biz_name == nullptr ||
       (filter.biz_names.load(std::memory_order_relaxed) & name_bit(biz_name)) == 0)) {
    return false;
  }
  const ExactRule rule = g_exact_rule.load(std::memory_order_acquire);
  return rule != nullptr && rule(role, logid, biz_name, level);
}

} // namespace qn
