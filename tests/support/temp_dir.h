// A folder of the test's own, removed with everything in it.
#ifndef TESTS_SUPPORT_TEMP_DIR_H
#define TESTS_SUPPORT_TEMP_DIR_H

#include <string>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The bytes of a file, empty when it cannot be read; and the other way round.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

#endif // TESTS_SUPPORT_TEMP_DIR_H
