// --help, out of the table.
#include <cstdio>
#include <cstring>

#include "command.h"

namespace ctl {
namespace {

void print_option(const Option& option) {
  char name[40];
  snprintf(name, sizeof(name), "--%s%s%s", option.name, option.argument != nullptr ? " " : "",
           option.argument != nullptr ? option.argument : "");
  printf("  -%c, %-16s %s\n", option.letter, name, option.help);
}

void print_indented(const char* lines) {
  while (*lines != '\0') {
    const int length = static_cast<int>(strcspn(lines, "\n"));
    printf("  %.*s\n", length, lines);
    lines += length + (lines[length] == '\n');
  }
}

} // namespace

void print_help() {
  puts(
      "usage: quillctl [COMMAND] [OPTION...] [WORD...]\n\n"
      "Without a command it is status. Only store export, store import, log set and\n"
      "log reset change anything.\n");
  for (size_t i = 0; i < kCommandCount; i++) {
    printf("  %-13s%s\n", kCommands[i].name, kCommands[i].summary);
  }
  puts(
      "\nStatus 0: all is well, 1: found something wrong, 2: usage, 3: could not look.\n"
      "quillctl COMMAND --help tells more.");
}

void print_help(const Command& command) {
  printf("usage: quillctl %s [OPTION...] %s\n\n%s\n", command.name, command.words, command.summary);
  if (command.hint[0] != '\0') puts(command.hint);
  putchar('\n');
  for (const char* letter = command.letters; *letter != '\0'; letter++)
    print_option(*find_option(*letter));
  print_option(*find_option('h'));
  puts("\nexamples:");
  print_indented(command.examples);
}

} // namespace ctl
