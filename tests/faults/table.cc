#include "faults/table.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <set>
#include <string>
#include <system_error>

#include "support/capture.h"
#include "support/main.h"
#include "support/own_namespace.h"

namespace {

constexpr size_t kNthEnd = 1000;

// Records of failures: levels E and W, and these of level D.
bool is_failure(const Record& record) {
  static const std::set<uint32_t> debug = {414, 421, 438, 528, 531, 611};
  return record.level == "E" || record.level == "W" || debug.contains(record.logid);
}

// A record that names an errno names this one, with its text.
void expect_errno(const Record& record, int error) {
  const size_t start = record.text.find("rror=("), other = record.text.find("rrno=(");
  if (start == std::string::npos && other == std::string::npos) return;
  std::string named = record.text.substr(std::min(start, other) + 6);
  std::erase(named, ' ');
  std::string wanted = std::to_string(error) + "," + std::generic_category().message(error) + ")";
  std::erase(wanted, ' ');
  EXPECT_EQ(wanted, named.substr(0, wanted.size())) << record;
}

// Runs the operation with one fault; returns whether the call was reached.
bool run_once(const Row& row, size_t nth) {
  StderrCapture capture;
  const std::unique_ptr<Operation> operation = row.make();
  capture.clear();
  shim::arm({row.call, static_cast<int>(nth), row.error, row.how});
  Outcome seen = {operation->run()};
  shim::disarm();

  const bool fired = shim::fired();
  if (fired && nth > row.outcomes.size() && row.rest != kMore) {
    ADD_FAILURE() << "a call that the row does not know";
    return true;
  }
  const Outcome& expected =
      fired ? row.outcomes[std::min(nth, row.outcomes.size()) - 1] : operation->undisturbed;
  // A short count is no error of the system's, whatever an earlier call has left in errno.
  const bool is_short = fired && row.how >= shim::kShort;
  const int error = expected.error != 0 || is_short ? expected.error : row.error;
  for (const Record& record : capture.records()) {
    if (!is_failure(record)) continue;
    seen.records.push_back(record.logid);
    expect_errno(record, error);
  }
  EXPECT_EQ(expected.result, seen.result);
  EXPECT_EQ(expected.records, seen.records);
  EXPECT_NE(std::string::npos, capture.text().find(expected.text)) << expected.text << capture.text();
  operation->check(seen);
  return fired;
}

class FaultTable : public testing::TestWithParam<Row> {};
class OwnFaultTable : public FaultTable {};

void try_every_call(const Row& row) {
  const std::set<int> descriptors = open_descriptors();
  const auto tally = shim::tally();
  const size_t end = row.rest == kUntried ? row.outcomes.size() + 1 : kNthEnd;
  size_t reached = 0;
  for (bool fired = true; fired && reached + 1 < end && !testing::Test::HasFailure();) {
    SCOPED_TRACE("n = " + std::to_string(reached + 1));
    fired = run_once(row, reached + 1);
    if (fired) reached++;
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_EQ(tally, shim::tally());
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD) << "a child is left";
  }
  EXPECT_GE(reached, row.outcomes.size()) << "calls of " << row.call;
  EXPECT_LT(reached, kNthEnd - 1);
}

TEST_P(FaultTable, EveryCallMayFail) { try_every_call(GetParam()); }

TEST_P(OwnFaultTable, EveryCallMayFail) {
  in_own_namespace([] {
    make_own_system();
    if (!HasFailure()) try_every_call(GetParam());
  });
}

using testing::PrintToStringParamName;
using testing::ValuesIn;
INSTANTIATE_TEST_SUITE_P(Base, FaultTable, ValuesIn(base_rows()), PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Bus, FaultTable, ValuesIn(bus_rows()), PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Service, FaultTable, ValuesIn(service_rows()), PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Store, FaultTable, ValuesIn(store_rows()), PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(ProcNet, OwnFaultTable, ValuesIn(proc_net_rows()), PrintToStringParamName());

} // namespace

std::ostream& operator<<(std::ostream& out, const Row& row) {
  static const char* const how[] = {"", "_always", "_short", "_nothing"};
  return out << row.operation << '_' << row.call << '_' << row.error << how[row.how];
}

void exhaust(qn_pool_t* pool) {
  shim::arm({"posix_memalign", 1, ENOMEM, shim::kFailAlways});
  while (qn_palloc(pool, 4) != nullptr) {
  }
  shim::disarm();
}
