// The table of faults: what each operation does when one call underneath it fails.
//
// A row names an operation, the function that fails and its errno. The driver runs the operation for n =
// 1, 2, 3 ... with the n-th call failing, until it completes without reaching that call. The row has one
// outcome for each n, so it also proves how often the function is called, and that it is called at all: a
// call that leaves under another name cannot empty the table in silence.
//
// After each n the driver compares result and records, lets the operation check its out arguments and
// whether its object still works, and counts descriptors, closes, children and heap blocks.
#ifndef TESTS_FAULTS_TABLE_H
#define TESTS_FAULTS_TABLE_H

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <vector>

#include "faults/shim.h"
#include "support/owners.h"

struct Outcome {
  int64_t result = 0;
  std::vector<uint32_t> records = {}; // logids of the failures that are reported, in order
  int error = 0;                      // the errno that they name, where it is not the injected one
  const char* text = "";              // part of what is printed on standard error

  bool has(uint32_t logid) const { return std::ranges::count(records, logid) != 0; }
};

// Made anew for each n, and gone before the next.
struct Operation {
  virtual ~Operation() = default;
  virtual int64_t run() = 0;
  virtual void check(const Outcome& /*seen*/) {}

  Outcome undisturbed = {}; // of run() when no call fails
};

using Make = std::function<std::unique_ptr<Operation>()>;

template <typename T, typename... Arguments>
Make make(Arguments... arguments) {
  return [=] { return std::make_unique<T>(arguments...); };
}

// What a row says about the calls behind its last outcome.
enum Rest {
  kNoMore,  // there are none
  kMore,    // they have the last outcome too
  kUntried, // they are left out
};

struct Row {
  const char* operation;
  Make make;
  const char* call;
  int error;
  std::vector<Outcome> outcomes; // by n
  shim::How how = shim::kFail;
  Rest rest = kNoMore;
};

std::ostream& operator<<(std::ostream& out, const Row& row);

std::vector<Row> base_rows();
std::vector<Row> bus_rows();
std::vector<Row> service_rows();
std::vector<Row> store_rows();
// These run in a child that has files, devices and interfaces of its own: see make_own_system().
std::vector<Row> proc_net_rows();
void make_own_system();

// Takes all room that the blocks of the pool still have: the next request needs a new block.
void exhaust(qn_pool_t* pool);

#endif // TESTS_FAULTS_TABLE_H
