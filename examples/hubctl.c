// hubctl: asks hubd from the command line.
//
//   hubctl --socket PATH [--source config|monitor] [--timeout MS] COMMAND [ARGUMENT ...]
//
// The commands are in the table at the end. The answer goes to standard output, records of the library
// to standard error. The exit status is 0 only if everything held; the others are in bulk.h.
#include <inttypes.h>
#include <quillcore/log.h>
#include <quillcore/utility.h>
#include <stdio.h>
#include <string.h>

#include "bulk.h"
#include "hub_client.h"
#include "inspect.h"

#define COUNT_OF(array) (sizeof(array) / sizeof((array)[0]))

struct command {
  const char* name;
  int arg_count;
  const char* args;
  int (*run)(hub_client_t* client, char** args);
};

// Prints how a request ended and gives the exit status for it.
static int report(hub_result_t result, const hub_answer_t* answer) {
  if (result == HUB_DONE) {
    printf("done, %" PRIu32 " bytes of answer\n", answer->body_len);
    return EXIT_HELD;
  }
  if (result == HUB_NO_ANSWER) {
    printf("no answer\n");
    return EXIT_NO_ANSWER;
  }
  const char* text;
  const uint32_t code = hub_error(answer, &text);
  if (code == 0) {
    printf("refused, msg_err=%u\n", answer->msg_err);
  } else {
    printf("refused, msg_err=%u, code %" PRIu32 ": %s\n", answer->msg_err, code, text);
  }
  return EXIT_NOT_HELD;
}

static int run_put(hub_client_t* client, char** args) {
  hub_answer_t answer;
  return report(hub_put(client, args[0], args[1], strlen(args[1]), &answer), &answer);
}

static int run_get(hub_client_t* client, char** args) {
  hub_answer_t answer;
  const hub_result_t result = hub_get(client, args[0], &answer);
  if (result != HUB_DONE) return report(result, &answer);
  fwrite(answer.body, 1, answer.body_len, stdout);
  putchar('\n');
  return EXIT_HELD;
}

static int run_delete(hub_client_t* client, char** args) {
  hub_answer_t answer;
  return report(hub_delete(client, args[0], &answer), &answer);
}

static int run_count(hub_client_t* client, char** args) {
  (void)args;
  hub_answer_t answer;
  const hub_result_t result = hub_count(client, &answer);
  if (result != HUB_DONE) return report(result, &answer);

  uint32_t number;
  if (answer.body_len != sizeof(number)) {
    printf("an answer of %" PRIu32 " bytes\n", answer.body_len);
    return EXIT_NOT_HELD;
  }
  memcpy(&number, answer.body, sizeof(number));
  printf("%" PRIu32 "\n", number);
  return EXIT_HELD;
}

static int run_load(hub_client_t* client, char** args) { return bulk_load(client, args[0]); }

static int run_verify(hub_client_t* client, char** args) { return bulk_verify(client, args[0]); }

static int run_series(hub_client_t* client, char** args) {
  const int32_t count = qn_str2num(args[0], 10);
  const int32_t tell_after = qn_str2num(args[1], 10);
  if (count <= 0 || tell_after <= 0) return EXIT_USAGE;
  return bulk_series(client, (size_t)count, (size_t)tell_after, args[2], args[3]);
}

static int run_verify_series(hub_client_t* client, char** args) {
  const int32_t acked = qn_str2num(args[0], 10);
  if (acked <= 0) return EXIT_USAGE;
  return bulk_verify_series(client, (size_t)acked, args[1], args[2]);
}

static int change_log(hub_client_t* client, uint8_t step, const char* role, const char* what,
                      const char* value) {
  hub_answer_t answer;
  const char* const texts[] = {role, what, value};
  return report(hub_tell(client, HUB_MSG_LOG, &step, texts, COUNT_OF(texts), &answer), &answer);
}

static int run_log_level(hub_client_t* client, char** args) {
  return change_log(client, QN_LOG_PERMIT_LEVEL, args[0], "", args[1]);
}

static int run_log_console(hub_client_t* client, char** args) {
  return change_log(client, QN_LOG_PERMIT_CONSOLE, args[0], "", args[1]);
}

static int run_log_trace(hub_client_t* client, char** args) {
  return change_log(client, QN_LOG_PERMIT_TRACE, args[0], "", args[1]);
}

static int run_log_logid(hub_client_t* client, char** args) {
  return change_log(client, QN_LOG_PERMIT_LOGID, args[0], args[1], args[2]);
}

static int run_log_biz(hub_client_t* client, char** args) {
  return change_log(client, QN_LOG_PERMIT_BIZ, args[0], args[1], args[2]);
}

static int run_log_reset(hub_client_t* client, char** args) {
  (void)args;
  return change_log(client, HUB_LOG_RESET, "", "", "");
}

// A request that was done has printed what it shows.
static int report_unless_done(hub_result_t result, const hub_answer_t* answer) {
  return result == HUB_DONE ? EXIT_HELD : report(result, answer);
}

static int run_interfaces(hub_client_t* client, char** args) {
  (void)args;
  hub_answer_t answer;
  return report_unless_done(inspect_interfaces(client, &answer), &answer);
}

