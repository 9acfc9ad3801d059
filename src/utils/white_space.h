// The set of white space, which is fixed: isspace() would ask the locale.
#ifndef QN_UTILS_WHITE_SPACE_H
#define QN_UTILS_WHITE_SPACE_H

namespace qn {

constexpr bool is_white_space(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

// The first byte that is none, which may be the terminator.
inline char* skip_white_space(char* text) {
  while (is_white_space(*text)) text++;
  return text;
}

} // namespace qn

#endif // QN_UTILS_WHITE_SPACE_H
