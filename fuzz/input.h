// What the targets share: how they read their input, and say what does not hold.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

inline void require(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "broken: %s\n", what);
  abort();
}

inline std::string to_text(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

#endif // FUZZ_INPUT_H
