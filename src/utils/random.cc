// Random numbers and keys from the kernel's random device.
#include <quillcore/utility.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

#include "platform/bounded_string.h"
#include "platform/past_signals.h"
#include "platform/remainder.h"
#include "platform/standard_streams.h"

namespace {

constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
constexpr uint32_t kAlphabetSize = sizeof(kAlphabet) - 1;

static_assert(kAlphabetSize == 62);

// Reads four bytes; the number holds what came, and zeros for the rest. False when not all four came.
bool read_number(int32_t fd, uint32_t* number) {
  *number = 0;
  return qn::read_past_signals(fd, number, sizeof(*number)) == static_cast<ssize_t>(sizeof(*number));
}

} // namespace

int32_t qn_random_open(void) { return qn::open_above("/dev/random", O_RDONLY); }

void qn_random_close(int32_t fd) {
  if (fd > 0) close(fd);
}

uint32_t qn_random_get_num(int32_t fd) {
  uint32_t number = 0;
  read_number(fd, &number);
  return number;
}

void qn_generate_random_key(char* key, uint32_t length) {
  const int32_t fd = qn_random_open();
  bool random = fd >= 0;
  for (uint32_t i = 0; random && i < length; i++) {
    uint32_t number = 0;
    random = read_number(fd, &number);
    key[i] = kAlphabet[qn::remainder_of(number, kAlphabetSize, qn::inverse_of(kAlphabetSize))];
  }
  qn_random_close(fd);
  // A key that anybody can guess is worse than none.
  const size_t size = size_t{length} + 1;
  if (!random) memset_s(key, size, 0, size);
  key[length] = '\0';
}
