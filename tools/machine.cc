// What there is of this family on the machine.
#include "machine.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "client.h"
#include "log_chain.h"
#include "log_line.h"

namespace ctl {
namespace {

constexpr int64_t kMinute = 60;
constexpr unsigned kFolderEntriesMax = 4096; // looked at in one folder
constexpr char kMagic[] = "qnkv8deea96c7bc2b089429s";

bool ends_with(const char* text, const char* end) {
  const size_t length = strlen(text), end_length = strlen(end);
  return length >= end_length && strcmp(text + length - end_length, end) == 0;
}

// The role in ".../hubd_0.log.txt" or ".../hubd_error_1.log.txt", or null.
const Role* role_of_log(const char* path) {
  constexpr size_t kFolderLength = sizeof(kLogFolder) - 1;
  if (strncmp(path, kLogFolder, kFolderLength) != 0 || path[kFolderLength] != '/') return nullptr;
  const char* const name = base_name(path);
  for (const Role& role : kRoles) {
    const size_t length = strlen(role.name);
    const char* const rest = name + length;
    if (strncmp(name, role.name, length) == 0 &&
        (strncmp(rest, "_0.log", 6) == 0 || strncmp(rest, "_1.log", 6) == 0))
      return &role;
  }
  return nullptr;
}

Daemon* add_daemon(Machine* machine, const char* name) {
  if (machine->daemon_count == kDaemonsMax) return machine->is_cut = true, nullptr;
  Daemon* const daemon = &machine->daemons[machine->daemon_count++];
  snprintf(daemon->name, sizeof(daemon->name), "%s", name);
  return daemon;
}

int find_daemon(const Machine& machine, pid_t pid) {
  for (unsigned i = 0; i < machine.daemon_count; i++) {
    if (machine.daemons[i].runs && machine.daemons[i].process.pid == pid) return static_cast<int>(i);
  }
  return kNobody;
}

// --- daemons ---

// Those of daemons that run, or the others: who plants many of these hides none of those.
void look_at_pid_files(Machine* machine, bool alive) {
  Folder folder(kRunFolder);
  PidFile file;
  while (const char* const name = folder.next()) {
    if (strlen(name) >= sizeof(file.name)) continue;
    read_pid_file(folder.fd(), name, &file);
    if (file.owner == Owner::kNone || file.owner == Owner::kRefused) continue;
    if ((file.owner == Owner::kAlive) != alive) continue;
    if (!ends_with(name, ".pid") && file.file.st_size != sizeof(file.pid)) continue;
    Daemon* const daemon = add_daemon(machine, name);
    if (daemon == nullptr) return;
    if (ends_with(daemon->name, ".pid")) daemon->name[strlen(daemon->name) - 4] = '\0';
    daemon->has_pid_file = true;
    daemon->pid_file = file;
    daemon->runs = alive;
    daemon->process = file.process;
    daemon->role = find_role(daemon->name, strlen(daemon->name));
  }
}

void look_at_processes(Machine* machine) {
  Processes processes;
  while (const pid_t pid = processes.next()) {
    const Role* const role = role_of_process(pid);
    Process process;
    if (role == nullptr || !read_process(pid, &process)) continue;
    const int known = find_daemon(*machine, pid);
    // A child has its parent's files, and is no daemon.
    if (known == kNobody && role_of_process(process.parent) == role) continue;
    Daemon* const daemon =
        known != kNobody ? &machine->daemons[known] : add_daemon(machine, process.program);
    if (daemon == nullptr) continue;
    daemon->runs = true;
    daemon->process = process;
    daemon->role = role;
  }
}

// A log that no daemon so far has written.
void look_at_lone_logs(Machine* machine) {
  const Folder folder(kLogFolder);
  for (const Role& role : kRoles) {
    bool known = !folder.valid();
    for (unsigned i = 0; i < machine->daemon_count; i++)
      known = known || machine->daemons[i].role == &role;
    char name[40];
    struct stat status;
    snprintf(name, sizeof(name), "%s_0.log.txt", role.name);
    if (known || !status_of_name(name, &status, folder.fd()) || !S_ISREG(status.st_mode)) continue;
    Daemon* const daemon = add_daemon(machine, role.name);
    if (daemon != nullptr) daemon->role = &role;
  }
}

unsigned count_errors(int folder, const char* role, const Calendar& calendar) {
  const Owned<LogChain> chain;
  const char* line = nullptr;
  size_t length = 0;
  unsigned count = 0;
  chain->start(folder, role, "_error", nullptr);
  for (LogStep step; (step = chain->next(&line, &length)) != LogStep::kNothing;) {
    LogLine parts;
    if (step == LogStep::kLine && parse_log_line(calendar, line, length, &parts) &&
        parts.stamp >= Calendar::before(time(nullptr), kMinute))
      count++;
  }
  chain->stop();
  return count;
}

void look_at_logs(Machine* machine) {
  const Calendar calendar(time(nullptr));
  const Folder folder(kLogFolder);
  for (unsigned i = 0; i < machine->daemon_count && folder.valid(); i++) {
    Daemon& daemon = machine->daemons[i];
    if (daemon.role == nullptr) continue;
    char name[40];
    struct stat status;
    snprintf(name, sizeof(name), "%s_0.log.txt", daemon.role->name);
    if (status_of_name(name, &status, folder.fd()))
      daemon.log_bytes = static_cast<uint64_t>(status.st_size);
    daemon.errors = count_errors(folder.fd(), daemon.role->name, calendar);
  }
}

void sort_daemons(Machine* machine) {
  Daemon* const daemons = machine->daemons;
  for (unsigned i = 1; i < machine->daemon_count; i++) {
    for (unsigned place = i; place > 0 && strcmp(daemons[place - 1].name, daemons[place].name) > 0;
         place--) {
      const Daemon moved = daemons[place];
      daemons[place] = daemons[place - 1];
      daemons[place - 1] = moved;
    }
  }
}

// --- sockets and stores ---

// The daemon whose name a path bears: its file, without an ending, is the name, or that without a "d".
int daemon_of_path(const Machine& machine, const char* path) {
  const char* const name = base_name(path);
  const size_t length = strcspn(name, ".");
  for (unsigned i = 0; i < machine.daemon_count; i++) {
    const char* const daemon = machine.daemons[i].name;
    const size_t whole = strlen(daemon);
    const bool less = whole > 1 && daemon[whole - 1] == 'd' && length == whole - 1;
    if ((length == whole || less) && strncmp(name, daemon, length) == 0) return static_cast<int>(i);
  }
  return kNobody;
}

void add_socket(Machine* machine, const char* path, int daemon, bool listens) {
  for (unsigned i = 0; i < machine->socket_count; i++) {
    if (strcmp(machine->sockets[i].path, path) == 0) return;
  }
  if (strlen(path) >= sizeof(SocketThing::path)) return;
  if (machine->socket_count == kThingsMax) return void(machine->is_cut = true);
  SocketThing& it = machine->sockets[machine->socket_count++];
  snprintf(it.path, sizeof(it.path), "%s", path);
  it.daemon = daemon;
  it.listens = listens;
  const uint32_t start = monotonic_us();
  it.error = connect_now(path).valid() ? 0 : errno;
  it.microseconds = monotonic_us() - start;
  if (it.error == EPROTOTYPE) machine->socket_count--; // of another kind, and not of this family
}

// Whether a plain file begins as a store does.
bool is_store(const char* path) {
  char front[sizeof(kMagic) - 1];
  const Fd fd = open_plain(path);
  return fd.valid() && read_up_to(fd.get(), front, sizeof(front)) == sizeof(front) &&
         memcmp(front, kMagic, sizeof(front)) == 0;
}

StoreThing* add_store(Machine* machine, const char* path, const struct stat& file) {
  for (unsigned i = 0; i < machine->store_count; i++) {
    if (same_file(machine->stores[i].file, file)) return nullptr;
  }
  if (machine->store_count == kThingsMax) return machine->is_cut = true, nullptr;
  StoreThing& it = machine->stores[machine->store_count++];
  snprintf(it.path, sizeof(it.path), "%s", path);
  it.file = file;
  return &it;
}

void judge_store(StoreThing* it) {
  const Owned<StoreImage> image;
  Fault faults[kFaultsMax];
  if (it->deleted || read_store(it->path, image.get()) != 0) return;
  it->refusal = refusal_of(*image);
  it->holder_count = find_holders(it->path, image->file).count;
  if (it->refusal != nullptr) return;
  it->faults = find_faults(*image, faults);
  for (unsigned i = 0; i < kStoreKeys; i++) it->keys += store_key(*image, i).busy;
}

// A store that the process has open for writing.
void look_at_open_file(Machine* machine, const OpenFile& file, int daemon) {
  constexpr char kDeleted[] = " (deleted)";
  struct stat status, named;
  if (!status_of(file, &status) || !S_ISREG(status.st_mode) || role_of_log(file.target) != nullptr)
    return;
  if (!is_written(file)) return;
  const bool deleted = ends_with(file.target, kDeleted) && status.st_size == kStoreSize;
  if (!deleted &&
      (!is_store(file.target) || !status_of_name(file.target, &named) || !same_file(status, named)))
    return;
  StoreThing* const it = add_store(machine, file.target, status);
  if (it == nullptr) return;
  it->daemon = daemon;
  it->held = true;
  it->deleted = deleted;
}

void look_at_held(Machine* machine) {
  for (unsigned i = 0; i < machine->daemon_count; i++) {
    if (!machine->daemons[i].runs) continue;
    OpenFiles files(machine->daemons[i].process.pid);
    OpenFile file;
    while (files.next(&file)) {
      look_at_open_file(machine, file, static_cast<int>(i));
      if (file.socket_inode == 0) continue;
      Listeners listeners;
      Listener listener;
      while (listeners.next(&listener)) {
        if (listener.inode == file.socket_inode)
          add_socket(machine, listener.path, static_cast<int>(i), true);
      }
    }
  }
}

// Sockets and stores in a folder; with `deeper` in the folders below it, too, and no further.
void look_at_folder(Machine* machine, const char* path, bool deeper) { // NOLINT(misc-no-recursion)
  Folder folder(path);
  unsigned entries = 0;
  while (const char* const name = folder.next()) {
    char full[kPathSize];
    struct stat status;
    if (++entries > kFolderEntriesMax) return void(machine->is_cut = true);
    if (!status_of_name(name, &status, folder.fd())) continue;
    if (snprintf(full, sizeof(full), "%s/%s", path, name) >= static_cast<int>(sizeof(full))) continue;
    if (S_ISDIR(status.st_mode) && deeper) {
      look_at_folder(machine, full, false);
    } else if (S_ISSOCK(status.st_mode)) {
      add_socket(machine, full, daemon_of_path(*machine, full), false);
    } else if (S_ISREG(status.st_mode) && is_store(full)) {
      StoreThing* const it = add_store(machine, full, status);
      if (it != nullptr) it->daemon = daemon_of_path(*machine, full);
    }
  }
}

} // namespace

const Role* role_of_process(pid_t pid) {
  struct stat folder, status;
  if (!status_of_name(kLogFolder, &folder)) return nullptr;
  OpenFiles files(pid);
  OpenFile file;
  while (files.next(&file)) {
    const Role* const role = role_of_log(file.target);
    if (role != nullptr && status_of(file, &status) && status.st_dev == folder.st_dev && is_written(file))
      return role;
  }
  return nullptr;
}

void look_at_machine(const Arguments& arguments, Machine* machine) {
  look_at_pid_files(machine, true);
  look_at_processes(machine);
  look_at_pid_files(machine, false);
  look_at_lone_logs(machine);
  sort_daemons(machine);
  look_at_logs(machine);
  look_at_held(machine);
  look_at_folder(machine, kRunFolder, false);
  look_at_folder(machine, "/etc", true);
  for (int i = 0; i < arguments.count; i++) look_at_folder(machine, arguments.words[i], false);
  for (unsigned i = 0; i < machine->store_count; i++) judge_store(&machine->stores[i]);
}

} // namespace ctl
