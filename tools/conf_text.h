// A configuration as the loader will see it, with the lines that it comes from and what is odd in it.
#ifndef TOOLS_CONF_TEXT_H
#define TOOLS_CONF_TEXT_H

#include <cstddef>
#include <cstdint>

namespace ctl {

constexpr size_t kConfTextMax = 32767;    // bytes that the loader reads
constexpr unsigned kConfEntriesMax = 512; // that are shown
constexpr unsigned kConfWarningsMax = 256;

struct ConfEntry {
  const char* key; // not terminated; without white space around it
  const char* value;
  size_t key_length;
  size_t value_length;
  unsigned line;
  bool holds; // a lookup of the key gives this entry
};

enum class ConfOddity : uint8_t {
  kKeyTooLong,
  kValueTooLong,
  kBeyondLimit,
  kNulByte,
  kNoEquals,
  kIntoKey,
  kIntoValue,
  kComment,
  kTwice,
  kFirstHolds,
  kUnknownRole,
  kUnknownKey,
  kNoLevel,
  kNoSwitch,
  kTooMany,
};

struct ConfWarning {
  ConfOddity oddity;
  unsigned line;
  const ConfEntry* entry; // null where there is none
};

struct ConfText {
  char text[kConfTextMax + 2]; // one more than is read, so that more can be told
  size_t size;
  ConfEntry entries[kConfEntriesMax];
  unsigned entry_count;
  ConfWarning warnings[kConfWarningsMax];
  unsigned warning_count;
};

// Reads the file. Returns 0, or -1 with errno as open_plain().
int read_conf(const char* path, ConfText* conf);

// Finds entries and oddities in `size` bytes of `text`; one byte behind them is written.
void parse_conf(ConfText* conf);

const char* text_of(ConfOddity oddity);

} // namespace ctl

#endif // TOOLS_CONF_TEXT_H
