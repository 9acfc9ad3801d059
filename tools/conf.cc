// quillctl conf check, and what it knows of a configuration.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "conf_text.h"
#include "files.h"
#include "output.h"
#include "roles.h"

namespace ctl {
namespace {

constexpr size_t kKeySize = 64;
constexpr size_t kValueSize = 256;

bool is_white(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

bool is_text(const char* bytes, size_t length, const char* text) {
  return strlen(text) == length && memcmp(bytes, text, length) == 0;
}

// Where the reader stands. Lines are counted as it moves on, from 1.
class Reader {
 public:
  Reader(const char* at, const char* end) : at_(at), end_(end) {}

  const char* at() const { return at_; }
  const char* end() const { return end_; }
  unsigned line() const { return line_; }
  bool is_done() const { return at_ == end_; }

  void move_to(const char* place) {
    while (at_ < place) line_ += *at_++ == '\n';
  }
  void skip_white() {
    const char* place = at_;
    while (place < end_ && is_white(*place)) place++;
    move_to(place);
  }
  // The end of the line or of the text.
  const char* line_end() const { return find('\n'); }
  const char* find(char byte) const {
    const void* const found = memchr(at_, byte, static_cast<size_t>(end_ - at_));
    return found != nullptr ? static_cast<const char*>(found) : end_;
  }

 private:
  const char* at_;
  const char* end_;
  unsigned line_ = 1;
};

size_t trimmed(const char* bytes, size_t length) {
  while (length > 0 && is_white(bytes[length - 1])) length--;
  return length;
}

void warn(ConfText* conf, ConfOddity oddity, unsigned line, const ConfEntry* entry = nullptr) {
  if (conf->warning_count < kConfWarningsMax)
    conf->warnings[conf->warning_count++] = {oddity, line, entry};
}

// The key, up to the "=". Returns false when the reading ends here.
bool parse_key(ConfText* conf, Reader* reader, ConfEntry* entry) {
  const char* const equals = reader->find('=');
  const char* const start = reader->at();
  const size_t stretch = static_cast<size_t>(equals - start);
  if (*start == '#') warn(conf, ConfOddity::kComment, reader->line());
  if (equals == reader->end()) return warn(conf, ConfOddity::kNoEquals, reader->line()), false;
  if (memchr(start, '\n', stretch) != nullptr) warn(conf, ConfOddity::kIntoKey, reader->line());
  if (stretch >= kKeySize) return warn(conf, ConfOddity::kKeyTooLong, reader->line()), false;
  entry->key = start;
  entry->key_length = trimmed(start, stretch);
  reader->move_to(equals);
  entry->line = reader->line();
  reader->move_to(equals + 1);
  return true;
}

bool parse_value(ConfText* conf, Reader* reader, ConfEntry* entry) {
  reader->skip_white();
  if (reader->line() != entry->line && !reader->is_done())
    warn(conf, ConfOddity::kIntoValue, reader->line(), entry);
  const char* const start = reader->at();
  const size_t stretch = static_cast<size_t>(reader->line_end() - start);
  entry->value = start;
  if (stretch >= kValueSize) return warn(conf, ConfOddity::kValueTooLong, reader->line(), entry), false;
  entry->value_length = trimmed(start, stretch);
  reader->move_to(start + stretch);
  return true;
}

void find_entries(ConfText* conf, size_t size) {
  Reader reader(conf->text, conf->text + trimmed(conf->text, size));
  for (;;) {
    reader.skip_white();
    if (reader.is_done()) return;
    if (conf->entry_count == kConfEntriesMax) return warn(conf, ConfOddity::kTooMany, reader.line());
    ConfEntry& entry = conf->entries[conf->entry_count];
    entry = {};
    // Of an entry that breaks a limit the loader keeps the key, where that was whole, and an empty value.
    if (!parse_key(conf, &reader, &entry)) return;
    conf->entry_count++;
    if (!parse_value(conf, &reader, &entry)) return;
  }
}

bool same_key(const ConfEntry& left, const ConfEntry& right) {
  return left.key_length == right.key_length && memcmp(left.key, right.key, left.key_length) == 0;
}

// The last entry of a key holds, but the file's first entry holds against all later ones.
void find_who_holds(ConfText* conf) {
  for (unsigned i = 0; i < conf->entry_count; i++) {
    ConfEntry& entry = conf->entries[i];
    entry.holds = true;
    for (unsigned j = 0; j < i; j++) {
      ConfEntry& earlier = conf->entries[j];
      if (!same_key(earlier, entry) || !earlier.holds) continue;
      (j == 0 ? entry : earlier).holds = false;
      warn(conf, j == 0 ? ConfOddity::kFirstHolds : ConfOddity::kTwice, entry.line, &earlier);
    }
  }
}

// "log.ROLE.WHAT". Other keys are somebody else's.
void judge_entry(ConfText* conf, const ConfEntry& entry) {
  if (entry.key_length < 4 || memcmp(entry.key, "log.", 4) != 0) return;
  const char* const role = entry.key + 4;
  const size_t rest = entry.key_length - 4;
  const void* const dot = memchr(role, '.', rest);
  const size_t role_length =
      dot != nullptr ? static_cast<size_t>(static_cast<const char*>(dot) - role) : rest;
  const bool is_default = is_text(role, role_length, "default");
  if (!is_default && find_role(role, role_length) == nullptr)
    return warn(conf, ConfOddity::kUnknownRole, entry.line, &entry);
  const char* const what = role + role_length;
  const size_t what_length = rest - role_length;
  const bool is_on_off = is_text(what, what_length, ".console") || is_text(what, what_length, ".trace");
  if (is_text(what, what_length, ".level")) {
    if (entry.value_length == 0 || strchr("GEWIDF", entry.value[0]) == nullptr)
      warn(conf, ConfOddity::kNoLevel, entry.line, &entry);
  } else if (!is_on_off || is_default) {
    warn(conf, ConfOddity::kUnknownKey, entry.line, &entry);
  } else if (!is_text(entry.value, entry.value_length, "on") &&
             !is_text(entry.value, entry.value_length, "off")) {
    warn(conf, ConfOddity::kNoSwitch, entry.line, &entry);
  }
}

void sort_warnings(ConfText* conf) {
  for (unsigned i = 1; i < conf->warning_count; i++) {
    const ConfWarning it = conf->warnings[i];
    unsigned place = i;
    for (; place > 0 && conf->warnings[place - 1].line > it.line; place--)
      conf->warnings[place] = conf->warnings[place - 1];
    conf->warnings[place] = it;
  }
}

void json_conf(const char* path, const ConfText& conf) {
  Json json;
  json.open('{');
  json.text("file", path);
  json.open('[', "entries");
  for (unsigned i = 0; i < conf.entry_count; i++) {
    const ConfEntry& entry = conf.entries[i];
    json.open('{');
    json.number("line", entry.line);
    json.text("key", entry.key, entry.key_length);
    json.text("value", entry.value, entry.value_length);
    json.flag("holds", entry.holds);
    json.close('}');
  }
  json.close(']');
  json.open('[', "warnings");
  for (unsigned i = 0; i < conf.warning_count; i++) {
    json.open('{');
    json.number("line", conf.warnings[i].line);
    json.text("what", text_of(conf.warnings[i].oddity));
    json.close('}');
  }
  json.close(']');
  json.close('}');
  json.end_line();
}

void print_conf(const ConfText& conf) {
  puts("LINE  KEY                        VALUE");
  for (unsigned i = 0; i < conf.entry_count; i++) {
    const ConfEntry& entry = conf.entries[i];
    printf("%4u  %-26s %s%s\n", entry.line, shown(entry.key, entry.key_length),
           entry.holds ? "" : "(not in force) ", shown(entry.value, entry.value_length));
  }
  for (unsigned i = 0; i < conf.warning_count; i++) {
    const ConfWarning& warning = conf.warnings[i];
    printf("warn  line %u: %s", warning.line, text_of(warning.oddity));
    if (warning.entry != nullptr) printf(" (%s)", shown(warning.entry->key, warning.entry->key_length));
    putchar('\n');
  }
  if (conf.warning_count == 0) printf("%u entries, nothing odd\n", conf.entry_count);
}

} // namespace

const Role* find_role(const char* name, size_t length) {
  for (const Role& role : kRoles) {
    if (is_text(name, length, role.name)) return &role;
  }
  return nullptr;
}

const char* text_of(ConfOddity oddity) {
  constexpr const char* kTexts[] = {
      "a key over 63 bytes: the reading ends here",
      "a value over 255 bytes: empty, the reading ends",
      "text beyond 32767 bytes is not read",
      "a NUL byte: the reading ends here",
      "no \"=\" from here on: the rest is not read",
      "a line without \"=\" became part of the next key",
      "it became the value of the empty entry before",
      "a \"#\" begins no comment: it became part of a key",
      "the key again, and this one holds",
      "the key again, but its first entry holds",
      "no role is called so: nobody asks for this key",
      "nobody asks for this key",
      "no level: none of E, W, I and D pass",
      "neither on nor off: it counts as off",
      "more entries than are shown",
  };
  return kTexts[static_cast<int>(oddity)];
}

int read_conf(const char* path, ConfText* conf) {
  const Fd fd(open_plain(path));
  const ssize_t size = fd.valid() ? read_up_to(fd.get(), conf->text, kConfTextMax + 1) : -1;
  if (size < 0) return -1;
  conf->size = static_cast<size_t>(size);
  parse_conf(conf);
  return 0;
}

void parse_conf(ConfText* conf) {
  const size_t read = conf->size < kConfTextMax ? conf->size : kConfTextMax;
  const size_t size = strnlen(conf->text, read);
  find_entries(conf, size);
  unsigned last_line = 1;
  for (size_t i = 0; i < size; i++) last_line += conf->text[i] == '\n';
  if (size < read) warn(conf, ConfOddity::kNulByte, last_line);
  if (size == kConfTextMax && conf->size > size) warn(conf, ConfOddity::kBeyondLimit, last_line);
  find_who_holds(conf);
  for (unsigned i = 0; i < conf->entry_count; i++) judge_entry(conf, conf->entries[i]);
  sort_warnings(conf);
}

int run_conf_check(const Arguments& arguments) {
  const char* const path = arguments.count > 0 ? arguments.words[0] : kConfFile;
  const Owned<ConfText> conf;
  if (read_conf(path, conf.get()) != 0) {
    return fail(kCannotLook, "%s: %s%s", shown(path), why_not(errno),
                errno == ENOENT ? "; without it the defaults hold" : "");
  }
  if (arguments.has('j')) {
    json_conf(path, *conf);
  } else {
    print_conf(*conf);
  }
  return conf->warning_count > 0 ? kFoundWrong : kFine;
}

} // namespace ctl
