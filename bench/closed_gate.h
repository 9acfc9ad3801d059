// Exported by the measured library alone.
#ifndef QUILLCORE_BENCH_CLOSED_GATE_H
#define QUILLCORE_BENCH_CLOSED_GATE_H

#include <quillcore/api.h>

QN_BEGIN_DECLS

// Gives the process the gate of a daemon whose log instance stands at level I: console and trace off, no
// single switches.
QN_API void bench_close_gate(void);

QN_END_DECLS

#endif // QUILLCORE_BENCH_CLOSED_GATE_H
