// quillctl pid, and what it knows of a pid file.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "machine.h"
#include "output.h"
#include "pid_file.h"

namespace ctl {
namespace {

constexpr size_t kNameMax = 112; // more does not fit the library's path

// The kernel keeps 15 bytes of a program's name.
bool is_named(const Process& process, const char* name) {
  const char* const dot = strrchr(name, '.');
  size_t length =
      dot != nullptr && strcmp(dot, ".pid") == 0 ? static_cast<size_t>(dot - name) : strlen(name);
  if (length > 15) length = 15;
  return strlen(process.program) == length && strncmp(process.program, name, length) == 0;
}

} // namespace

void read_pid_file(int folder, const char* name, PidFile* file) {
  *file = {};
  snprintf(file->name, sizeof(file->name), "%s", name);
  const Fd fd = open_plain(name, &file->file, folder);
  if (!fd.valid()) {
    file->owner = errno == ENOENT ? Owner::kNone : Owner::kRefused;
    return;
  }
  const bool whole = read_up_to(fd.get(), &file->pid, sizeof(file->pid)) == sizeof(file->pid);
  if (!whole || file->pid <= 0) {
    file->pid = 0;
    file->owner = Owner::kBroken;
    return;
  }
  file->owner = Owner::kGone;
  if (!read_process(file->pid, &file->process)) return;
  // A daemon of this family writes its log, whatever its program and its pid file are called.
  const bool own = is_named(file->process, name) || role_of_process(file->pid) != nullptr;
  file->owner = own ? Owner::kAlive : Owner::kForeign;
}

bool is_pid_name_of(const char* name, const char* text) {
  const size_t length = strlen(text);
  return strncmp(name, text, length) == 0 && (name[length] == '\0' || strcmp(name + length, ".pid") == 0);
}

const char* word_of(Owner owner) {
  constexpr const char* kWords[] = {"alive", "gone", "foreign", "broken", "none", "refused"};
  return kWords[static_cast<int>(owner)];
}

const char* outcome_of(Owner owner) {
  constexpr const char* kOutcomes[] = {
      "a second start is refused",
      "the next start takes the file over",
      "a start is refused until the file is removed",
      "the next start takes the file over",
      "the next start makes it",
      "a start fails, or follows the link",
  };
  return kOutcomes[static_cast<int>(owner)];
}

int run_pid(const Arguments& arguments) {
  const char* const name = arguments.words[0];
  if (strchr(name, '/') != nullptr || strlen(name) > kNameMax || name[0] == '\0')
    return fail(kUsage, "pid: NAME is a file in %s, of at most 112 bytes", kRunFolder);
  const Folder folder(kRunFolder);
  if (!folder.valid() && errno != ENOENT) return fail(kCannotLook, "%s: %s", kRunFolder, why_not(errno));

  PidFile file = {};
  file.owner = Owner::kNone;
  if (folder.valid()) read_pid_file(folder.fd(), name, &file);
  if (folder.valid() && file.owner == Owner::kNone && strlen(name) + 4 <= kNameMax) {
    char with_end[kNameMax + 1];
    snprintf(with_end, sizeof(with_end), "%s.pid", name);
    read_pid_file(folder.fd(), with_end, &file);
  }
  if (file.owner == Owner::kRefused) return fail(kCannotLook, "%s: %s", shown(file.name), why_not(errno));

  if (arguments.has('j')) {
    Json json;
    json.open('{');
    json.text("state", word_of(file.owner));
    if (file.pid > 0) json.number("pid", file.pid);
    if (file.process.pid != 0) json.text("program", file.process.program);
    json.text("outcome", outcome_of(file.owner));
    json.close('}');
    json.end_line();
  } else {
    fputs(word_of(file.owner), stdout);
    if (file.pid > 0) printf(" %d", file.pid);
    if (file.process.pid != 0)
      printf(" %s%s", shown(file.process.program), file.process.state == 'Z' ? " (zombie)" : "");
    printf("; %s\n", outcome_of(file.owner));
  }
  return file.owner == Owner::kAlive ? kFine : kFoundWrong;
}

} // namespace ctl
