// The set of white space, which is fixed: isspace() would ask the locale.
#ifndef QN_UTILS_WHITE_SPACE_H
#define QN_UTILS_WHITE_SPACE_H

namespace qn {

constexpr bool is_white_space(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

} // namespace qn

#endif // QN_UTILS_WHITE_SPACE_H
