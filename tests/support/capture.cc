#include "support/capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

std::ostream& operator<<(std::ostream& out, const Record& record) {
  return out << '[' << record.logid << "] [" << record.level << "] [" << record.module << "] ["
             << record.biz_name << "] " << record.text;
}

StderrCapture::StderrCapture()
    : memory_(memfd_create("stderr", MFD_CLOEXEC)), original_(dup(STDERR_FILENO)) {
  fflush(stderr);
  dup2(memory_, STDERR_FILENO);
}

StderrCapture::~StderrCapture() { release(); }

void StderrCapture::release() {
  if (original_ < 0) return;
  fflush(stderr);
  dup2(original_, STDERR_FILENO);
  close(original_);
  close(memory_);
  original_ = -1;
}

std::string StderrCapture::text() const {
  fflush(stderr);
  std::string text(static_cast<size_t>(lseek(memory_, 0, SEEK_CUR)), '\0');
  const ssize_t got = pread(memory_, text.data(), text.size(), 0);
  text.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return text;
}

void StderrCapture::clear() {
  fflush(stderr);
  if (ftruncate(memory_, 0) == 0) lseek(memory_, 0, SEEK_SET);
}

std::vector<Record> StderrCapture::records() const {
  std::vector<Record> found;
  std::istringstream lines(text());
  for (std::string line; std::getline(lines, line);) {
    char level[8], module[64], biz_name[64];
    uint32_t logid = 0;
    int start = 0;
    sscanf(line.c_str(), "%*31[0-9: -][%u] [%7[^]]] [%63[^]]] [%63[^]]]%n", &logid, level, module,
           biz_name, &start);
    if (start == 0 || line[start] != ' ') continue;
    found.push_back({logid, level, module, biz_name, line.substr(start + 1)});
  }
  return found;
}

std::vector<Record> StderrCapture::records(uint32_t logid) const {
  std::vector<Record> found = records();
  std::erase_if(found, [logid](const Record& record) { return record.logid != logid; });
  return found;
}

std::vector<uint32_t> StderrCapture::logids() const {
  std::vector<uint32_t> found;
  for (const Record& record : records()) found.push_back(record.logid);
  return found;
}

std::string StderrCapture::brief() const {
  constexpr uint32_t kAllocated = 523;
  std::string found;
  for (const Record& record : records()) {
    if (record.logid == kAllocated) continue;
    if (!found.empty()) found += ", ";
    found += std::to_string(record.logid);
    bool in_number = false;
    for (const char letter : record.text) {
      const bool is_digit = letter >= '0' && letter <= '9';
      if (is_digit && !in_number) found += ' ';
      if (is_digit) found += letter;
      in_number = is_digit;
    }
  }
  return found;
}
