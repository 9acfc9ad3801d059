// hubctl: asks hubd from the command line.
//
//   hubctl --socket PATH COMMAND [WORD ...]
//
// The commands are in the table below; hub_protocol.h has their words. The answer goes to standard
// output; reasons, and records of the library, to standard error.
#include <errno.h>
#include <inttypes.h>
#include <quillcore/socket.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "hub_protocol.h"

#define TIMEOUT_S 5 // a put waits for the disk

// How a request ended, which is the exit status, too.
enum {
  DONE = 0,
  REFUSED = 1,  // or not as it should be
  USAGE = 2,    // wrong arguments, an unreadable file, nobody listens
  NO_ANSWER = 3 // in time; it may have been done or not
};

static struct {
  qn_msg_hdr_t header; // packed: the body is right behind it
  char body[65535];
  uint32_t body_len;
} answer; // to the last request

// One send() is one message, and one recv() is one.
static int exchange(int fd, uint8_t msg_type, uint16_t source, const char* body, size_t body_len) {
  static uint32_t last_id;
  uint8_t message[QN_MSG_SIZE_MAX];
  const qn_msg_hdr_t header = {msg_type, QN_MSG_ACT_REQ, 0, source, (uint16_t)body_len, ++last_id};
  if (body_len > HUB_BODY_MAX) return USAGE;
  memcpy(message, &header, sizeof(header));
  memcpy(message + sizeof(header), body, body_len);

  // MSG_NOSIGNAL: a hubd that is gone is an error of this call and not a SIGPIPE.
  const ssize_t size = (ssize_t)(sizeof(header) + body_len);
  if (send(fd, message, (size_t)size, MSG_NOSIGNAL) != size) return NO_ANSWER;
  const ssize_t got = recv(fd, &answer, sizeof(answer.header) + sizeof(answer.body), 0);
  // The number ties an answer to its request.
  if (got < (ssize_t)sizeof(header) || answer.header.msg_act != QN_MSG_ACT_RSP ||
      answer.header.msg_id != header.msg_id || answer.header.msg_len != got - (ssize_t)sizeof(header)) {
    return NO_ANSWER;
  }
  answer.body_len = answer.header.msg_len;
  return answer.header.msg_err == QN_MSG_ERR_OK ? DONE : REFUSED;
}

// The code of a refusal, 0 if it has none.
static uint32_t error_code(void) {
  uint32_t code = 0;
  if (answer.body_len > sizeof(code)) memcpy(&code, answer.body, sizeof(code));
  return code;
}

// Tells why a request about `what` was not done.
static int report(int result, const char* what) {
  if (result == USAGE) fprintf(stderr, "%s: too long for a request\n", what);
  if (result == NO_ANSWER) fprintf(stderr, "%s: no answer\n", what);
  if (result == REFUSED) {
    const uint32_t code = error_code();
    const int text_len = code != 0 ? (int)(answer.body_len - sizeof(code)) : 0;
    fprintf(stderr, "%s: refused, msg_err=%u, code %" PRIu32 ": %.*s\n", what, answer.header.msg_err,
            code, text_len, answer.body + sizeof(code));
  }
  return result;
}

// --- A settings file: lines of KEY=VALUE, blank lines, and lines that begin with '#'.

typedef int use_line_t(int fd, char* line, const char* value, size_t value_len);

// Puts a line and prints it when that is acknowledged.
static int put_line(int fd, char* key, const char* value, size_t value_len) {
  const int result = exchange(fd, HUB_MSG_PUT, HUB_SRC_CONFIG, key, (size_t)(value - key) + value_len);
  if (result != DONE) return report(result, key);
  printf("%s=%s\n", key, value);
  return fflush(stdout) == 0 ? DONE : USAGE;
}

// A store tells no more of an empty value than that its key is there.
static int compare_line(int fd, char* key, const char* value, size_t value_len) {
  const int result = exchange(fd, HUB_MSG_GET, HUB_SRC_MONITOR, key, strlen(key));
  if (result == REFUSED && value_len == 0 && error_code() == HUB_ERR_NO_VALUE) return DONE;
  if (result != DONE) return report(result, key);
  if (answer.body_len == value_len && memcmp(answer.body, value, value_len) == 0) return DONE;
  fprintf(stderr, "%s: another value\n", key);
  return REFUSED;
}

