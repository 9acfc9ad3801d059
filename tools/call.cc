// quillctl call: one request and its answer.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client.h"
#include "command.h"
#include "import_document.h"
#include "output.h"

namespace ctl {
namespace {

struct Body {
  uint8_t bytes[kBodyMax + 1]; // one more than fits, so that too long can be told
  size_t length;
};

int take_hex(const char* digits, Body* body) {
  for (; *digits != '\0'; digits += *digits == ' ' ? 1 : 2) {
    char byte = 0;
    if (*digits == ' ') continue;
    if (!hex_byte(digits, &byte)) return fail(kUsage, "call: --hex wants two digits a byte");
    if (body->length < sizeof(body->bytes)) body->bytes[body->length++] = static_cast<uint8_t>(byte);
  }
  return kFine;
}

int take_file(const char* path, Body* body) {
  const Fd fd(open_plain(path));
  const ssize_t length = fd.valid() ? read_up_to(fd.get(), body->bytes, sizeof(body->bytes)) : -1;
  if (length < 0) return fail(kCannotLook, "%s: %s", shown(path), why_not(errno));
  body->length = static_cast<size_t>(length);
  return kFine;
}

int take_body(const Arguments& arguments, int timeout_ms, Body* body) {
  int status = kFine;
  if (const char* const text = arguments.get('a')) {
    body->length = strnlen(text, sizeof(body->bytes));
    memcpy(body->bytes, text, body->length);
  } else if (const char* const digits = arguments.get('x')) {
    status = take_hex(digits, body);
  } else if (const char* const path = arguments.get('i')) {
    status = take_file(path, body);
  } else if (arguments.has('p')) {
    const ssize_t length = read_input(body->bytes, sizeof(body->bytes), timeout_ms);
    if (length < 0 && errno != EFBIG) return fail(kCannotLook, "standard input: %s", why_not(errno));
    body->length = length < 0 ? sizeof(body->bytes) : static_cast<size_t>(length);
  }
  if (status == kFine && body->length > kBodyMax)
    return fail(kUsage, "call: a body has at most %zu bytes", kBodyMax);
  return status;
}

void print_answer(const Answer& answer) {
  const qn_msg_hdr_t& header = answer.header;
  printf("msg_err %u, %s; %s ms, msg_id %u, %u bytes\n", header.msg_err, name_of_error(header.msg_err),
         short_ms(answer.microseconds), header.msg_id, header.msg_len);
  uint32_t code = 0;
  if (const char* const text = error_text(answer, &code)) printf("code %u: %s\n", code, shown(text));
  put_dump(answer.body, answer.body_length);
}

void json_answer(const Answer& answer) {
  Json json;
  uint32_t code = 0;
  const char* const text = error_text(answer, &code);
  json.open('{');
  json.number("type", answer.header.msg_type);
  json.number("source", answer.header.msg_src);
  json.number("id", answer.header.msg_id);
  json.number("err", answer.header.msg_err);
  json.text("meaning", name_of_error(answer.header.msg_err));
  json.milliseconds("ms", answer.microseconds);
  if (text != nullptr) json.number("code", code);
  if (text != nullptr) json.text("message", text);
  json.number("bytes", answer.header.msg_len);
  json.hex("hex", answer.body, answer.body_length);
  if (is_plain(answer.body, answer.body_length))
    json.text("text", reinterpret_cast<const char*>(answer.body), answer.body_length);
  json.close('}');
  json.end_line();
}

} // namespace

int run_call(const Arguments& arguments) {
  unsigned long type = 0, source = 0;
  int wait_ms = 0;
  if (!arguments.has('s') || !arguments.has('t') || !arguments.has('m'))
    return fail(kUsage, "call: it takes -s PATH, -t TYPE and -m BITS");
  if (!parse_number(arguments.get('t'), 0, 255, &type) ||
      !parse_number(arguments.get('m'), 0, 65535, &source))
    return fail(kUsage, "call: TYPE is 0 to 255, BITS 0 to 65535");
  if (!read_timeout(arguments, &wait_ms)) return kUsage;
  if (arguments.has('a') + arguments.has('x') + arguments.has('i') + arguments.has('p') > 1)
    return fail(kUsage, "call: a request has one body");

  const Owned<Body> body;
  if (const int status = take_body(arguments, wait_ms, body.get())) return status;
  const Owned<Answer> answer;
  if (ask(arguments.get('s'), static_cast<uint8_t>(type), static_cast<uint16_t>(source), body->bytes,
          body->length, wait_ms, answer.get()) != 0)
    return kCannotLook;
  if (arguments.has('j')) {
    json_answer(*answer);
  } else {
    print_answer(*answer);
  }
  return answer->header.msg_err == QN_MSG_ERR_OK ? kFine : kFoundWrong;
}

} // namespace ctl
