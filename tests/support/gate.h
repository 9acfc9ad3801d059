// What the log lets pass for a scope.
#ifndef TESTS_SUPPORT_GATE_H
#define TESTS_SUPPORT_GATE_H

#include "core/log_gate.h"

// Records up to a level, 0 for none, and trace records or not.
class GateAt {
 public:
  explicit GateAt(uint32_t level, bool trace = false) {
    qn::log_gate_set_current(qn::make_gate(level, true, true, trace, false));
  }
  ~GateAt() { qn::log_gate_set_current(before_); }
  GateAt(const GateAt&) = delete;
  GateAt& operator=(const GateAt&) = delete;

 private:
  const uint32_t before_ = qn::log_gate_current();
};

#endif // TESTS_SUPPORT_GATE_H
