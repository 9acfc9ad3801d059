// The line for a null name or buffer, on standard output.
#ifndef QN_NET_NULL_POINTER_H
#define QN_NET_NULL_POINTER_H

#include <cstdio>

namespace qn {

// `number` is that of the call site.
inline void print_null_pointer(const char* function, int number) {
  printf("%s(%d)] NULLPTR Error !!!\r\n", function, number);
}

} // namespace qn

#endif // QN_NET_NULL_POINTER_H
