// The cycle and the handler tables.
#include <gtest/gtest.h>
#include <quillcore/context.h>

#include <iterator>

#include "support/capture.h"

namespace {

int32_t serve(const qn_msg_req_t*, void**, uint32_t*) { return 0; }

TEST(Cycle, StartsEmptyInAPoolOfItsOwn) {
  const StderrCapture capture;
  qn_cycle_t* const cycle = qn_cycle_new();
  ASSERT_NE(nullptr, cycle);
  EXPECT_EQ(0u, cycle->state);
  for (const uintptr_t word : cycle->process_area) EXPECT_EQ(0u, word);
  for (const qn_service_t* service : cycle->services) EXPECT_EQ(nullptr, service);
  qn_cycle_set_worker_role(cycle, 7);
  EXPECT_EQ(7u, cycle->worker_role);
  qn_cycle_free(cycle);
  qn_cycle_free(nullptr);

  const std::vector<Record> records = capture.records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(
      (Record{records[0].stamp, 520, "I", "qn_cycle", "cycle_new", "create cycle mem pool sucess."}),
      records[0]);
  EXPECT_EQ((Record{records[1].stamp, 522, "I", "qn_cycle", "cycle_new", "create cycle sucess."}),
            records[1]);
}

TEST(Apis, TheFirstRowThatFitsServesAMessage) {
  qn_api_entry_t rows[] = {
      {0x0000, 1, serve, nullptr},   // switched off by its mask
      {0x0003, 1, nullptr, nullptr}, // switched off by its handler
      {0x0002, 1, serve, nullptr},   {0x0003, 1, serve, nullptr}, {0x8000, 255, serve, nullptr},
  };
  qn_apis_t apis = {static_cast<uint16_t>(std::size(rows)), rows};
  const struct {
    uint16_t msg_src;
    uint8_t msg_type;
    const qn_api_entry_t* row;
  } cases[] = {
      {0x0002, 1, &rows[2]}, {0x0003, 1, &rows[2]},   {0x0001, 1, &rows[3]}, {0x0000, 1, nullptr},
      {0x0004, 1, nullptr},  {0xFFFF, 255, &rows[4]}, {0x0001, 2, nullptr},
  };
  for (const auto& row : cases)
    EXPECT_EQ(row.row, qn_apis_get_callback(&apis, row.msg_src, row.msg_type));
  EXPECT_EQ(nullptr, qn_apis_get_callback(nullptr, 1, 1));
  apis.count = 0;
  EXPECT_EQ(nullptr, qn_apis_get_callback(&apis, 2, 1));
}

TEST(Apis, InjectCopiesTheRowsForOneInstance) {
  qn_pool_t* const pool = qn_pool_create(4096);
  qn_palloc(pool, 1); // what follows must still be aligned for pointers
  const qn_api_entry_t rows[] = {{1, 1, serve, nullptr}, {2, 2, serve, nullptr}};
  int instance = 0;
  qn_api_entry_t* const copy = qn_service_inject_instance(pool, rows, 2, &instance);
  ASSERT_NE(nullptr, copy);
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(&instance, copy[i].instance);
    EXPECT_EQ(nullptr, rows[i].instance);
    EXPECT_EQ(rows[i].msg_type, copy[i].msg_type);
  }
  EXPECT_EQ(2u, qn_apis_new(pool, 0x10002, copy)->count) << "cut to 16 bits";
  EXPECT_EQ(nullptr, qn_apis_new(pool, 0, nullptr));
  EXPECT_EQ(nullptr, qn_apis_new(nullptr, 2, copy));
  EXPECT_EQ(nullptr, qn_service_inject_instance(pool, rows, UINT32_MAX / 2, nullptr)) << "wraps 32 bits";
  EXPECT_EQ(nullptr, qn_service_inject_instance(nullptr, rows, 2, nullptr));
  qn_pool_free(pool);
}

} // namespace
