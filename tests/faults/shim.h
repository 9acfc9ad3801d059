// Makes the n-th call of one libc function fail, and counts what must not be lost.
//
// The program is linked with --wrap for the functions listed in CMakeLists.txt, so that the calls of the
// library and of the tests come through the shim; calls inside libc do not. One fault is armed at a time.
// It counts the calls of all threads but the spared ones, and those of a child before its execv().
#ifndef TESTS_FAULTS_SHIM_H
#define TESTS_FAULTS_SHIM_H

#include <pthread.h>

#include <map>
#include <string_view>

namespace shim {

enum How {
  kFail,       // the n-th call fails
  kFailAlways, // so does every later one
  kShort,      // the n-th read() or write() moves half of what it was asked to
  kNothing,    // the n-th read() or write() returns 0
};

struct Fault {
  // "malloc" is calloc() too: the compiler turns one into the other. fcntl() and epoll_ctl() go by their
  // commands: "F_GETFL", "F_SETFL", "EPOLL_CTL_ADD", "EPOLL_CTL_MOD"; ioctl() too: "SIOCGIFINDEX".
  std::string_view call;
  int nth; // from 1
  int error;
  How how = kFail;
};

void arm(const Fault& fault);
void disarm();
bool fired(); // whether the n-th call has been made since arm(); any thread may ask

void spare(bool on); // the calls of this thread are not counted while it is on

// The next thread that is detached is left joinable instead, for a caller that wants to see its end.
void keep_detached(pthread_t* thread);

// What must be as before when an operation is gone: heap blocks from the wrapped functions, less those
// that were freed; calls of close() on a number that was not open; descriptors that a program started at
// any moment would get.
std::map<std::string_view, int> tally();

} // namespace shim

#endif // TESTS_FAULTS_SHIM_H
