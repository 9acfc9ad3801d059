// Configuration files: one read, one pass.
#include "container/config.h"

#include <fcntl.h>
#include <quillcore/utility.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "container/string_map.h"
#include "core/heap.h"
#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/error_text.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"
#include "utils/white_space.h"

namespace {

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

// Reads until the buffer is full or nothing more comes. Returns the number of bytes, or -1.
ssize_t read_all(int fd, char* text, size_t size) {
  size_t length = 0;
  while (length < size) {
    const ssize_t got = read(fd, text + length, size - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    length += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(length);
}

// Fills the buffer with the front of the file and terminates it.
bool qn_conf_read_from_file(const char* path, char (&text)[kTextSize]) {
  qn::UniqueFd fd(qn::open_above(path, O_RDONLY));
  if (!fd.valid()) return QN_FAIL_PRINTLN(false, kOpenFailed, path, QN_ERRNO);
  const ssize_t length = read_all(fd.get(), text, kTextSize - 1);
  if (length < 0) return QN_FAIL_PRINTLN(false, kReadFailed, path, QN_ERRNO);
  text[length] = '\0';
  return close(fd.release()) == 0;
}

// Copies a stretch into a field, less the white space at its end. False, and an empty field, for a
// stretch that is longer than the field with that white space.
template <size_t size>
bool copy_trimmed(char (&field)[size], const char* start, size_t length) {
  if (length >= size) return false;
  while (length > 0 && qn::is_white_space(start[length - 1])) length--;
  copy_bytes(field, start, length); // into a node of zeros
  return true;
}

// Parses one entry at `start`, where no white space is, into the empty node. Returns where the next one
// begins; null when this was the last: the text has ended, or the entry breaks a limit and nothing behind
// it can be trusted.
char* parse_entry(char* start, qn_map_node_t& node) {
  char* const equals = strchr(start, '=');
  if (equals == nullptr) return nullptr;
  if (!copy_trimmed(node.key, start, static_cast<size_t>(equals - start))) return nullptr;

  char* const value = qn::skip_white_space(equals + 1);
  char* const line_feed = strchr(value, '\n');
  const size_t length = line_feed != nullptr ? static_cast<size_t>(line_feed - value) : strlen(value);
  if (!copy_trimmed(node.value, value, length)) return nullptr;
  return line_feed != nullptr ? qn::skip_white_space(line_feed) : nullptr;
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
  char text[kTextSize];
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
