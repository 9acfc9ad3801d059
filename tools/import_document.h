// What a store is filled with, and the reader of the document that an export writes.
#ifndef TOOLS_IMPORT_DOCUMENT_H
#define TOOLS_IMPORT_DOCUMENT_H

#include <quillcore/store.h>

#include <cstddef>
#include <cstdint>

namespace ctl {

constexpr unsigned kImportMax = 200;

struct ImportKey {
  char key[QN_KVS_KEY_MAX + 1];
  uint32_t key_length;
  uint16_t value_length;
  uint8_t value[QN_KVS_VALUE_MAX + 1]; // one more than a store takes, so that too long can be told
};

struct ImportList {
  ImportKey keys[kImportMax];
  unsigned count;

  // Null when it is full.
  ImportKey* add() { return count < kImportMax ? &keys[count++] : nullptr; }
};

// Two hexadecimal digits. False for others.
bool hex_byte(const char* digits, char* byte);

// Reads {"keys":[{"key":"...","text":"..."},{"key":"...","hex":"..."}]} from standard input, waiting at
// most ten seconds for each part of it. Returns a Status, having said what is wrong.
int read_document(ImportList* list);

} // namespace ctl

#endif // TOOLS_IMPORT_DOCUMENT_H
