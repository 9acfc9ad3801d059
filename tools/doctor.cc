// quillctl doctor: what is wrong on this machine, worst first.
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "client.h"
#include "conf_text.h"
#include "machine.h"
#include "output.h"

namespace ctl {
namespace {

constexpr unsigned kFindingsMax = 200;
constexpr uint64_t kLittleRoom = uint64_t{256} * 1024; // two commits of a store
constexpr unsigned kNearLimitPercent = 90;

struct Finding {
  bool bad; // or only a warning
  char about[120];
  char what[200];
};

class Findings {
 public:
  void bad(const char* about, const char* format, ...) QN_PRINTF(3, 4) {
    va_list args;
    va_start(args, format);
    add(true, about, format, args);
    va_end(args);
  }
  void warn(const char* about, const char* format, ...) QN_PRINTF(3, 4) {
    va_list args;
    va_start(args, format);
    add(false, about, format, args);
    va_end(args);
  }
  void fine() { fine_++; }

  unsigned count() const { return count_; }
  unsigned fine_count() const { return fine_; }
  unsigned dropped() const { return dropped_; }
  const Finding& at(unsigned i) const { return rows_[i]; }

 private:
  QN_PRINTF(4, 0) void add(bool bad, const char* about, const char* format, va_list args) {
    Finding* const place = place_for(bad);
    if (place == nullptr) return;
    Finding& it = *place;
    it.bad = bad;
    snprintf(it.about, sizeof(it.about), "%s", shown(about));
    vsnprintf(it.what, sizeof(it.what), format, args);
  }

  // Where all are taken a warning gives way to what is bad: who makes many of those hides none of these.
  Finding* place_for(bool bad) {
    if (count_ < kFindingsMax) return &rows_[count_++];
    dropped_++;
    for (unsigned i = kFindingsMax; bad && i-- > 0;) {
      if (!rows_[i].bad) return &rows_[i];
    }
    return nullptr;
  }

