// The process's instance: made and ended together with the permission maps.
#include <quillcore/log.h>

#include "core/log.h"
#include "log/permission.h"
#include "platform/guards.h"

namespace {

// The gates of the instance follow at once; until its maps are loaded they refuse what must be decided.
void set_singleton(qn_log_t* log) {
  const qn::MutexGuard guard(qn::permission_change_lock());
  qn::log_singleton_set(log);
  qn::log_gates_refresh();
}

} // namespace

int32_t qn_log_new_singleton_instance(uint32_t config_level, uint32_t role, uint32_t append) {
  if (qn::qn_log_singleton_get() == nullptr) {
    qn_log_t* const log = qn_log_local_new(config_level, role, append);
    if (log == nullptr) return -1;
    set_singleton(log);
  }
  qn_log_permit_init();
  return 0;
}

void qn_log_free_singleton_instance(void) {
  qn_log_t* const log = qn::qn_log_singleton_get();
  if (log == nullptr) return;
  set_singleton(nullptr);
  qn_log_free(log);
  qn_log_permit_free();
}
