// Configuration files: one read, one pass.
#include "container/config.h"

#include <quillcore/utility.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "container/string_map.h"
#include "core/heap.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/error_text.h"

namespace {

using qn::ErrorText;
using qn::Message;

constexpr char kModule[] = "conf";

constexpr Message kStart{QN_LOG_I, 633, kModule, "qn_conf_load", "conf_load start."};
constexpr Message kOpenFailed{QN_LOG_I, 0, kModule, "qn_conf_read_from_file",
                              "open file=%s failed. errno=(%d, %s)"};
constexpr Message kReadFailed{QN_LOG_I, 0, kModule, "qn_conf_read_from_file",
                              "read file=%s failed. errno=(%d, %s)"};
constexpr Message kLoaded{QN_LOG_I, 0, kModule, "qn_conf_load_configs_from_file",
                          "loadd config file=%s ok."};
constexpr Message kLoadFailed{QN_LOG_I, 0, kModule, "qn_conf_load",
                              "load config file=%s failed, using default."};
constexpr Message kEnd{QN_LOG_I, 0, kModule, "qn_conf_load", "conf_load end."};

constexpr size_t kTextSize = 32768; // with the terminator

struct FileClose {
  void operator()(FILE* file) const { fclose(file); }
};

// Fills the zeroed buffer with the front of the file.
bool qn_conf_read_from_file(const char* path, char (&text)[kTextSize]) {
  std::unique_ptr<FILE, FileClose> file(fopen(path, "re"));
  if (!file) {
    const int error = errno;
    QN_PRINTLN(kOpenFailed, path, error, ErrorText(error).text());
    return false;
  }
  // One element of the whole size: a shorter file gives 0 and leaves its bytes in the buffer all the
  // same.
  if (fread(text, kTextSize - 1, 1, file.get()) == 0 && ferror(file.get()) != 0) {
    const int error = errno;
    QN_PRINTLN(kReadFailed, path, error, ErrorText(error).text());
    return false;
  }
  return fclose(file.release()) == 0;
}

// Parses one entry at `position` into the empty node. Returns where the next one begins; null when this
// was the last: the text has ended, or the entry breaks a limit and nothing behind it can be trusted.
char* parse_entry(char* position, qn_map_node_t& node) {
  char* const start = qn_utils_ltrim(position);
  char* const equals = strchr(start, '=');
  if (equals == nullptr) return nullptr;
  if (strncpy_s(node.key, sizeof(node.key), start, static_cast<size_t>(equals - start)) != 0)
    return nullptr;
  // Nothing in front of the key is left to trim.
  qn_utils_rtrim(node.key);

  char* const value = qn_utils_ltrim(equals + 1);
  char* const line_feed = strchr(value, '\n');
  const size_t length = line_feed != nullptr ? static_cast<size_t>(line_feed - value) : strlen(value);
  if (strncpy_s(node.value, sizeof(node.value), value, length) != 0) return nullptr;
  qn_utils_rtrim(node.value);
  return qn_utils_ltrim(line_feed);
}

} // namespace

qn_map_t* qn_map_parse(char* text) {
  qn_map_t* const map = qn_map_new();
  if (map == nullptr) return nullptr;
  for (char* position = qn_utils_trim(text); position != nullptr && *position != '\0';) {
    qn_map_node_t* const node = qn_map_node_new();
    if (node == nullptr) {
      qn_map_free(map);
      return nullptr;
    }
    position = parse_entry(position, *node);
    // Also the node of an entry that could not be read to its end.
    qn_map_link(node, map);
  }
  return map;
}

qn_map_t* qn_conf_load_configs_from_file(const char* path) {
  char text[kTextSize] = {};
  if (!qn_conf_read_from_file(path, text)) return nullptr;
  QN_PRINTLN(kLoaded, path);
  return qn_map_parse(text);
}

qn_map_t* qn_conf_load(const char* path) {
  if (path == nullptr) return nullptr;
  QN_CONSOLE(kStart);
  qn_map_t* const map = qn_conf_load_configs_from_file(path);
  if (map == nullptr) QN_PRINTLN(kLoadFailed, path);
  QN_PRINTLN(kEnd);
  return map;
}
