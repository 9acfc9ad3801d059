// What the tool says.
#include "output.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "files.h"

namespace ctl {
namespace {

constexpr size_t kShownSize = 512;
constexpr size_t kLongest = 4; // "\xNN"
constexpr unsigned kBuffers = 8;
constexpr size_t kDumpRow = 16;
constexpr char kDigits[] = "0123456789abcdef";

bool stays(uint8_t byte) { return byte >= ' ' && byte <= '~' && byte != '\\'; }

// Writes one byte in its safe form, at most kLongest. Returns how many.
size_t escape(uint8_t byte, char* out) {
  if (stays(byte)) return out[0] = static_cast<char>(byte), 1;
  out[0] = '\\';
  const char* const named = byte != '\0' ? strchr("\\\\\nn\tt\rr", byte) : nullptr;
  if (named != nullptr && (byte < ' ' || byte == '\\')) return out[1] = named[1], 2;
  out[1] = 'x';
  out[2] = kDigits[byte >> 4];
  out[3] = kDigits[byte & 15];
  return kLongest;
}

} // namespace

const char* shown(const char* bytes, size_t length) {
  static char buffers[kBuffers][kShownSize];
  static unsigned turn;
  char* const buffer = buffers[turn++ % kBuffers];
  size_t used = 0;
  for (size_t i = 0; i < length && used + kLongest < kShownSize; i++) {
    used += escape(static_cast<uint8_t>(bytes[i]), buffer + used);
  }
  buffer[used] = '\0';
  return buffer;
}

const char* shown(const char* text) { return shown(text, strlen(text)); }

void put_shown(const void* bytes, size_t length) {
  const uint8_t* at = static_cast<const uint8_t*>(bytes);
  const uint8_t* const end = at + length;
  while (at < end) {
    const uint8_t* const first = at;
    while (at < end && stays(*at)) at++;
    fwrite(first, 1, static_cast<size_t>(at - first), stdout);
    char escaped[kLongest];
    if (at < end) fwrite(escaped, 1, escape(*at++, escaped), stdout);
  }
}

bool is_plain(const void* bytes, size_t length) {
  const uint8_t* const first = static_cast<const uint8_t*>(bytes);
  for (size_t i = 0; i < length; i++) {
    if (!stays(first[i]) && first[i] != '\\') return false;
  }
  return true;
}

void put_hex(const uint8_t* bytes, size_t length) {
  for (size_t i = 0; i < length; i++) printf("%02x", bytes[i]);
}

void put_value(const uint8_t* bytes, size_t length) {
  if (is_plain(bytes, length)) return put_shown(bytes, length);
  fputs("hex ", stdout);
  put_hex(bytes, length);
}

void put_dump(const uint8_t* bytes, size_t length) {
  for (size_t row = 0; row < length; row += kDumpRow) {
    printf("%04zx ", row);
    for (size_t i = row; i < row + kDumpRow; i++) {
      if (i < length) {
        printf(" %02x", bytes[i]);
      } else {
        fputs("   ", stdout);
      }
    }
    fputs("  ", stdout);
    for (size_t i = row; i < row + kDumpRow && i < length; i++) {
      putchar(stays(bytes[i]) || bytes[i] == '\\' ? bytes[i] : '.');
    }
    putchar('\n');
  }
}

int fail(int status, const char* format, ...) {
  va_list args;
  va_start(args, format);
  fflush(stdout);
  fputs("quillctl: ", stderr);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
  va_end(args);
  return status;
}

const char* bar(unsigned used, unsigned width) {
  static char text[33];
  if (width > sizeof(text) - 1) width = sizeof(text) - 1;
  memset(text, '-', width);
  memset(text, '#', used < width ? used : width);
  text[width] = '\0';
  return text;
}

bool colours() { return isatty(STDOUT_FILENO) != 0; }

void Json::separate(const char* name) {
  if (!first_) putchar(',');
  first_ = false;
  if (name == nullptr) return;
  quote(name, strlen(name));
  putchar(':');
}

void Json::quote(const char* bytes, size_t length) {
  putchar('"');
  for (size_t i = 0; i < length; i++) {
    const uint8_t byte = static_cast<uint8_t>(bytes[i]);
    if (byte == '"' || byte == '\\') putchar('\\');
    if (byte >= ' ' && byte <= '~') {
      putchar(byte);
    } else {
      printf("\\u%04x", byte);
    }
  }
  putchar('"');
}

void Json::open(char bracket, const char* name) {
  separate(name);
  putchar(bracket);
  first_ = true;
}

void Json::close(char bracket) {
  putchar(bracket);
  first_ = false;
}

void Json::text(const char* name, const char* bytes, size_t length) {
  separate(name);
  quote(bytes, length);
}

void Json::number(const char* name, long long value) {
  separate(name);
  printf("%lld", value);
}

void Json::text(const char* name, const char* value) { text(name, value, strlen(value)); }

void Json::milliseconds(const char* name, uint32_t microseconds) {
  separate(name);
  fputs(short_ms(microseconds), stdout);
}

void Json::flag(const char* name, bool value) {
  separate(name);
  fputs(value ? "true" : "false", stdout);
}

void Json::hex(const char* name, const uint8_t* bytes, size_t length) {
  separate(name);
  putchar('"');
  put_hex(bytes, length);
  putchar('"');
}

void Json::bytes(const uint8_t* bytes, size_t length) {
  if (is_plain(bytes, length)) {
    text("text", reinterpret_cast<const char*>(bytes), length);
  } else {
    hex("hex", bytes, length);
  }
}

void Json::end_line() {
  putchar('\n');
  first_ = true;
}

} // namespace ctl
