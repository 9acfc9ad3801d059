// quillctl log explain: which call sites log under a number.
//
// The table is text, one row a line, fields with a tab between: logid, level, module, biz_name, text,
// file, and the functions that log it. It is not part of the program: it lies in ../share/quillcore
// beside the program's folder.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "files.h"
#include "output.h"

namespace ctl {
namespace {

constexpr size_t kTableMax = size_t{256} * 1024;
constexpr unsigned kFields = 7;
constexpr const char* kNames[kFields] = {"logid", "level", "module",  "biz_name",
                                         "text",  "file",  "function"};

struct Field {
  const char* at;
  size_t length;
};

// Splits a line at its tabs. False for one that has another number of fields.
bool split(const char* line, size_t length, Field (&fields)[kFields]) {
  const char* const end = line + length;
  for (unsigned i = 0; i < kFields; i++) {
    const void* const tab = memchr(line, '\t', static_cast<size_t>(end - line));
    if ((tab != nullptr) != (i + 1 < kFields)) return false;
    const char* const stop = tab != nullptr ? static_cast<const char*>(tab) : end;
    fields[i] = {line, static_cast<size_t>(stop - line)};
    line = stop + 1;
  }
  return true;
}

// Where the table is installed, seen from the program. An empty path where that cannot be told.
void find_table(char (&path)[kPathSize]) {
  constexpr char kTable[] = "/share/quillcore/logids.tsv";
  const ssize_t length = readlinkat(AT_FDCWD, "/proc/self/exe", path, sizeof(path) - 40);
  path[length > 0 ? length : 0] = '\0';
  for (int up = 0; up < 2; up++) {
    char* const slash = strrchr(path, '/');
    if (slash != nullptr) *slash = '\0';
  }
  if (length > 0) memcpy(path + strlen(path), kTable, sizeof(kTable));
}

void print_row(const Field (&fields)[kFields]) {
  char parts[kFields][160];
  for (unsigned i = 0; i < kFields; i++)
    snprintf(parts[i], sizeof(parts[i]), "%s", shown(fields[i].at, fields[i].length));
  printf("[%s] [%s] [%s] [%s] %s\n    %s: %s\n", parts[0], parts[1], parts[2], parts[3], parts[4],
         parts[5], parts[6]);
}

void json_row(Json* json, const Field (&fields)[kFields]) {
  json->open('{');
  for (unsigned i = 0; i < kFields; i++) json->text(kNames[i], fields[i].at, fields[i].length);
  json->close('}');
}

} // namespace

int run_log_explain(const Arguments& arguments) {
  unsigned long logid = 0, row_logid = 0;
  if (!parse_number(arguments.words[0], 0, UINT32_MAX, &logid))
    return fail(kUsage, "log explain: a logid is a number");
  char path[kPathSize] = "";
  if (!arguments.has('T')) find_table(path);
  const char* const table = arguments.has('T') ? arguments.get('T') : path;
  const Owned<char> text(static_cast<char*>(take_memory(kTableMax)));
  if (read_text(table, text.get(), kTableMax) == 0)
    return fail(kCannotLook, "%s cannot be read; name one with --table", shown(table));

  Json json;
  unsigned count = 0;
  if (arguments.has('j')) json.open('[');
  for (const char* line = text.get(); *line != '\0';) {
    const size_t length = strcspn(line, "\n");
    Field fields[kFields];
    char number[16] = "";
    if (split(line, length, fields))
      snprintf(number, sizeof(number), "%.*s", static_cast<int>(fields[0].length), line);
    if (parse_number(number, 0, UINT32_MAX, &row_logid) && row_logid == logid) {
      count++;
      if (arguments.has('j')) {
        json_row(&json, fields);
      } else {
        print_row(fields);
      }
    }
    line += length + (line[length] == '\n');
  }
  if (arguments.has('j')) json.close(']');
  if (arguments.has('j')) json.end_line();
  if (count > 0) return kFine;
  return fail(kFoundWrong, "the library logs nothing under %lu; ask the daemon's author", logid);
}

} // namespace ctl
