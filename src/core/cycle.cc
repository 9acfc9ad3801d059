// The cycle: a record in a pool of its own.
#include <quillcore/context.h>

#include <cstddef>

#include "core/log_record.h"
#include "core/pool.h"

namespace {

using qn::Message;

constexpr uint32_t kBlockSize = 32768;

constexpr Message kPoolFailed{QN_LOG_E, 519, "qn_cycle", "cycle_new", "create cycle mem pool failed."};
constexpr Message kPoolMade{QN_LOG_I, 520, "qn_cycle", "cycle_new", "create cycle mem pool sucess."};
constexpr Message kCycleFailed{QN_LOG_E, 521, "qn_cycle", "cycle_new", "create cycle failed."};
constexpr Message kCycleMade{QN_LOG_I, 522, "qn_cycle", "cycle_new", "create cycle sucess."};

static_assert(sizeof(qn_cycle_t::process_area) == 74 * sizeof(uintptr_t));
static_assert(offsetof(qn_cycle_t, services) == (3 + 74) * sizeof(uintptr_t));
static_assert(sizeof(qn_cycle_t) == (3 + 74 + 10) * sizeof(uintptr_t));

} // namespace

qn_cycle_t* qn_cycle_new(void) {
  qn_pool_t* const pool = qn_pool_create(kBlockSize);
  if (pool == nullptr) return QN_FAIL_CONSOLE(nullptr, kPoolFailed);
  QN_CONSOLE(kPoolMade);

  qn_cycle_t* const cycle = qn::pcalloc_object<qn_cycle_t>(pool);
  if (cycle == nullptr) {
    QN_CONSOLE(kCycleFailed);
    qn_pool_free(pool);
    return nullptr;
  }
  cycle->pool = pool;
  QN_CONSOLE(kCycleMade);
  return cycle;
}

void qn_cycle_set_worker_role(qn_cycle_t* cycle, uint32_t role) { cycle->worker_role = role; }

void qn_cycle_free(qn_cycle_t* cycle) {
  if (cycle != nullptr) qn_pool_free(cycle->pool);
}
