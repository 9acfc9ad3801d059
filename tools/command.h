// The commands of quillctl: one table that --help, the manual page and the completion are made from.
#ifndef TOOLS_COMMAND_H
#define TOOLS_COMMAND_H

#include <cstddef>

namespace ctl {

// An option has one letter in all commands that take it.
struct Option {
  char letter;
  const char* name;
  const char* argument; // null for a switch
  const char* help;
};

struct Arguments {
  const char* options[128]; // by letter; "" for a switch that was given
  int count;                // of the words
  char** words;

  bool has(char letter) const { return options[static_cast<unsigned char>(letter)] != nullptr; }
  const char* get(char letter) const { return options[static_cast<unsigned char>(letter)]; }
};

struct Command {
  const char* name; // one word or two
  const char* words;
  int words_min;
  int words_max;
  const char* letters; // of its options
  const char* summary;
  const char* hint; // what cannot be guessed, in lines of a terminal; the manual says more
  const char* examples;
  int (*run)(const Arguments& arguments);
};

extern const Command kCommands[];
extern const size_t kCommandCount;
extern const Option kOptions[];
extern const size_t kOptionCount;

const Option* find_option(char letter);

// Null for a word that is none.
const Command* find_command(const char* name);

void print_help();
void print_help(const Command& command);

int run_status(const Arguments& arguments);
int run_store(const Arguments& arguments);
int run_store_verify(const Arguments& arguments);
int run_store_diff(const Arguments& arguments);
int run_store_export(const Arguments& arguments);
int run_store_import(const Arguments& arguments);
int run_call(const Arguments& arguments);
int run_log(const Arguments& arguments);
int run_log_explain(const Arguments& arguments);
int run_log_set(const Arguments& arguments);
int run_log_get(const Arguments& arguments);
int run_log_reset(const Arguments& arguments);
int run_conf_check(const Arguments& arguments);
int run_pid(const Arguments& arguments);
int run_doctor(const Arguments& arguments);

} // namespace ctl

#endif // TOOLS_COMMAND_H
