// What tests ask of processes: their open descriptors, the end of a child, something that comes to hold.
#ifndef TESTS_SUPPORT_MAIN_H
#define TESTS_SUPPORT_MAIN_H

#include <sys/types.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>

// Of this process, or of the one with this number.
std::set<int> open_descriptors(const std::string& process = "self");
void close_descriptors_not_in(const std::set<int>& kept);

// How the child ended, for the macros of <sys/wait.h>.
int status_of(pid_t child);

// Asks until the condition holds; false when it does not within half a minute.
template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

#endif // TESTS_SUPPORT_MAIN_H
