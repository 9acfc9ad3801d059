// quillctl log: the records of some roles, merged by stamp, chosen and followed.
#include <poll.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "command.h"
#include "log_chain.h"
#include "log_line.h"
#include "output.h"
#include "roles.h"

namespace ctl {
namespace {

constexpr unsigned kSourcesMax = 32; // two for each word
constexpr unsigned long kTailMax = 10000;
constexpr unsigned long kTailOfFollow = 10;
constexpr unsigned long kLinesAtOnce = 20000;
constexpr int kPauseMs = 20;
constexpr size_t kOutputBuffer = 65536;

struct Choice {
  Stamp since = kNever;
  const char* levels = nullptr;
  const char* module = nullptr;
  const char* biz_name = nullptr;
  const char* text = nullptr;
  bool by_logid = false;
  unsigned long logid = 0;

  bool takes(const LogLine& line) const {
    return line.stamp >= since && (levels == nullptr || strchr(levels, line.level) != nullptr) &&
           (module == nullptr || line.module.is(module)) &&
           (biz_name == nullptr || line.biz_name.is(biz_name)) && (!by_logid || line.logid == logid) &&
           (text == nullptr || memmem(line.text.at, line.text.length, text, strlen(text)) != nullptr);
  }
};

// One log of one role, with the line that comes next.
struct Source {
  LogChain chain;
  const char* role;
  bool is_errors; // only what is older than all of the role's other log
  bool has_line;  // `line`
  bool is_record; // and it could be taken apart
  bool passes;    // what belongs to a record goes its way
  bool went_back; // the clock, before this line
  Stamp stamp;    // of the record
  const char* line;
  size_t length;
  LogLine parts;
};

// A line that waits for the end, to be among the last.
struct Kept {
  char* bytes;
  size_t length;
  const char* role;
  bool is_mark;
};

class Printer {
 public:
  Printer(const Calendar& calendar, bool json, bool with_role)
      : calendar_(calendar), json_(json), with_role_(with_role), colours_(!json && colours()) {}
  ~Printer() {
    for (unsigned long i = 0; i < size_; i++) free(tail_[i].bytes);
    free(tail_);
  }
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;

  // From now on lines are kept, and the last ones come with release().
  void keep_last(unsigned long count) {
    size_ = count;
    tail_ = static_cast<Kept*>(take_memory((count + 1) * sizeof(Kept)));
  }

  void release() {
    for (unsigned long i = 0; i < size_; i++) {
      const Kept& it = tail_[place_];
      if (it.bytes != nullptr) print(it.role, it.bytes, it.length, it.is_mark);
      place_ = place_ + 1 < size_ ? place_ + 1 : 0;
    }
    keeps_ = false;
  }

  void put(const char* role, const char* line, size_t length, bool is_mark = false) {
    if (tail_ == nullptr || !keeps_) return print(role, line, length, is_mark);
    if (size_ == 0) return;
    Kept& it = tail_[place_];
    place_ = place_ + 1 < size_ ? place_ + 1 : 0;
    free(it.bytes);
    it = {static_cast<char*>(take_memory(length + 1)), length, role, is_mark};
    memcpy(it.bytes, line, length);
  }

  void mark(const char* role, const char* format, ...) QN_PRINTF(3, 4) {
    char text[120];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    put(role, text, static_cast<size_t>(length), true);
  }

 private:
  void print(const char* role, const char* line, size_t length, bool is_mark) {
    LogLine parts;
    const bool is_record = !is_mark && parse_log_line(calendar_, line, length, &parts);
    if (json_) return print_json(role, line, length, is_mark, is_record ? &parts : nullptr);
    const char* const colour = !colours_   ? nullptr
                               : is_mark   ? "\033[7m"
                               : is_record ? colour_of(parts.level)
                                           : nullptr;
    if (colour != nullptr) fputs(colour, stdout);
    if (with_role_ || is_mark) printf("%-6s ", role);
    put_shown(line, length);
    fputs(colour != nullptr ? "\033[0m\n" : "\n", stdout);
  }

  static const char* colour_of(char level) {
    if (strchr("GEF", level) != nullptr) return "\033[31m";
    if (level == 'W') return "\033[33m";
    return level == 'D' || level == 'T' ? "\033[2m" : nullptr;
  }

  void print_json(const char* role, const char* line, size_t length, bool is_mark, const LogLine* parts) {
    Json json;
    json.open('{');
    json.text("role", role);
    if (parts != nullptr) {
      json.text("stamp", parts->stamp_text.at, parts->stamp_text.length);
      json.number("logid", parts->logid);
      json.text("level", &parts->level, 1);
      json.text("module", parts->module.at, parts->module.length);
      json.text("biz_name", parts->biz_name.at, parts->biz_name.length);
      json.text("text", parts->text.at, parts->text.length);
    } else {
      json.text(is_mark ? "mark" : "text", line, length);
    }
    json.close('}');
    json.end_line();
  }

