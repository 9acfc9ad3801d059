// Handler tables: rows of source mask, message type, handler and instance.
#include <quillcore/context.h>

#include "core/pool.h"

qn_apis_t* qn_apis_new(qn_pool_t* pool, uint32_t count, qn_api_entry_t* rows) {
  if (pool == nullptr || rows == nullptr) return nullptr;
  qn_apis_t* const apis = qn::pcalloc_object<qn_apis_t>(pool);
  if (apis == nullptr) return nullptr;
  apis->count = static_cast<uint16_t>(count);
  apis->rows = rows;
  return apis;
}

qn_api_entry_t* qn_apis_get_callback(const qn_apis_t* apis, uint16_t msg_src, uint8_t msg_type) {
  if (apis == nullptr) return nullptr;
  for (uint32_t i = 0; i < apis->count; i++) {
    qn_api_entry_t& row = apis->rows[i];
    // A row whose mask is 0 shares no bit with any source, so it needs no test of its own.
    if (row.handler != nullptr && row.msg_type == msg_type && (row.msg_src_mask & msg_src) != 0) {
      return &row;
    }
  }
  return nullptr;
}

qn_api_entry_t* qn_service_inject_instance(qn_pool_t* pool, const qn_api_entry_t* rows, uint32_t count,
                                           void* instance) {
  if (pool == nullptr || rows == nullptr) return nullptr;
  qn_api_entry_t* const copy = qn::pcalloc_objects<qn_api_entry_t>(pool, count);
  if (copy == nullptr) return nullptr;
  for (uint32_t i = 0; i < count; i++) {
    copy[i] = rows[i];
    copy[i].instance = instance;
  }
  return copy;
}
