// quillctl status: one line a daemon.
#include <quillcore/api.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client.h"
#include "machine.h"
#include "output.h"

namespace ctl {
namespace {

constexpr int kUpWidth = 9; // as in the lines' format
constexpr int kStoreWidth = 24;

struct Columns {
  char pid[16];
  char up[24];
  char log[16];
  char errors[16];
};

bool is_down(const Daemon& daemon) { return !daemon.runs && daemon.has_pid_file; }

void fill_columns(const Daemon& daemon, Columns* out) {
  *out = {};
  if (daemon.runs) {
    snprintf(out->pid, sizeof(out->pid), "%d", daemon.process.pid);
    snprintf(out->up, sizeof(out->up), "%s", short_time(daemon.process.up_seconds));
  } else {
    snprintf(out->pid, sizeof(out->pid), "-");
    if (!daemon.has_pid_file) {
      snprintf(out->up, sizeof(out->up), "stopped");
    } else if (daemon.pid_file.pid > 0) {
      snprintf(out->up, sizeof(out->up), "%d %s", daemon.pid_file.pid,
               daemon.pid_file.owner == Owner::kGone ? "gone" : "?");
    } else {
      snprintf(out->up, sizeof(out->up), "bad pid");
    }
  }
  if (daemon.log_bytes == 0) return;
  snprintf(out->log, sizeof(out->log), "%s", short_size(daemon.log_bytes));
  snprintf(out->errors, sizeof(out->errors), "%u", daemon.errors);
}

void fill_socket(const SocketThing& it, char (&answer)[32]) {
  if (it.error != 0) {
    snprintf(answer, sizeof(answer), "%s", it.error == EACCES ? "?" : it.listens ? "hangs" : "dead");
  } else {
    snprintf(answer, sizeof(answer), "%sms", short_ms(it.microseconds));
  }
}

// The path and what is to be said of it, the path cut at its front where both do not fit.
void fill_store(const StoreThing& it, char (&text)[64]) {
  char note[24] = "";
  if (it.deleted) {
    snprintf(note, sizeof(note), ", DELETED");
  } else if (it.refusal != nullptr) {
    snprintf(note, sizeof(note), ", no store");
  } else if (it.faults > 0) {
    snprintf(note, sizeof(note), ", DAMAGED");
  } else if (!it.held && it.holder_count == 0) {
    snprintf(note, sizeof(note), ", unheld");
  } else {
    snprintf(note, sizeof(note), " %u", it.keys);
  }
  const char* path = shown(it.path);
  const int room = kStoreWidth - static_cast<int>(strlen(note));
  const int length = static_cast<int>(strlen(path));
  if (length <= room) {
    snprintf(text, sizeof(text), "%s%s", path, note);
  } else {
    snprintf(text, sizeof(text), "..%.*s%s", room - 2, path + length - (room - 2), note);
  }
}

// The next thing of a daemon from `*at` on, or null.
template <typename Thing>
const Thing* next_of(const Thing* things, unsigned count, int daemon, unsigned* at) {
  while (*at < count) {
    const Thing& it = things[(*at)++];
    if (it.daemon == daemon) return &it;
  }
  return nullptr;
}

// The lines of a daemon, or with null those of what nobody has.
void print_rows(const Machine& machine, const Daemon* daemon) {
  const int index = daemon != nullptr ? static_cast<int>(daemon - machine.daemons) : kNobody;
  unsigned socket_at = 0, store_at = 0;
  for (bool first = true;; first = false) {
    const SocketThing* const socket = next_of(machine.sockets, machine.socket_count, index, &socket_at);
    const StoreThing* const store = next_of(machine.stores, machine.store_count, index, &store_at);
    if (socket == nullptr && store == nullptr && (!first || daemon == nullptr)) return;
    Columns columns = {};
    char answer[32] = "", store_text[64] = "";
    const bool head = first && daemon != nullptr;
    if (head) fill_columns(*daemon, &columns);
    if (socket != nullptr) fill_socket(*socket, answer);
    if (store != nullptr) fill_store(*store, store_text);
    // A number of seven digits takes its room from the store, which may be cut.
    const int over = static_cast<int>(strlen(columns.up + kUpWidth));
    printf("%-7s %5s  %-9s %-10s %-6s %-*s %5s %5s\n",
           head                ? shown(daemon->name)
           : daemon == nullptr ? "-"
                               : "",
           columns.pid, columns.up, socket != nullptr ? shown(base_name(socket->path)) : "", answer,
           kStoreWidth - over, store_text, columns.log, columns.errors);
  }
}

struct Advice {
  const char* command; // of quillctl
  const char* about;
  const char* options;
  bool wrong = true; // or only a place to look at
};

// The worst first: what is down, what is damaged, what hangs, what logs errors, what lies about.
Advice next_step(const Machine& machine) {
  for (unsigned i = 0; i < machine.daemon_count; i++) {
    const Daemon& daemon = machine.daemons[i];
    if (is_down(daemon) && daemon.role != nullptr) return {"log ", daemon.role->name, " --tail 20"};
    if (is_down(daemon)) return {"pid ", daemon.name, ""};
  }
  for (unsigned i = 0; i < machine.store_count; i++) {
    const StoreThing& it = machine.stores[i];
    if (it.faults > 0 || it.refusal != nullptr) return {"store verify ", it.path, ""};
    if (it.deleted || it.holder_count > 1) return {"doctor", "", ""};
  }
  for (unsigned i = 0; i < machine.socket_count; i++) {
    if (machine.sockets[i].error != 0) return {"doctor", "", ""};
  }
  for (unsigned i = 0; i < machine.daemon_count; i++) {
    if (machine.daemons[i].errors > 0)
      return {"log ", machine.daemons[i].role->name, " --since 1m --level GEF", false};
  }
  return {"doctor", "", "", false};
}

void print_status(const Machine& machine) {
  printf("%-7s %5s  %-9s %-10s %-6s %-*s %5s %5s\n", "DAEMON", "PID", "UP", "SOCKET", "", kStoreWidth,
         "STORE", "LOG", "E/min");
  unsigned down = 0;
  for (unsigned i = 0; i < machine.daemon_count; i++) {
    print_rows(machine, &machine.daemons[i]);
    down += is_down(machine.daemons[i]);
  }
  print_rows(machine, nullptr);
  if (machine.is_cut) puts("... more than can be shown");
  const Advice advice = next_step(machine);
  printf("%u daemon%s, %u down; libquillcore " QN_VERSION "; next: quillctl ", machine.daemon_count,
         machine.daemon_count == 1 ? "" : "s", down);
  printf("%s%s%s\n", advice.command, shown(advice.about), advice.options);
}

void json_daemon(Json* json, const Daemon& daemon) {
  json->open('{');
  json->text("name", daemon.name);
  json->flag("runs", daemon.runs);
  if (daemon.runs) json->number("pid", daemon.process.pid);
  if (daemon.runs) json->number("up_s", daemon.process.up_seconds);
  if (daemon.has_pid_file) json->text("pid_file", word_of(daemon.pid_file.owner));
  if (daemon.role != nullptr) {
    json->text("role", daemon.role->name);
    json->number("log_bytes", static_cast<long long>(daemon.log_bytes));
    json->number("errors_per_min", daemon.errors);
  }
  json->close('}');
}

void json_owner(Json* json, const Machine& machine, int daemon) {
  if (daemon != kNobody) json->text("daemon", machine.daemons[daemon].name);
}

void json_status(const Machine& machine) {
  Json json;
  json.open('{');
  json.text("version", QN_VERSION);
  json.flag("cut", machine.is_cut);
  json.open('[', "daemons");
  for (unsigned i = 0; i < machine.daemon_count; i++) json_daemon(&json, machine.daemons[i]);
  json.close(']');
  json.open('[', "sockets");
  for (unsigned i = 0; i < machine.socket_count; i++) {
    const SocketThing& it = machine.sockets[i];
    json.open('{');
    json.text("path", it.path);
    json_owner(&json, machine, it.daemon);
    json.flag("answers", it.error == 0);
    if (it.error == 0) json.milliseconds("ms", it.microseconds);
    if (it.error != 0) json.text("why", why_unanswered(it.error));
    json.close('}');
  }
  json.close(']');
  json.open('[', "stores");
  for (unsigned i = 0; i < machine.store_count; i++) {
    const StoreThing& it = machine.stores[i];
    json.open('{');
    json.text("path", it.path);
    json_owner(&json, machine, it.daemon);
    json.flag("held", it.held);
    json.flag("deleted", it.deleted);
    json.flag("opens", it.refusal == nullptr);
    json.number("keys", it.keys);
    json.number("faults", static_cast<long long>(it.faults));
    json.close('}');
  }
  json.close(']');
  json.close('}');
  json.end_line();
}

} // namespace

int run_status(const Arguments& arguments) {
  const Owned<Machine> machine;
  look_at_machine(arguments, machine.get());
  if (arguments.has('j')) {
    json_status(*machine);
  } else {
    print_status(*machine);
  }
  return next_step(*machine).wrong ? kFoundWrong : kFine;
}

} // namespace ctl