  const Calendar& calendar_;
  const bool json_, with_role_, colours_;
  Kept* tail_ = nullptr;
  unsigned long size_ = 0, place_ = 0; // where the oldest lies, once all are taken
  bool keeps_ = true;
};

class Reader {
 public:
  Reader(const Calendar& calendar, const Choice& choice, Printer* printer)
      : calendar_(calendar), choice_(choice), printer_(printer) {}
  ~Reader() {
    for (unsigned i = 0; i < count_; i++) {
      sources_[i]->chain.stop();
      free(sources_[i]);
    }
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // The role's error file gives what is older than the oldest of the other one. Returns whether it has a
  // log.
  bool add_role(int folder, const char* role, LogWatch* watch) {
    const bool has_errors = add(folder, role, "_error", nullptr);
    Source* const errors = sources_[count_ - 1];
    const bool has_records = add(folder, role, "", watch);
    errors->is_errors = true;
    return has_errors || has_records;
  }

  // Prints what is there, but no more than so many lines. Returns whether that was all.
  bool drain(unsigned long lines_max = ULONG_MAX) {
    for (unsigned i = 0; i < count_; i++) advance(sources_[i]);
    drop_repeated_errors();
    Source* last = nullptr;
    unsigned long lines = 0;
    for (; lines < lines_max; lines++) {
      Source* const source = first_of(last);
      if (source == nullptr) break;
      print(source);
      source->has_line = false;
      advance(source);
      if (source->is_errors) drop_repeated_errors();
      last = source;
    }
    fflush(stdout);
    return lines < lines_max;
  }

 private:
  bool add(int folder, const char* role, const char* format, LogWatch* watch) {
    Source* const source = static_cast<Source*>(take_memory(sizeof(Source)));
    source->role = role;
    source->stamp = kNever;
    sources_[count_++] = source;
    return source->chain.start(folder, role, format, watch);
  }

  void advance(Source* source) {
    while (!source->has_line) {
      switch (source->chain.next(&source->line, &source->length)) {
        case LogStep::kNothing:
          return;
        case LogStep::kLost: {
          const unsigned lost = source->chain.lost();
          char which[48] = ""; // a number that nobody knows is not told
          if (lost > 0) snprintf(which, sizeof(which), ": %u files were moved away unread", lost);
          printer_->mark(source->role, "--- records are missing here%s ---", which);
          break;
        }
        case LogStep::kEmptied:
          printer_->mark(source->role, "--- the log was emptied or begun anew here ---");
          break;
        case LogStep::kLine:
          take_line(source);
          break;
      }
    }
  }

  // A line that is no record belongs to the one before it; an empty one, which a text's own line feed
  // leaves, to nobody.
  void take_line(Source* source) {
    if (source->length == 0) return;
    source->has_line = true;
    source->is_record = parse_log_line(calendar_, source->line, source->length, &source->parts);
    if (!source->is_record) return;
    source->went_back = source->stamp != kNever && source->stamp - source->parts.stamp >= kSecond;
    source->stamp = source->parts.stamp;
    source->passes = choice_.takes(source->parts);
  }

  // Sources come in pairs: a role's errors and all of its records.
  void drop_repeated_errors() {
    for (unsigned i = 0; i + 1 < count_; i += 2) {
      Source* const errors = sources_[i];
      const Source* const records = sources_[i + 1];
      if (!first_known_[i] && records->has_line && records->is_record) {
        first_known_[i] = true;
        first_[i] = records->stamp;
      }
      if (!errors->has_line || !first_known_[i] || errors->stamp < first_[i]) continue;
      errors->has_line = false;
      errors->chain.stop();
    }
  }

  // The one with the oldest line; of equal ones the last, whose record may go on.
  Source* first_of(Source* last) {
    Source* first = last != nullptr && last->has_line ? last : nullptr;
    for (unsigned i = 0; i < count_; i++) {
      if (sources_[i]->has_line && (first == nullptr || sources_[i]->stamp < first->stamp))
        first = sources_[i];
    }
    return first;
  }

  void print(Source* source) {
    if (!source->passes) return;
    if (source->is_record && source->went_back) {
      printer_->mark(source->role, "--- the clock went back here ---");
    }
    printer_->put(source->role, source->line, source->length);
  }

  const Calendar& calendar_;
  const Choice& choice_;
  Printer* printer_;
  Source* sources_[kSourcesMax];
  bool first_known_[kSourcesMax] = {};
  Stamp first_[kSourcesMax] = {};
  unsigned count_ = 0;
};

// Until the time is over, the reader of our output is gone, or the folder is. After something was printed
// only a rotation counts for a moment: a follower that woke for each record would have no time left for
// what is urgent.
int follow(LogWatch* watch, Reader* reader, int64_t seconds) {
  const int64_t end = seconds > 0 ? monotonic_ms() + seconds * 1000 : INT64_MAX;
  for (bool all = true, pause = false;;) {
    const int64_t left = end == INT64_MAX ? -1 : end - monotonic_ms();
    if (end != INT64_MAX && left <= 0) return kFine;
    struct pollfd ask[] = {{watch->names_fd(), POLLIN, 0},
                           {STDOUT_FILENO, 0, 0},
                           {pause ? -1 : watch->writes_fd(), POLLIN, 0}};
    const int64_t wait_ms = !all ? 0 : pause ? kPauseMs : left > INT32_MAX ? INT32_MAX : left;
    const int ready = poll(ask, 3, static_cast<int>(wait_ms));
    if (ready < 0 && errno != EINTR) return fail(kCannotLook, "%s cannot be watched", kLogFolder);
    if ((ask[1].revents & (POLLERR | POLLHUP)) != 0) return kFine;
    pause = ready > 0 || !all;
    watch->take_writes();
    all = reader->drain(kLinesAtOnce);
    if (watch->is_gone()) return fail(kCannotLook, "%s is gone", kLogFolder);
    if (ferror(stdout) != 0) return kCannotLook;
  }
}

int read_choice(const Arguments& arguments, int64_t now, Choice* choice) {
  int64_t seconds = 0;
  if (arguments.has('S') && !parse_duration(arguments.get('S'), &seconds))
    return fail(kUsage, "log: --since takes 90s, 5m, 2h or 1d");
  if (arguments.has('S')) choice->since = Calendar::before(now, seconds);
  choice->levels = arguments.get('l');
  if (choice->levels != nullptr && choice->levels[strspn(choice->levels, "GEWIDFT")] != '\0')
    return fail(kUsage, "log: levels are letters of GEWIDFT");
  choice->module = arguments.get('M');
  choice->biz_name = arguments.get('b');
  choice->text = arguments.get('g');
  choice->by_logid = arguments.has('L');
  if (choice->by_logid && !parse_number(arguments.get('L'), 0, UINT32_MAX, &choice->logid))
    return fail(kUsage, "log: a logid is a number");
  return kFine;
}

int check_roles(const Arguments& arguments) {
  for (int i = 0; i < arguments.count; i++) {
    if (find_role(arguments.words[i], strlen(arguments.words[i])) != nullptr) continue;
    return fail(kUsage, "no role is called %s; see quillcore-log(5)", shown(arguments.words[i]));
  }
  return kFine;
}

int add_roles(const Arguments& arguments, int folder, LogWatch* watch, Reader* reader) {
  bool any = watch != nullptr;
  for (int i = 0; i < arguments.count; i++) {
    const bool has_log = reader->add_role(folder, arguments.words[i], watch);
    any = any || has_log;
  }
  if (any) return kFine;
  return fail(kCannotLook, "no log of that role can be read in %s; ask as root", kLogFolder);
}

} // namespace

int run_log(const Arguments& arguments) {
  const int64_t now = time(nullptr);
  const Calendar calendar(now);
  Choice choice;
  unsigned long tail = kTailOfFollow;
  int64_t seconds = 0;
  if (const int status = check_roles(arguments)) return status;
  if (const int status = read_choice(arguments, now, &choice)) return status;
  if (arguments.has('n') && !parse_number(arguments.get('n'), 0, kTailMax, &tail))
    return fail(kUsage, "log: --tail is 0 to 10000");
  if (arguments.has('F') &&
      (!arguments.has('f') || !parse_duration(arguments.get('F'), &seconds) || seconds == 0))
    return fail(kUsage, "log: --for takes a time, and goes with --follow");

  const Folder folder(kLogFolder);
  LogWatch watch;
  if (!folder.valid())
    return fail(kCannotLook, "%s: %s; no daemon of this family ran", kLogFolder, why_not(errno));
  if (arguments.has('f') && !watch.start(folder.fd()))
    return fail(kCannotLook, "%s cannot be watched", kLogFolder);
  setvbuf(stdout, nullptr, _IOFBF, kOutputBuffer);

  Printer printer(calendar, arguments.has('j'), arguments.count > 1);
  Reader reader(calendar, choice, &printer);
  if (const int status =
          add_roles(arguments, folder.fd(), arguments.has('f') ? &watch : nullptr, &reader))
    return status;
  if (arguments.has('n') || (arguments.has('f') && !arguments.has('S'))) printer.keep_last(tail);
  reader.drain();
  printer.release();
  fflush(stdout);
  return arguments.has('f') ? follow(&watch, &reader, seconds) : kFine;
}

} // namespace ctl
