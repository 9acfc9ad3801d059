// quillctl: finds the command, reads its options, runs it.
#include <fcntl.h>
#include <getopt.h>
#include <quillcore/api.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "command.h"
#include "output.h"

namespace {

using ctl::Arguments;
using ctl::Command;
using ctl::Option;

constexpr size_t kLettersMax = 16;

// What getopt_long() wants to know of a command's options.
struct GetoptTables {
  char letters[2 * kLettersMax + 2] = ":";
  option names[kLettersMax + 2] = {};

  explicit GetoptTables(const Command& command) {
    size_t count = 0, used = 1;
    const auto add = [&](char letter) {
      const Option& row = *ctl::find_option(letter);
      letters[used++] = letter;
      if (row.argument != nullptr) letters[used++] = ':';
      names[count++] = {row.name, row.argument != nullptr, nullptr, letter};
    };
    for (const char* letter = command.letters; *letter != '\0'; letter++) add(*letter);
    add('h');
  }
};

// Takes "store verify" before "store"; a word that begins with "-" or no word is status. `taken` is how
// many words that was.
const Command* choose_command(int argc, char** argv, int* taken) {
  *taken = 0;
  if (argc < 2 || argv[1][0] == '-') return ctl::find_command("status");
  if (argc > 2) {
    char both[32];
    snprintf(both, sizeof(both), "%s %s", argv[1], argv[2]);
    *taken = 2;
    if (const Command* const command = ctl::find_command(both)) return command;
  }
  *taken = 1;
  return ctl::find_command(argv[1]);
}

int read_options(const Command& command, int argc, char** argv, Arguments* arguments) {
  const GetoptTables tables(command);
  opterr = 0;
  for (;;) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread
    const int letter = getopt_long(argc, argv, tables.letters, tables.names, nullptr);
    if (letter == -1) break;
    if (letter == '?' || letter == ':') {
      return ctl::fail(ctl::kUsage, "%s: option %s %s; see quillctl %s --help", command.name,
                       ctl::shown(argv[optind - 1]), letter == ':' ? "wants an argument" : "is unknown",
                       command.name);
    }
    arguments->options[letter] = optarg != nullptr ? optarg : "";
  }
  arguments->words = argv + optind;
  arguments->count = argc - optind;
  if (arguments->has('h') ||
      (arguments->count >= command.words_min && arguments->count <= command.words_max))
    return ctl::kFine;
  return ctl::fail(ctl::kUsage, "usage: quillctl %s [OPTION...] %s; see quillctl %s --help", command.name,
                   command.words, command.name);
}

int run(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--version") == 0)
    return printf("quillctl %s\n", QN_VERSION), ctl::kFine;
  if (argc >= 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    ctl::print_help();
    return ctl::kFine;
  }
  int taken = 0;
  const Command* const command = choose_command(argc, argv, &taken);
  if (command == nullptr)
    return ctl::fail(ctl::kUsage, "no command is called %s; see quillctl --help", ctl::shown(argv[1]));

  Arguments arguments = {};
  if (const int status = read_options(*command, argc - taken, argv + taken, &arguments)) return status;
  if (!arguments.has('h')) return command->run(arguments);
  ctl::print_help(*command);
  return ctl::kFine;
}

} // namespace

int main(int argc, char** argv) {
  int fd; // a stream that came closed is filled, or what is opened later becomes one
  while ((fd = open("/dev/null", O_RDWR | O_CLOEXEC)) >= 0 && fd <= STDERR_FILENO) continue;
  if (fd >= 0) close(fd);
  const int status = run(argc, argv);
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
  return ctl::fail(ctl::kCannotLook, "the output could not be written");
}
