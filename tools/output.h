// What the tool says: text without control codes, JSON, and the one line of an error.
//
// Every byte that comes from a file, a log, a client or a file's name goes through here before a terminal
// sees it. Bytes from blank to tilde stay, a backslash is doubled, all others become \n, \t, \r or \xNN.
#ifndef TOOLS_OUTPUT_H
#define TOOLS_OUTPUT_H

#include <quillcore/api.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ctl {

enum Status : int {
  kFine = 0,
  kFoundWrong = 1,
  kUsage = 2,
  kCannotLook = 3,
};

// The bytes as text that is safe to print, cut at 511 bytes. Valid until eight more calls were made.
const char* shown(const char* bytes, size_t length);
const char* shown(const char* text);

// Prints bytes of any number, safe as above, on standard output.
void put_shown(const void* bytes, size_t length);

// Whether no byte needs to be changed to be shown, but for a backslash.
bool is_plain(const void* bytes, size_t length);

// Prints bytes as two hexadecimal digits each.
void put_hex(const uint8_t* bytes, size_t length);

// Prints bytes as text where all of them are plain, otherwise as "hex " and digits.
void put_value(const uint8_t* bytes, size_t length);

// Prints bytes as rows of sixteen: offset, hexadecimal, text.
void put_dump(const uint8_t* bytes, size_t length);

// Prints one line on standard error, "quillctl: " before it. Returns `status`.
int fail(int status, const char* format, ...) QN_PRINTF(2, 3);

// A bar of `width` places of which `used` are filled.
const char* bar(unsigned used, unsigned width);

bool colours();

// Writes JSON on standard output. A byte above 126 of a text becomes \u00NN, so that no byte is lost.
class Json {
 public:
  void open(char bracket, const char* name = nullptr);
  void close(char bracket);
  void text(const char* name, const char* bytes, size_t length);
  void text(const char* name, const char* value);
  void number(const char* name, long long value);
  void milliseconds(const char* name, uint32_t microseconds); // to a tenth
  void flag(const char* name, bool value);
  void hex(const char* name, const uint8_t* bytes, size_t length);
  // The bytes as "text" where all of them are plain, otherwise as "hex".
  void bytes(const uint8_t* bytes, size_t length);
  void end_line();

 private:
  void separate(const char* name);
  void quote(const char* bytes, size_t length);
  bool first_ = true;
};

} // namespace ctl

#endif // TOOLS_OUTPUT_H
