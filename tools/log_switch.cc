// quillctl log set, get, reset: the switches of a running daemon, by the convention of docs/files.md.
#include <quillcore/log.h>

#include <cstdio>
#include <cstring>

#include "client.h"
#include "command.h"
#include "output.h"

namespace ctl {
namespace {

constexpr uint8_t kType = 250;
constexpr uint8_t kGet = 0;
constexpr uint8_t kReset = 255;
constexpr size_t kTextMax = 63;

constexpr struct Step {
  const char* name;
  uint8_t code;
  bool is_named; // a switch of one call site or one operation
} kSteps[] = {{"level", QN_LOG_PERMIT_LEVEL, false},
              {"biz", QN_LOG_PERMIT_BIZ, true},
              {"logid", QN_LOG_PERMIT_LOGID, true},
              {"console", QN_LOG_PERMIT_CONSOLE, false},
              {"trace", QN_LOG_PERMIT_TRACE, false}};

const Step* find_step(const char* name) {
  for (const Step& step : kSteps) {
    if (strcmp(step.name, name) == 0) return &step;
  }
  return nullptr;
}

const Step* find_step(uint8_t code) {
  for (const Step& step : kSteps) {
    if (step.code == code) return &step;
  }
  return nullptr;
}

// Sends the body and takes the answer. Returns a Status, having said what is wrong.
int exchange(const Arguments& arguments, const uint8_t* body, size_t length, Answer* answer) {
  unsigned long source = 1;
  int timeout_ms = 0;
  if (!arguments.has('s')) return fail(kUsage, "log: -s PATH names the daemon's socket");
  if (arguments.has('m') && !parse_number(arguments.get('m'), 1, 65535, &source))
    return fail(kUsage, "log: BITS is 1 to 65535");
  if (!read_timeout(arguments, &timeout_ms)) return kUsage;
  const char* const path = arguments.get('s');
  if (ask(path, kType, static_cast<uint16_t>(source), body, length, static_cast<int>(timeout_ms),
          answer) != 0)
    return kCannotLook;
  if (answer->header.msg_err == QN_MSG_ERR_OK) return kFine;
  uint32_t code = 0;
  const char* const text = error_text(*answer, &code);
  if (text != nullptr) return fail(kFoundWrong, "refused, code %u: %s", code, shown(text));
  if (answer->header.msg_err != QN_MSG_ERR_NO_HANDLER) return fail(kFoundWrong, "refused");
  return fail(kFoundWrong, "no log switches for source %lu; try another with -m", source);
}

int exchange_byte(const Arguments& arguments, uint8_t byte, Answer* answer) {
  return exchange(arguments, &byte, 1, answer);
}

struct Request {
  uint8_t bytes[1 + 3 * (1 + kTextMax)];
  size_t length = 0;

  bool add(const char* text) {
    const size_t size = strlen(text);
    if (size > kTextMax) return false;
    bytes[length++] = static_cast<uint8_t>(size);
    memcpy(bytes + length, text, size);
    length += size;
    return true;
  }
};

// The rows of an answer: a step and three counted texts each.
class Rows {
 public:
  explicit Rows(const Answer& answer) : at_(answer.body), end_(answer.body + answer.body_length) {}

  // False behind the last one and for what is none; is_whole() tells which.
  bool next(const Step** step, const char* (&texts)[3], size_t (&lengths)[3]) {
    if (at_ == end_) return false;
    *step = find_step(*at_++);
    for (int i = 0; i < 3; i++) {
      if (at_ == end_ || *at_ > end_ - at_ - 1) return whole_ = false;
      lengths[i] = *at_++;
      texts[i] = reinterpret_cast<const char*>(at_);
      at_ += lengths[i];
    }
    return whole_ = *step != nullptr;
  }
  bool is_whole() const { return whole_; }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
  bool whole_ = true;
};

} // namespace

int run_log_set(const Arguments& arguments) {
  const Step* const step = find_step(arguments.words[1]);
  if (step == nullptr) return fail(kUsage, "log set: WHAT is level, console, trace, logid or biz");
  if (step->is_named != (arguments.count == 4))
    return fail(kUsage, "log set: %s takes %s", step->name,
                step->is_named ? "a NAME and on or off" : "one VALUE");
  const char* const name = step->is_named ? arguments.words[2] : "";
  unsigned long number = 0;
  if (step->code == QN_LOG_PERMIT_LOGID && !parse_number(name, 0, INT32_MAX, &number))
    return fail(kUsage, "log set: a logid is a number");

  Request request;
  request.bytes[request.length++] = step->code;
  if (!request.add(arguments.words[0]) || !request.add(name) ||
      !request.add(arguments.words[arguments.count - 1]))
    return fail(kUsage, "log set: a word has at most 63 bytes");
  const Owned<Answer> answer;
  const int status = exchange(arguments, request.bytes, request.length, answer.get());
  if (status == kFine) puts("set; gone when the daemon restarts, or with quillctl log reset");
  return status;
}

int run_log_reset(const Arguments& arguments) {
  const Owned<Answer> answer;
  const int status = exchange_byte(arguments, kReset, answer.get());
  if (status == kFine) puts("reset; the configuration holds again");
  return status;
}

int run_log_get(const Arguments& arguments) {
  const Owned<Answer> answer;
  if (const int status = exchange_byte(arguments, kGet, answer.get())) return status;
  const Step* step = nullptr;
  const char* texts[3];
  size_t lengths[3];
  constexpr const char* kNames[] = {"role", "name", "value"};
  Rows rows(*answer);
  Json json;
  unsigned count = 0;
  if (arguments.has('j')) json.open('[');
  for (; rows.next(&step, texts, lengths); count++) {
    if (arguments.has('j')) {
      json.open('{');
      json.text("what", step->name);
      for (int i = 0; i < 3; i++) json.text(kNames[i], texts[i], lengths[i]);
      json.close('}');
    } else {
      printf("%-8s %-8s %-32s %s\n", shown(texts[0], lengths[0]), step->name, shown(texts[1], lengths[1]),
             shown(texts[2], lengths[2]));
    }
  }
  if (arguments.has('j')) json.close(']');
  if (arguments.has('j')) json.end_line();
  if (!rows.is_whole()) return fail(kCannotLook, "the answer is not one of log switches");
  if (!arguments.has('j') && count == 0) puts("nothing was set since the start or the last reset");
  return kFine;
}

} // namespace ctl