// Goes through the file up to the first line without an answer. Prints how many were not done.
static int each_line(int fd, const char* path, use_line_t* use_line) {
  FILE* file = fopen(path, "re");
  if (file == NULL) {
    fprintf(stderr, "%s: %s\n", path, strerror(errno));
    return USAGE;
  }
  char* line = NULL;
  size_t size = 0, count = 0, failed = 0;
  int result = DONE;
  ssize_t len;
  while (result != NO_ANSWER && (len = getline(&line, &size, file)) >= 0) {
    if (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
    if (len == 0 || line[0] == '#') continue;
    char* equals = memchr(line, '=', (size_t)len);
    if (equals == NULL) fprintf(stderr, "%s: no KEY=VALUE\n", line);
    if (equals != NULL) *equals = '\0'; // which is what stands between the words of a request
    result = equals != NULL ? use_line(fd, line, equals + 1, (size_t)(line + len - equals - 1)) : USAGE;
    count++;
    failed += result != DONE;
  }
  failed += ferror(file) != 0;
  free(line);
  fclose(file);
  // Behind the settings that were put it would be one more line of them.
  fprintf(use_line == put_line ? stderr : stdout, "%zu settings, %zu failed\n", count, failed);
  if (result == NO_ANSWER) return NO_ANSWER;
  return failed == 0 && count != 0 ? DONE : REFUSED;
}

// --- Commands.

static const struct command {
  const char* name;
  const char* words;
  int word_count;
  uint8_t msg_type;
  uint16_t source;
  use_line_t* use_line; // not null: the word is a settings file
} commands[] = {
    {"put", "KEY VALUE", 2, HUB_MSG_PUT, HUB_SRC_CONFIG, NULL},
    {"get", "KEY", 1, HUB_MSG_GET, HUB_SRC_MONITOR, NULL},
    {"delete", "KEY", 1, HUB_MSG_DELETE, HUB_SRC_CONFIG, NULL},
    {"load", "FILE", 1, 0, 0, put_line},
    {"verify", "FILE", 1, 0, 0, compare_line},
    {"interfaces", "", 0, HUB_MSG_INTERFACES, HUB_SRC_MONITOR, NULL},
    {"pair", "NAME PEER BRIDGE", 3, HUB_MSG_PAIR, HUB_SRC_CONFIG, NULL},
    {"child", "status|start|stop", 1, HUB_MSG_CHILD, HUB_SRC_CONFIG, NULL},
};
#define COMMAND_COUNT (sizeof(commands) / sizeof(commands[0]))

static int usage(void) {
  fprintf(stderr, "usage: hubctl --socket PATH COMMAND [WORD ...]\n");
  for (size_t i = 0; i < COMMAND_COUNT; i++)
    fprintf(stderr, "  %s %s\n", commands[i].name, commands[i].words);
  return USAGE;
}

static const struct command* find_command(const char* name, int words) {
  for (size_t i = 0; i < COMMAND_COUNT; i++) {
    const struct command* row = &commands[i];
    if (strcmp(row->name, name) == 0 && row->word_count == words) return row;
  }
  return NULL;
}

// Sends the words as they are, with a NUL between each two, and prints the answer.
static int send_words(int fd, const struct command* command, char** words, int count) {
  char body[HUB_BODY_MAX];
  size_t len = 0;
  for (int i = 0; i < count; i++) {
    const size_t word_len = strlen(words[i]) + (i + 1 < count); // with its NUL unless it is the last one
    if (word_len > sizeof(body) - len) return report(USAGE, words[i]);
    memcpy(body + len, words[i], word_len);
    len += word_len;
  }
  const int result = exchange(fd, command->msg_type, command->source, body, len);
  if (result != DONE) return report(result, command->name);
  fwrite(answer.body, 1, answer.body_len, stdout);
  if (answer.body_len != 0 && answer.body[answer.body_len - 1] != '\n') putchar('\n');
  return fflush(stdout) == 0 && !ferror(stdout) ? DONE : USAGE;
}

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--version") == 0) return puts("hubctl " QN_VERSION) < 0;
  if (argc < 4 || strcmp(argv[1], "--socket") != 0) return usage();
  const struct command* command = find_command(argv[3], argc - 4);
  if (command == NULL) return usage();

  int32_t fd;
  if (qn_sock_connect_unix_socket_server(argv[2], &fd) != 0) {
    fprintf(stderr, "hubctl: nobody listens on %s\n", argv[2]);
    return USAGE;
  }
  // Without these a client waits for ever: a request with a wrong header is never answered.
  int status = USAGE;
  if (qn_sock_set_fd_send_timeout(fd, TIMEOUT_S, 0) == 0 &&
      qn_sock_set_fd_recv_timeout(fd, TIMEOUT_S, 0) == 0) {
    status = command->use_line != NULL ? each_line(fd, argv[4], command->use_line)
                                       : send_words(fd, command, argv + 4, argc - 4);
  }
  close(fd);
  return status;
}
