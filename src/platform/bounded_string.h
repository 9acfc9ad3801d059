// Bounds-checked string operations in the manner of ISO/IEC 9899:2011, Annex K, with a count argument on
// the formatters. Neither glibc nor musl has them.
//
// The copies return 0 or an errno number; a failed one leaves an empty destination. The formatters
// return the number of characters or -1.
#ifndef QN_PLATFORM_BOUNDED_STRING_H
#define QN_PLATFORM_BOUNDED_STRING_H

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

// Copies a number of bytes that only the run knows. A memcpy() that the compiler sees to be short becomes
// an instruction that takes longer than the call.
inline void copy_bytes(void* dest, const void* source, size_t count) { memmove(dest, source, count); }

inline int memset_s(void* dest, size_t dest_size, int byte, size_t count) {
  if (dest == nullptr || count > dest_size) return EINVAL;
  memset(dest, byte, count);
  return 0;
}

inline int memcpy_s(void* dest, size_t dest_size, const void* source, size_t count) {
  if (dest == nullptr) return EINVAL;
  if (source == nullptr || count > dest_size) {
    memset(dest, 0, dest_size);
    return EINVAL;
  }
  if (count != 0) copy_bytes(dest, source, count);
  return 0;
}

// Copies at most `count` bytes of the source's text and terminates the copy.
inline int strncpy_s(char* dest, size_t dest_size, const char* source, size_t count) {
  if (dest == nullptr || dest_size == 0) return EINVAL;
  dest[0] = '\0';
  if (source == nullptr) return EINVAL;
  const size_t length = strnlen(source, count < dest_size ? count : dest_size);
  if (length == dest_size) return ERANGE;
  copy_bytes(dest, source, length);
  dest[length] = '\0';
  return 0;
}

inline int strcpy_s(char* dest, size_t dest_size, const char* source) {
  return strncpy_s(dest, dest_size, source, dest_size);
}

// Formats at most `count` characters and a terminator. A text that does not fit is cut there, and the
// result is -1.
__attribute__((format(printf, 4, 0))) inline int vsnprintf_s(char* dest, size_t dest_size, size_t count,
                                                             const char* format, va_list args) {
  if (dest == nullptr || dest_size == 0 || dest_size > INT_MAX) return -1;
  const size_t room = count < dest_size ? count + 1 : dest_size;
  const int length = vsnprintf(dest, room, format, args);
  if (length < 0) dest[0] = '\0';
  return length < 0 || static_cast<size_t>(length) >= room ? -1 : length;
}

__attribute__((format(printf, 4, 5))) inline int snprintf_s(char* dest, size_t dest_size, size_t count,
                                                            const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = vsnprintf_s(dest, dest_size, count, format, args);
  va_end(args);
  return length;
}

// Formats a whole text and a terminator or, where that does not fit, nothing.
__attribute__((format(printf, 3, 0))) inline int vsprintf_s(char* dest, size_t dest_size,
                                                            const char* format, va_list args) {
  if (dest == nullptr || dest_size == 0) return -1;
  const int length = vsnprintf_s(dest, dest_size, dest_size - 1, format, args);
  if (length < 0) dest[0] = '\0';
  return length;
}

// As fscanf(); no conversion of text is used with it, which would need a size.
__attribute__((format(scanf, 2, 3))) inline int fscanf_s(FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int count = vfscanf(stream, format, args);
  va_end(args);
  return count;
}

#endif // QN_PLATFORM_BOUNDED_STRING_H
