// The reader of the document that an export writes.
#include "import_document.h"

#include <cerrno>
#include <cstring>

#include "client.h"
#include "files.h"
#include "output.h"

namespace ctl {
namespace {

constexpr size_t kDocumentMax = size_t{2} * 1024 * 1024; // 200 keys, every byte of them escaped
constexpr int kWaitMs = 10000;

int digit(char byte) {
  if (byte >= '0' && byte <= '9') return byte - '0';
  byte |= 0x20;
  return byte >= 'a' && byte <= 'f' ? byte - 'a' + 10 : -1;
}

// What is left of the text. Every step that finds something else makes it bad, and then nothing moves on.
struct Cursor {
  const char* at;
  bool good = true;

  bool take(char byte) {
    while (*at == ' ' || *at == '\n' || *at == '\t' || *at == '\r') at++;
    if (*at != byte) return false;
    at++;
    return true;
  }

  void want(char byte) { good = good && take(byte); }
};

// One byte of a text: \u00NN, a backslash and itself, or the byte. False at the quote and for what no
// export writes.
bool take_byte(Cursor* cursor, char* byte) {
  if (*cursor->at == '"' || static_cast<uint8_t>(*cursor->at) < ' ') return false;
  if (*cursor->at != '\\') return *byte = *cursor->at++, true;
  if (strncmp(cursor->at, "\\u00", 4) == 0) {
    const bool good = hex_byte(cursor->at + 4, byte);
    cursor->at += good ? 6 : 0;
    return good;
  }
  if (cursor->at[1] != '"' && cursor->at[1] != '\\') return false;
  *byte = cursor->at[1];
  cursor->at += 2;
  return true;
}

// Returns the length, at most `size`; a longer text is bad.
size_t take_text(Cursor* cursor, char* out, size_t size) {
  size_t length = 0;
  char byte = 0;
  cursor->want('"');
  while (cursor->good && take_byte(cursor, &byte)) {
    cursor->good = length < size;
    if (cursor->good) out[length++] = byte;
  }
  if (cursor->good) cursor->good = *cursor->at++ == '"'; // at once: a blank would be part of the text
  return length;
}

// Digits in place to the bytes that they mean.
size_t unhex(Cursor* cursor, uint8_t* bytes, size_t digits) {
  for (size_t i = 0; i + 1 < digits && cursor->good; i += 2) {
    char byte = 0;
    cursor->good = hex_byte(reinterpret_cast<char*>(bytes) + i, &byte);
    bytes[i / 2] = static_cast<uint8_t>(byte);
  }
  if (digits % 2 != 0) cursor->good = false;
  return digits / 2;
}

void take_key(Cursor* cursor, ImportKey* key) {
  char name[8] = "";
  static uint8_t value[2 * sizeof(key->value)];
  cursor->want('{');
  name[take_text(cursor, name, sizeof(name) - 1)] = '\0';
  cursor->want(':');
  key->key_length = static_cast<uint32_t>(take_text(cursor, key->key, QN_KVS_KEY_MAX));
  key->key[key->key_length] = '\0';
  cursor->want(',');
  if (strcmp(name, "key") != 0 || key->key_length == 0 || strlen(key->key) != key->key_length)
    cursor->good = false;
  name[take_text(cursor, name, sizeof(name) - 1)] = '\0';
  cursor->want(':');
  size_t length = take_text(cursor, reinterpret_cast<char*>(value), sizeof(value));
  if (strcmp(name, "hex") == 0) {
    length = unhex(cursor, value, length);
  } else if (strcmp(name, "text") != 0) {
    cursor->good = false;
  }
  cursor->want('}');
  if (length > QN_KVS_VALUE_MAX) cursor->good = false;
  if (!cursor->good) return;
  memcpy(key->value, value, length);
  key->value_length = static_cast<uint16_t>(length);
}

void take_document(Cursor* cursor, ImportList* list) {
  char name[8] = "";
  cursor->want('{');
  name[take_text(cursor, name, sizeof(name) - 1)] = '\0';
  cursor->want(':');
  cursor->want('[');
  if (strcmp(name, "keys") != 0) cursor->good = false;
  while (cursor->good && !cursor->take(']')) {
    if (list->count > 0) cursor->want(',');
    ImportKey* const key = list->add();
    cursor->good = cursor->good && key != nullptr;
    if (cursor->good) take_key(cursor, key);
    for (const ImportKey* other = list->keys; cursor->good && other < key; other++)
      cursor->good = strcmp(other->key, key->key) != 0; // a key stands once
  }
  cursor->want('}');
  cursor->want('\0');
}

} // namespace

bool hex_byte(const char* digits, char* byte) {
  const int high = digit(digits[0]);
  const int low = high >= 0 ? digit(digits[1]) : -1;
  *byte = static_cast<char>(high << 4 | low);
  return low >= 0;
}

int read_document(ImportList* list) {
  const Owned<char> text(static_cast<char*>(take_memory(kDocumentMax + 1)));
  const ssize_t length = read_input(text.get(), kDocumentMax, kWaitMs);
  if (length < 0) return fail(kCannotLook, "standard input: %s", why_not(errno));
  Cursor cursor = {text.get()};
  take_document(&cursor, list);
  if (cursor.good) return kFine;
  return fail(kFoundWrong, "standard input is no export: it is odd at byte %td, key %u",
              cursor.at - text.get(), list->count);
}

} // namespace ctl
