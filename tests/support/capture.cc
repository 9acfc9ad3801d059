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

namespace {

// Takes the text up to `end` off the front of the line; false where there is no `end`.
bool take(std::string& line, const std::string& end, std::string* out) {
  const size_t at = line.find(end);
  if (at == std::string::npos) return false;
  *out = line.substr(0, at);
  line.erase(0, at + end.size());
  return true;
}

bool parse(std::string line, Record* record) {
  std::string logid;
  const bool whole = take(line, " [", &record->stamp) && take(line, "] [", &logid) &&
                     take(line, "] [", &record->level) && take(line, "] [", &record->module) &&
                     take(line, "] ", &record->biz_name);
  if (!whole || logid.size() < 4 || logid.find_first_not_of("0123456789") != std::string::npos)
    return false;
  record->logid = static_cast<uint32_t>(std::stoul(logid));
  record->text = line;
  return true;
}

} // namespace

std::vector<Record> StderrCapture::records() const {
  std::vector<Record> found;
  std::istringstream lines(text());
  for (std::string line; std::getline(lines, line);) {
    Record record;
    if (parse(line, &record)) found.push_back(record);
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
