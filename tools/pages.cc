// Prints what is made out of the table of commands: the manual page in scdoc's language, or the
// completion for bash. It runs where the tool is built and is not installed.
//
//   quillctl_pages man|bash
#include <cstdio>
#include <cstring>

#include "command.h"

namespace {

using ctl::Command;
using ctl::kCommandCount;
using ctl::kCommands;
using ctl::Option;

// What the manual says of a command beyond its summary and its hint.
constexpr struct {
  const char* command;
  const char* text;
} kTexts[] = {
    {"status",
     "A line for each daemon: since when it is up, whether its socket takes a connect and how fast, the "
     "keys of its store, the size of its log, its errors of the last minute. What nobody holds is looked "
     "for in the run-time folder, in /etc and one folder below it, and in each FOLDER."},
    {"store",
     "Only reads; the daemon that holds it notices nothing. Values are hidden without --values or "
     "--key."},
    {"store verify",
     "Each with its key, class, offset and what a get will do. A store in use is read again when it "
     "changed meanwhile; of a longer file the first 131072 bytes count."},
    {"store diff", "Compares what a get of each key gives."},
    {"store export",
     "In FOLDER, which exists, each key gets a new file of its name, odd bytes as %NN; none is replaced. "
     "--json prints one document instead."},
    {"store import",
     "Puts the keys through the library. Without FOLDER it reads a document from standard input. NEWFILE "
     "must not exist; on a failure it does not afterwards."},
    {"call",
     "Takes -s, -t, -m and one body or none. Status 0 for msg_err 0, 1 for another, 3 when no answer "
     "comes."},
    {"log",
     "All files of each role merged by stamp. Where a clock went back a file keeps its order, and a line "
     "says so. --follow goes through rotation, and tells of a loss."},
    {"log explain", "Looks into logids.tsv of this version. 0 stands for all without a number."},
    {"log set",
     "WHAT is level with G, E, W, I, D or F; console or trace with on or off; logid or biz with a NAME "
     "and on or off. For root and the daemon's own user, if it takes log switches at all; gone when it "
     "restarts."},
    {"log get", "What was set since the start or the last reset."},
    {"log reset", "The daemon reads its configuration again."},
    {"conf check", "Without FILE it is /etc/quillnet/quillnet.conf."},
    {"pid",
     "NAME lies in /tmp/quillnet, \".pid\" may be left out. Prints alive (status 0), or gone, foreign, "
     "broken or none (1); then the pid and the program."},
    {"doctor",
     "Folders, owners, links, pid files, sockets, stores, logs, configuration, free space, and what each "
     "finding will cause. Each FOLDER is looked into, too."},
};

const char* text_of(const Command& command) {
  for (const auto& row : kTexts) {
    if (strcmp(row.command, command.name) == 0) return row.text;
  }
  return "";
}

// What scdoc would read as markup is escaped; a line of a terminal is none of a page.
void put_text(const char* text) {
  for (; *text != '\0'; text++) {
    if (strchr("_*\\#<>[]", *text) != nullptr) putchar('\\');
    putchar(*text == '\n' ? ' ' : *text);
  }
}

void put_option(const Option& option) {
  printf("*-%c*, *--%s*", option.letter, option.name);
  if (option.argument != nullptr) printf(" _%s_", option.argument);
  fputs("\n\t", stdout);
  put_text(option.help);
  fputs(".\n\n", stdout);
}

void put_examples(const char* lines) {
  puts("```");
  puts(lines);
  puts("```\n");
}

void put_command(const Command& command) {
  printf("## %s\n\n*quillctl %s*", command.name, command.name);
  if (command.letters[0] != '\0') fputs(" \\[OPTION...\\]", stdout);
  if (command.words[0] != '\0') putchar(' ');
  put_text(command.words);
  printf("\n\n%c", command.summary[0] - 'a' + 'A');
  put_text(command.summary + 1);
  fputs(".\n\n", stdout);
  put_text(text_of(command));
  fputs("\n\n", stdout);
  for (const char* letter = command.letters; *letter != '\0'; letter++)
    put_option(*ctl::find_option(*letter));
  put_examples(command.examples);
}

void put_manual() {
  puts(
      "quillctl(1)\n\n# NAME\n\nquillctl - look at the daemons of libquillcore\n\n# SYNOPSIS\n\n"
      "*quillctl* \\[COMMAND\\] \\[OPTION...\\] \\[WORD...\\]\n\n# DESCRIPTION\n\n"
      "*quillctl* tells what runs, what is stored, what was logged and what is wrong, on the machine "
      "that it is "
      "started on. Without a command it is *status*.\n\n"
      "It never writes a store, sends a signal or follows a link in the last part of a name; only *store "
      "export* "
      "and *store import* make files, where there is none of that name. Values and bodies are shown only "
      "where "
      "they are asked for. Whatever comes from a file, a log or a client is printed without control "
      "codes: a "
      "backslash doubled, other bytes as \\\\n, \\\\t, \\\\r or \\\\xNN. In JSON a byte above 126 is "
      "\\\\u00NN. It "
      "waits for nothing without a limit but for *log --follow*, which is ended by *--for*, a key, or "
      "the end of "
      "its reader.\n\n# COMMANDS\n");
  for (size_t i = 0; i < kCommandCount; i++) put_command(kCommands[i]);
  puts(
      "# EXIT STATUS\n\n"
      "|[ *0*\n:[ all is well, or what was asked for was done\n"
      "|  *1*\n:  it found something wrong: damage, a warning, a difference, a msg_err\n"
      "|  *2*\n:  the words or options were wrong\n"
      "|  *3*\n:  it could not look: no such file, not allowed, no answer\n\n"
      "Standard error then has one line: what was wrong and what to do.\n\n# FILES\n\n"
      "_/tmp/quillnet/_\n\tpid files and sockets\n\n_/tmp/quillnet/log/_\n\tlogs\n\n"
      "_/etc/quillnet/quillnet.conf_\n\tthe configuration of the logs\n\n"
      "_logids.tsv_\n\tin share/quillcore beside the program's folder: the call sites of the library\n\n"
      "# SEE ALSO\n\n*quillcore*(7), *quillcore-store*(5), *quillcore-wire*(5), *quillcore-log*(5), "
      "*quillnet.conf*(5)");
}

// The words that may come first or, with `first`, behind that one.
void put_words(const char* first) {
  const size_t length = first != nullptr ? strlen(first) : 0;
  for (size_t i = 0; i < kCommandCount; i++) {
    const char* const name = kCommands[i].name;
    if (first == nullptr && strchr(name, ' ') == nullptr) printf(" %s", name);
    if (first != nullptr && strncmp(name, first, length) == 0 && name[length] == ' ')
      printf(" %s", name + length + 1);
  }
}

void put_completion() {
  fputs(
      "# Completion of quillctl for bash. Made out of the table of its commands.\n_quillctl() {\n"
      "  local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]-} options='--help --version "
      "--json'\n"
      "  local roles='qntty hubd leafd admd relay arcd arc_tty lib_call nw_lib_call nil'\n"
      "  ((COMP_CWORD < 3)) || command+=\" ${COMP_WORDS[2]}\"\n  case $command in\n",
      stdout);
  for (int two = 1; two >= 0; two--) {
    for (size_t i = 0; i < kCommandCount; i++) {
      const Command& command = kCommands[i];
      if ((strchr(command.name, ' ') != nullptr) != (two != 0)) continue;
      printf("    '%s'*) options='--help", command.name);
      for (const char* letter = command.letters; *letter != '\0'; letter++)
        printf(" --%s", ctl::find_option(*letter)->name);
      fputs("' ;;\n", stdout);
    }
  }
  fputs(
      "  esac\n  COMPREPLY=()\n  if [[ $word == -* ]]; then\n"
      "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n"
      "  elif ((COMP_CWORD == 1)); then\n    mapfile -t COMPREPLY < <(compgen -W '",
      stdout);
  put_words(nullptr);
  fputs(" conf' -- \"$word\")\n  elif ((COMP_CWORD == 2)); then\n    case ${COMP_WORDS[1]} in\n", stdout);
  constexpr const char* kPairs[] = {"store", "log", "conf"};
  for (const char* const first : kPairs) {
    printf("      %s) mapfile -t COMPREPLY < <(compgen -W \"", first);
    put_words(first);
    printf("%s\" -- \"$word\") ;;\n", strcmp(first, "log") == 0 ? " $roles" : "");
  }
  puts(
      "    esac\n  elif [[ ${COMP_WORDS[1]} == log ]]; then\n"
      "    mapfile -t COMPREPLY < <(compgen -W \"$roles\" -- \"$word\")\n  fi\n}\n"
      "complete -o default -F _quillctl quillctl");
}

} // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "man") == 0) return put_manual(), 0;
  if (argc == 2 && strcmp(argv[1], "bash") == 0) return put_completion(), 0;
  fputs("usage: quillctl_pages man|bash\n", stderr);
  return 2;
}
