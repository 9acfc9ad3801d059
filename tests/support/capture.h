// Catches what is printed on standard error and reads it as log records.
#ifndef TESTS_SUPPORT_CAPTURE_H
#define TESTS_SUPPORT_CAPTURE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

struct Record {
  uint32_t logid = 0;
  std::string level;
  std::string module;
  std::string biz_name;
  std::string text;
};

std::ostream& operator<<(std::ostream& out, const Record& record);

// From construction to release() or the end of its scope, standard error goes to memory.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Everything printed so far.
  std::string text() const;
  // The lines so far that have a record's header; a line that has none is left out.
  std::vector<Record> records() const;
  // Those with this logid.
  std::vector<Record> records(uint32_t logid) const;
  // Their logids, in order.
  std::vector<uint32_t> logids() const;
  // Their logids, in order, each with the numbers in its text: "562 4 32, 563". Without those of a
  // successful allocation.
  std::string brief() const;
  // Forgets what was printed so far.
  void clear();
  // Gives standard error back.
  void release();

 private:
  int memory_;
  int original_;
};

#endif // TESTS_SUPPORT_CAPTURE_H
