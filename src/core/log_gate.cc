// Storage of the gate words and filters.
#include "core/log_gate.h"

#include <cstring>

namespace qn {

constinit std::atomic<uint32_t> g_log_gate{kGateOpen};

namespace {
constinit std::atomic<uint32_t> g_role_gates[kRoleCount]{
    kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps,
    kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps, kGateNoMaps,
};
constinit SingleFilter g_filters[kRoleCount];
constinit std::atomic<ExactRule> g_exact_rule{nullptr};
} // namespace

void log_gate_set_current(uint32_t word) { g_log_gate.store(word, std::memory_order_relaxed); }

uint32_t log_gate_of_role(uint32_t role) {
  return role < kRoleCount ? g_role_gates[role].load(std::memory_order_relaxed) : kGateNoMaps;
}

void log_gate_set_role(uint32_t role, uint32_t word) {
  if (role < kRoleCount) g_role_gates[role].store(word, std::memory_order_relaxed);
}

uint64_t filter_bit(const char* biz_name) {
  if (biz_name == nullptr) return 0;
  // Length, first, middle and last byte tell the operations of one subsystem apart well enough.
  const size_t length = strlen(biz_name);
  if (length == 0) return 1;
  const uint32_t mixed = static_cast<uint32_t>(length) ^ static_cast<uint32_t>(biz_name[0] << 6) ^
                         static_cast<uint32_t>(biz_name[length / 2] << 14) ^
                         static_cast<uint32_t>(biz_name[length - 1] << 22);
  return filter_bit(mixed);
}

void log_gate_set_filter(uint32_t role, uint64_t logids, uint64_t biz_names) {
  if (role >= kRoleCount) return;
  g_filters[role].logids.store(logids, std::memory_order_relaxed);
  g_filters[role].biz_names.store(biz_names, std::memory_order_relaxed);
}

void log_gate_set_exact_rule(ExactRule rule) { g_exact_rule.store(rule, std::memory_order_release); }

bool log_gate_single_permits(uint32_t role, uint32_t logid, const char* biz_name, uint32_t level) {
  if (role >= kRoleCount) return false;
  const uint64_t logids = g_filters[role].logids.load(std::memory_order_relaxed);
  const uint64_t biz_names = g_filters[role].biz_names.load(std::memory_order_relaxed);
  if ((logids & filter_bit(logid)) == 0 && (biz_names == 0 || (biz_names & filter_bit(biz_name)) == 0)) {
    return false;
  }
  const ExactRule rule = g_exact_rule.load(std::memory_order_acquire);
  return rule != nullptr && rule(role, logid, biz_name, level);
}

} // namespace qn
