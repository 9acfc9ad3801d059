// Gate words: who may log what, folded into one word for each role.
//
// The permission maps of the log system are the truth. Whoever changes them derives the words anew and
// stores them here, so that a gate costs one load and one compare; this file knows nothing of the maps.
//
// Three states: without an instance the current word lets everything pass; with an instance but without
// maps only levels 1 and 6 pass and the console is closed; with both, the word is what make_gate() gives.
#ifndef QN_CORE_LOG_GATE_H
#define QN_CORE_LOG_GATE_H

#include <quillcore/log.h>

#include <atomic>
#include <cstdint>

namespace qn {

constexpr uint32_t kRoleCount = QN_LOG_ROLE_NIL + 1; // and one that is never in use

// Bits of a gate word. Bit L, for L of 2 to 5, says that a record of level L may pass; where single
// switches are on all four are set, and what decides is bit kStrictShift + L and the switches.
constexpr uint32_t kGateAlways = 1u << 0; // set in every word: levels that no gate is asked about
constexpr uint32_t kGateTrace = 1u << 7;
constexpr uint32_t kGateConsole = 1u << 8;
constexpr uint32_t kGateSingles = 1u << 9;
constexpr uint32_t kGateStrictShift = 16;
constexpr uint32_t kGateRoleShift = 24; // the role, for whoever looks at its switches
constexpr uint32_t kGateLevels = 0x3Cu;

constexpr uint32_t kGateOpen = kGateAlways | kGateLevels | kGateTrace | kGateConsole;
constexpr uint32_t kGateNoMaps = kGateAlways;

// The word of a role whose level value reads as `level_row` (0 to 6): levels 2 up to that row pass while
// the global switch is on. `singles` says that a logid or biz_name of the role is switched on.
constexpr uint32_t make_gate(uint32_t level_row, bool global_on, bool console_on, bool trace_on,
                             bool singles) {
  const uint32_t levels = global_on ? kGateLevels & ((2u << level_row) - 1u) : 0u;
  return kGateAlways | (singles ? kGateLevels | kGateSingles : levels) | (levels << kGateStrictShift) |
         (console_on ? kGateConsole : 0u) | (trace_on ? kGateTrace : 0u);
}

constexpr uint32_t gate_with_role(uint32_t word, uint32_t role) { return word | role << kGateRoleShift; }

constexpr uint32_t gate_bit(uint32_t level) {
  if (level == QN_LOG_T) return kGateTrace;
  return level - QN_LOG_E <= QN_LOG_D - QN_LOG_E ? 1u << level : kGateAlways;
}

// The word of the process's instance, or kGateOpen without one.
extern std::atomic<uint32_t> g_log_gate;

inline uint32_t log_gate_current() { return g_log_gate.load(std::memory_order_relaxed); }
void log_gate_set_current(uint32_t word);

// The word of one role, which carries the role.
uint32_t log_gate_of_role(uint32_t role);
void log_gate_set_role(uint32_t role, uint32_t word);

// Which logids and biz_names of a role may be switched on: one bit for each hash. A call site whose bit
// is clear is off for certain, so that switches for other call sites cost it next to nothing. A name is
// asked after by its first two bytes first, and then by more of it.
struct SingleBits {
  uint64_t logids = 0;
  uint64_t starts = 0;
  uint64_t biz_names = 0;

  void add(uint32_t logid) { logids |= bit(logid); }
  void add(const char* biz_name);
  bool any() const { return (logids | biz_names) != 0; }

  static constexpr uint32_t place(uint32_t number) { return (number * 0x9E3779B1u) >> 26; }
  static constexpr uint64_t bit(uint32_t number) { return uint64_t{1} << place(number); }
  static constexpr uint32_t place_of_start(const char* biz_name) {
    const uint32_t first = static_cast<uint8_t>(biz_name[0]);
    return first == 0 ? 0 : place(first << 8 | static_cast<uint8_t>(biz_name[1]));
  }
};

struct SingleFilter {
  std::atomic<uint64_t> logids{0};
  std::atomic<uint64_t> starts{0};
  std::atomic<uint64_t> biz_names{0};
};
extern SingleFilter g_single_filters[kRoleCount];
static_assert(std::atomic<uint64_t>::is_always_lock_free, "or it takes a library at run time");

void log_gate_set_filter(uint32_t role, const SingleBits& bits);

// The documented rule, asked of the maps themselves.
using ExactRule = bool (*)(uint32_t role, uint32_t logid, const char* biz_name, uint32_t level);
void log_gate_set_exact_rule(ExactRule rule);

// Whether the filters leave it open that a switch is on, and the rule then says that the record passes.
bool log_gate_single_permits(uint32_t role, uint32_t logid, const char* biz_name, uint32_t level);

// Whether a record of this level can pass at all: if not, nothing of it needs to be made.
inline bool log_may_pass(uint32_t level) { return (log_gate_current() & gate_bit(level)) != 0; }

// Whether, of a record that the word lets pass, the switches of single call sites decide.
inline bool log_gate_asks_switches(uint32_t word, uint32_t bit) {
  return (word & kGateSingles) != 0 && (bit & kGateLevels) != 0 &&
         (word & (bit << kGateStrictShift)) == 0;
}

// False for a record that no gate lets pass: told without a call, for the entry that is called most. A
// null name is never switched on.
inline bool log_gate_may_permit(uint32_t word, uint32_t level, uint32_t logid, const char* biz_name) {
  const uint32_t bit = gate_bit(level);
  if ((word & bit) == 0) return false;
  if (!log_gate_asks_switches(word, bit)) return true;
  const SingleFilter& filter = g_single_filters[word >> kGateRoleShift];
  if ((filter.logids.load(std::memory_order_relaxed) >> SingleBits::place(logid) & 1) != 0) return true;
  const uint64_t starts = filter.starts.load(std::memory_order_relaxed);
  return starts != 0 && biz_name != nullptr && (starts >> SingleBits::place_of_start(biz_name) & 1) != 0;
}

// Whether a record passes the trace or permission gate of this word.
inline bool log_gate_permits(uint32_t word, uint32_t level, uint32_t logid, const char* biz_name) {
  if (!log_gate_may_permit(word, level, logid, biz_name)) return false;
  return !log_gate_asks_switches(word, gate_bit(level)) ||
         log_gate_single_permits(word >> kGateRoleShift, logid, biz_name, level);
}

} // namespace qn

#endif // QN_CORE_LOG_GATE_H
