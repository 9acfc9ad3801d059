// Gives the process the gate of a daemon.
#include "closed_gate.h"

#include "core/log_gate.h"

void bench_close_gate() {
  qn::log_gate_set_current(qn::make_gate(/*level_row=*/QN_LOG_I, /*global_on=*/true,
                                         /*console_on=*/false, /*trace_on=*/false, /*singles=*/false));
}
