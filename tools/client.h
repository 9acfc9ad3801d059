// A client of a service that never waits without a limit: one connection, one request, one answer.
#ifndef TOOLS_CLIENT_H
#define TOOLS_CLIENT_H

#include <quillcore/service.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "command.h"
#include "files.h"

namespace ctl {

constexpr size_t kBodyMax = QN_MSG_SIZE_MAX - sizeof(qn_msg_hdr_t);
constexpr size_t kAnswerMax = sizeof(qn_msg_hdr_t) + UINT16_MAX;

// How long --timeout says, 2 seconds without it. False, having said what is wrong.
bool read_timeout(const Arguments& arguments, int* timeout_ms);

// Connects at once or not at all, and not through a link. Returns an invalid descriptor and errno: ELOOP
// for a link, ENOTSOCK, EAGAIN where the service does not take connections, ECONNREFUSED where nobody
// listens.
Fd connect_now(const char* path);

// Why connect_now() did not.
const char* why_unanswered(int error);

struct Answer {
  qn_msg_hdr_t header;
  const uint8_t* body; // in `bytes`
  size_t body_length;
  uint32_t microseconds;
  uint8_t bytes[kAnswerMax + 1]; // one more than can be, so that longer can be told
};

// Sends a request and waits for its answer. Returns 0; -1 having said what is wrong.
int ask(const char* path, uint8_t type, uint16_t source, const void* body, size_t body_length,
        int timeout_ms, Answer* answer);

// The code and the text of an error body, null for a body that is none.
const char* error_text(const Answer& answer, uint32_t* code);
const char* name_of_error(uint8_t msg_err);

// Reads standard input to its end, at most `size` bytes, in at most so many milliseconds from part to
// part. Returns the length; -1 and errno, ETIMEDOUT or EFBIG among others.
ssize_t read_input(void* buffer, size_t size, int timeout_ms);

} // namespace ctl

#endif // TOOLS_CLIENT_H