  Finding rows_[kFindingsMax];
  unsigned count_;
  unsigned dropped_;
  unsigned fine_;
};

// --- folders ---

// A link, an owner who is neither root nor the daemons' user, and what anybody may change.
void check_entry(int folder, const char* name, const char* about, uid_t owner, Findings* findings) {
  struct stat status;
  if (!status_of_name(name, &status, folder)) return;
  const unsigned before = findings->count();
  if (S_ISLNK(status.st_mode)) {
    char target[200];
    const ssize_t length = readlinkat(folder, name, target, sizeof(target));
    findings->bad(
        about, "is a link to %.120s: %s", length > 0 ? shown(target, static_cast<size_t>(length)) : "?",
        status.st_uid == 0 || status.st_uid == owner ? "a daemon writes there" : "no daemon opens it");
    return;
  }
  if (status.st_uid != 0 && status.st_uid != owner)
    findings->bad(about, "belongs to user %u, who can change it", status.st_uid);
  if ((status.st_mode & S_IWOTH) != 0 && !S_ISREG(status.st_mode) && !S_ISSOCK(status.st_mode))
    findings->bad(about, "may be changed by everybody: links can be planted");
  if ((status.st_mode & S_IWOTH) != 0 && S_ISREG(status.st_mode))
    findings->warn(about, "may be written by everybody");
  if (S_ISREG(status.st_mode) && status.st_nlink > 1)
    findings->warn(about, "has %lu names: it can be changed elsewhere",
                   static_cast<unsigned long>(status.st_nlink));
  if (before == findings->count()) findings->fine();
}

void check_room(const char* path, const char* outcome, Findings* findings) {
  struct statvfs status;
  if (statvfs(path, &status) != 0) return;
  const uint64_t left = static_cast<uint64_t>(status.f_bavail) * status.f_frsize;
  if (left >= kLittleRoom) return findings->fine();
  findings->bad(path, "%s left on its file system: %s", short_size(left), outcome);
}

void check_folder(const char* path, Findings* findings) {
  struct stat status;
  if (!status_of_name(path, &status)) {
    if (errno != ENOENT) findings->bad(path, "cannot be looked at: %s", why_not(errno));
    if (errno == ENOENT) findings->warn(path, "is not there: no daemon has started");
    return;
  }
  check_entry(AT_FDCWD, path, path, geteuid(), findings);
  Folder folder(path);
  if (!folder.valid()) {
    if (S_ISDIR(status.st_mode)) findings->bad(path, "cannot be opened: %s", why_not(errno));
    if (!S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode))
      findings->bad(path, "is no folder: no daemon starts");
    return;
  }
  while (const char* const name = folder.next())
    check_entry(folder.fd(), name, name, status.st_uid, findings);
  check_room(path, "records and pid files are lost", findings);
}

// --- pid files ---

void check_pid_file(const Daemon& daemon, Findings* findings) {
  const PidFile& file = daemon.pid_file;
  const char* const name = shown(daemon.name);
  switch (file.owner) {
    case Owner::kForeign:
      return findings->bad(file.name, "names %d, now %s: %s will refuse to start", file.pid,
                           shown(file.process.program), name);
    case Owner::kGone:
      return findings->warn(file.name, "names %d, gone: it died; a start takes over", file.pid);
    case Owner::kBroken:
      return findings->warn(file.name, "holds no pid: a second %s would start beside the first", name);
    default:
      break;
  }
  if (file.process.state == 'Z')
    return findings->bad(file.name, "names %d, a zombie: %s will refuse to start", file.pid, name);
  findings->fine();
}

// --- logs ---

// Two processes on one log, each with a length of its own in mind.
void check_writers(const Machine& machine, unsigned index, Findings* findings) {
  const Daemon& daemon = machine.daemons[index];
  for (unsigned i = 0; i < index; i++) {
    const Daemon& other = machine.daemons[i];
    if (!daemon.runs || !other.runs || other.role != daemon.role) continue;
    findings->bad(daemon.role->name, "%d and %d write its log: records can get lost", other.process.pid,
                  daemon.process.pid);
  }
}

void check_log(const Machine& machine, unsigned index, Findings* findings) {
  const Daemon& daemon = machine.daemons[index];
  if (daemon.role == nullptr) return;
  const unsigned before = findings->count();
  check_writers(machine, index, findings);
  const uint32_t limit = daemon.role->log_limit;
  if (daemon.log_bytes > limit + limit / 8) {
    findings->bad(daemon.role->name, "its log has %s of %s: it fills the memory",
                  short_size(daemon.log_bytes), short_size(limit));
  } else if (daemon.log_bytes * 100 >= uint64_t{limit} * kNearLimitPercent) {
    findings->warn(daemon.role->name, "its log has %s of %s: older records go soon",
                   short_size(daemon.log_bytes), short_size(limit));
  }
  if (before == findings->count()) findings->fine();
}

// --- sockets and stores ---

void check_socket(const Machine& machine, const SocketThing& it, Findings* findings) {
  if (it.error == 0) return findings->fine();
  if (it.error == EACCES) return findings->warn(it.path, "%s", why_not(EACCES));
  const char* const name = base_name(it.path);
  if (it.listens && it.daemon != kNobody) {
    findings->bad(name, "%s does not answer a connect: its clients wait",
                  shown(machine.daemons[it.daemon].name));
  } else {
    findings->bad(it.path, "nobody answers: its clients are refused");
  }
}

void check_store(const StoreThing& it, Findings* findings) {
  const char* const name = base_name(it.path);
  const unsigned before = findings->count();
  if (it.deleted) findings->bad(name, "is deleted, but in use: gone at the next start");
  if (it.refusal != nullptr) findings->bad(name, "%s; no start (%u)", it.refusal->why, it.refusal->logid);
  if (it.faults > 0) findings->bad(it.path, "has faults, %zu: see quillctl store verify", it.faults);
  if (it.holder_count > 1)
    findings->bad(name, "has %u holders: each undoes what others change", it.holder_count);
  if ((it.file.st_mode & (S_IRGRP | S_IROTH)) != 0)
    findings->warn(name, "may be read by others: so may every secret in it");
  char folder[kPathSize];
  snprintf(folder, sizeof(folder), "%.*s", static_cast<int>(name - it.path), it.path);
  if (!it.deleted) check_room(folder, "a put says that it is done, and is not on disk", findings);
  if (before == findings->count()) findings->fine();
}

void check_conf(Findings* findings) {
  const Owned<ConfText> conf;
  if (read_conf(kConfFile, conf.get()) != 0) {
    if (errno != ENOENT) findings->bad(base_name(kConfFile), "cannot be read: %s", why_not(errno));
    return;
  }
  if (conf->warning_count == 0) return findings->fine();
  for (unsigned i = 0; i < conf->warning_count; i++) {
    const ConfWarning& it = conf->warnings[i];
    char about[40];
    snprintf(about, sizeof(about), "%s:%u", base_name(kConfFile), it.line);
    findings->warn(about, "%s", text_of(it.oddity));
  }
}

// --- the report ---

void print_findings(const Findings& findings, const Machine& machine) {
  for (int bad = 1; bad >= 0; bad--) {
    for (unsigned i = 0; i < findings.count(); i++) {
      const Finding& it = findings.at(i);
      if (it.bad == (bad != 0)) printf("%-4s  %-22s  %s\n", bad != 0 ? "BAD" : "warn", it.about, it.what);
    }
  }
  if (findings.dropped() > 0 || machine.is_cut) printf("...   more than can be shown\n");
  printf("ok    %u more: folders, owners, modes, free space, %u store%s, %u socket%s\n",
         findings.fine_count(), machine.store_count, machine.store_count == 1 ? "" : "s",
         machine.socket_count, machine.socket_count == 1 ? "" : "s");
}

void json_findings(const Findings& findings) {
  Json json;
  json.open('{');
  json.number("fine", findings.fine_count());
  json.number("dropped", findings.dropped());
  json.open('[', "findings");
  for (int bad = 1; bad >= 0; bad--) {
    for (unsigned i = 0; i < findings.count(); i++) {
      const Finding& it = findings.at(i);
      if (it.bad != (bad != 0)) continue;
      json.open('{');
      json.text("grade", it.bad ? "bad" : "warn");
      json.text("about", it.about);
      json.text("what", it.what);
      json.close('}');
    }
  }
  json.close(']');
  json.close('}');
  json.end_line();
}

} // namespace

int run_doctor(const Arguments& arguments) {
  const Owned<Machine> machine;
  const Owned<Findings> findings;
  look_at_machine(arguments, machine.get());
  check_folder(kRunFolder, findings.get());
  check_folder(kLogFolder, findings.get());
  for (unsigned i = 0; i < machine->daemon_count; i++) {
    if (machine->daemons[i].has_pid_file) check_pid_file(machine->daemons[i], findings.get());
    check_log(*machine, i, findings.get());
  }
  for (unsigned i = 0; i < machine->socket_count; i++)
    check_socket(*machine, machine->sockets[i], findings.get());
  for (unsigned i = 0; i < machine->store_count; i++) check_store(machine->stores[i], findings.get());
  check_conf(findings.get());
  if (arguments.has('j')) {
    json_findings(*findings);
  } else {
    print_findings(*findings, *machine);
  }
  return findings->count() > 0 ? kFoundWrong : kFine;
}

} // namespace ctl
