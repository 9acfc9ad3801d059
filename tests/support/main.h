// The descriptors of this process, for tests of what leaves some open by contract.
#ifndef TESTS_SUPPORT_MAIN_H
#define TESTS_SUPPORT_MAIN_H

#include <set>

std::set<int> open_descriptors();
void close_descriptors_not_in(const std::set<int>& kept);

#endif // TESTS_SUPPORT_MAIN_H
