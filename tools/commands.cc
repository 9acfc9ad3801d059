// The table of commands and options.
#include <climits>
#include <cstring>

#include "command.h"

namespace ctl {

const Option kOptions[] = {
    {'j', "json", nullptr, "print JSON"},
    {'v', "values", nullptr, "show the values, too"},
    {'k', "key", "KEY", "one value, and nothing else"},
    {'r', "raw", nullptr, "with --key: as it is"},
    {'s', "socket", "PATH", "the service's socket"},
    {'t', "type", "TYPE", "msg_type, 0 to 255"},
    {'m', "source", "BITS", "msg_src, 1 to 65535"},
    {'a', "text", "TEXT", "the body, as text"},
    {'x', "hex", "DIGITS", "the body, two digits a byte"},
    {'i', "file", "FILE", "the body, out of a file"},
    {'p', "stdin", nullptr, "the body, from standard input"},
    {'w', "timeout", "MS", "wait at most so long, 2000 without it"},
    {'S', "since", "TIME", "of the last 90s, 5m, 2h, 1d"},
    {'n', "tail", "COUNT", "only the last records, at most 10000"},
    {'f', "follow", nullptr, "wait for more, behind the last 10"},
    {'F', "for", "TIME", "with --follow: end after so long"},
    {'l', "level", "LETTERS", "only these, as in GFE"},
    {'M', "module", "NAME", "only of the module"},
    {'L', "logid", "NUMBER", "only these records"},
    {'b', "biz", "NAME", "only of the biz_name"},
    {'g', "grep", "TEXT", "only texts that hold it"},
    {'T', "table", "FILE", "another logids.tsv"},
    {'h', "help", nullptr, "show this"},
};

const size_t kOptionCount = sizeof(kOptions) / sizeof(kOptions[0]);

const Command kCommands[] = {
    {"status", "[FOLDER...]", 0, 16, "j", "what runs, what does not, what to look at next", "",
     "quillctl status --json /var/lib/hub", run_status},
    {"store", "FILE", 1, 1, "jvkr", "keys, classes, holder and damage of a store", "",
     "quillctl store /etc/hub/hubd.kvs\nquillctl store -k wifi.key --raw /etc/hub/hubd.kvs >key",
     run_store},
    {"store verify", "FILE", 1, 1, "j", "every damage that a store can show", "",
     "quillctl store verify hubd.kvs && echo fine", run_store_verify},
    {"store diff", "A B", 2, 2, "jv", "what differs between two stores", "",
     "quillctl store diff old.kvs /etc/hub/hubd.kvs", run_store_diff},
    {"store export", "FILE [FOLDER]", 1, 2, "j", "the values to files, or to one document",
     "FOLDER exists; --json prints one document instead.", "quillctl store export a.kvs ./keys",
     run_store_export},
    {"store import", "NEWFILE [FOLDER]", 1, 2, "", "a new store out of an export",
     "Without FOLDER it reads a document from standard input.", "quillctl store import new.kvs ./keys",
     run_store_import},
    {"call", "", 0, 0, "stmaxipwj", "one request and its answer",
     "Status 0 for msg_err 0, 1 for another, 3 when no answer comes.",
     "quillctl call -s /tmp/quillnet/hubd.sock -t 2 -m 1 --text v", run_call},
    {"log", "ROLE...", 1, 16, "SnfFlMLbgj", "the records of daemons, in the order of time", "",
     "quillctl log hubd leafd --since 1m\nquillctl log hubd --follow --level GFEW", run_log},
    {"log explain", "LOGID", 1, 1, "Tj", "what logs under a number, and where", "",
     "quillctl log explain 512", run_log_explain},
    {"log set", "ROLE WHAT [NAME] VALUE", 3, 4, "smw", "switch records of a running daemon",
     "WHAT: level with G, E, W, I, D or F; console or trace with on or off;\n"
     "logid or biz with a NAME and on or off.",
     "quillctl log set -s hubd.sock hubd logid 9002 on", run_log_set},
    {"log get", "", 0, 0, "smwj", "what was switched so", "", "quillctl log get -s hubd.sock",
     run_log_get},
    {"log reset", "", 0, 0, "smw", "take all switches back", "", "quillctl log reset -s hubd.sock",
     run_log_reset},
    {"conf check", "[FILE]", 0, 1, "j", "a configuration as the loader sees it", "",
     "quillctl conf check new.conf", run_conf_check},
    {"pid", "NAME", 1, 1, "j", "whether the owner of a pid file runs",
     "Prints alive (status 0), or gone, foreign, broken or none (1).",
     "quillctl pid hubd || /etc/init.d/hubd start", run_pid},
    {"doctor", "[FOLDER...]", 0, 16, "j", "what is wrong here, worst first", "", "quillctl doctor",
     run_doctor},
};

const size_t kCommandCount = sizeof(kCommands) / sizeof(kCommands[0]);

const Option* find_option(char letter) {
  for (const Option& option : kOptions) {
    if (option.letter == letter) return &option;
  }
  return nullptr;
}

const Command* find_command(const char* name) {
  for (const Command& command : kCommands) {
    if (strcmp(command.name, name) == 0) return &command;
  }
  return nullptr;
}

} // namespace ctl