static int run_child(hub_client_t* client, char** args) {
  static const char* const steps[] = {[HUB_CHILD_STATUS] = "status",
                                      [HUB_CHILD_STOP] = "stop",
                                      [HUB_CHILD_START] = "start",
                                      [HUB_CHILD_RESTART] = "restart"};
  hub_answer_t answer;
  for (uint8_t step = 0; step < COUNT_OF(steps); step++) {
    if (strcmp(args[0], steps[step]) == 0) {
      return report_unless_done(inspect_child(client, step, &answer), &answer);
    }
  }
  fprintf(stderr, "hubctl: child takes status, stop, start or restart\n");
  return EXIT_USAGE;
}

static int run_pair(hub_client_t* client, char** args) {
  const char* const texts[] = {args[0], args[1], args[2]};
  hub_answer_t answer;
  return report(hub_tell(client, HUB_MSG_PAIR, NULL, texts, COUNT_OF(texts), &answer), &answer);
}

// The words behind "log".
static const struct command log_commands[] = {
    {"level", 2, "ROLE LETTER", run_log_level},  {"logid", 3, "ROLE NUMBER on|off", run_log_logid},
    {"biz", 3, "ROLE NAME on|off", run_log_biz}, {"console", 2, "ROLE on|off", run_log_console},
    {"trace", 2, "ROLE on|off", run_log_trace},  {"reset", 0, "", run_log_reset},
};

// A message as it should not be: TYPE and LEN go into the header, BODY is sent as it is.
static int run_raw(hub_client_t* client, char** args) {
  const int32_t type = qn_str2num(args[0], 10);
  const int32_t len = qn_str2num(args[1], 10);
  if (type < 0 || type > UINT8_MAX || len < 0 || len > UINT16_MAX) return EXIT_USAGE;

  hub_answer_t answer;
  const size_t body_len = strlen(args[2]);
  return report(hub_exchange(client, (uint8_t)type, args[2], body_len, (uint16_t)len, &answer), &answer);
}

static const struct command commands[] = {
    {"put", 2, "KEY VALUE", run_put},
    {"get", 1, "KEY", run_get},
    {"delete", 1, "KEY", run_delete},
    {"count", 0, "", run_count},
    {"interfaces", 0, "", run_interfaces},
    {"child", 1, "status|stop|start|restart", run_child},
    {"pair", 3, "NAME PEER BRIDGE", run_pair},
    {"load", 1, "FILE", run_load},
    {"verify", 1, "FILE", run_verify},
    {"series", 4, "COUNT TELL_AFTER FILE OTHER", run_series},
    {"verify-series", 3, "ACKED FILE OTHER", run_verify_series},
    {"raw", 3, "TYPE LEN BODY", run_raw},
};

static const struct source {
  const char* name;
  uint16_t bit;
} sources[] = {{"config", HUB_SRC_CONFIG}, {"monitor", HUB_SRC_MONITOR}};

static int usage(void) {
  fprintf(stderr, "usage: hubctl --socket PATH [--source config|monitor] [--timeout MS] COMMAND\n");
  for (size_t i = 0; i < COUNT_OF(commands); i++) {
    fprintf(stderr, "  %s %s\n", commands[i].name, commands[i].args);
  }
  for (size_t i = 0; i < COUNT_OF(log_commands); i++) {
    fprintf(stderr, "  log %s %s\n", log_commands[i].name, log_commands[i].args);
  }
  return EXIT_USAGE;
}

// Finds the command that the words name, and how many words that takes. Returns null for none.
static const struct command* find_command(char** words, int count, int* taken) {
  const int is_log = strcmp(words[0], "log") == 0 && count > 1;
  const struct command* row = is_log ? log_commands : commands;
  const struct command* end = row + (is_log ? COUNT_OF(log_commands) : COUNT_OF(commands));
  *taken = is_log ? 2 : 1;
  for (; row < end; row++) {
    if (strcmp(row->name, words[*taken - 1]) == 0 && row->arg_count == count - *taken) return row;
  }
  return NULL;
}

// Returns the sender's bit, 0 for an unknown name.
static uint16_t find_source(const char* name) {
  for (size_t i = 0; i < COUNT_OF(sources); i++) {
    if (strcmp(sources[i].name, name) == 0) return sources[i].bit;
  }
  return 0;
}

int main(int argc, char** argv) {
  const char* path = NULL;
  const char* source_name = "config";
  const char* timeout = "5000"; // a put waits for the disk
  int next = 1;
  for (; next + 1 < argc && strncmp(argv[next], "--", 2) == 0; next += 2) {
    if (strcmp(argv[next], "--socket") == 0) {
      path = argv[next + 1];
    } else if (strcmp(argv[next], "--source") == 0) {
      source_name = argv[next + 1];
    } else if (strcmp(argv[next], "--timeout") == 0) {
      timeout = argv[next + 1];
    } else {
      return usage();
    }
  }
  const uint16_t source = find_source(source_name);
  const int32_t timeout_ms = qn_str2num(timeout, 10);
  if (path == NULL || next >= argc || source == 0 || timeout_ms <= 0) return usage();

  int taken;
  const struct command* command = find_command(argv + next, argc - next, &taken);
  if (command == NULL) return usage();

  hub_client_t client;
  if (hub_connect(&client, path, source, (uint32_t)timeout_ms) != 0) {
    fprintf(stderr, "hubctl: nobody listens on %s\n", path);
    return EXIT_USAGE;
  }
  const int status = command->run(&client, argv + next + taken);
  hub_disconnect(&client);
  if (fflush(stdout) != 0 || ferror(stdout)) return EXIT_NOT_HELD;
  return status;
}
