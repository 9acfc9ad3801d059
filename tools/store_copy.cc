// quillctl store diff, export, import: values on their way between stores, files and documents.
//
// An export names a file by its key: letters, digits, "_", "-" and, but for the first, "." stand for
// themselves, every other byte is %NN. The empty key is "%".
#include <quillcore/memory.h>
#include <quillcore/store.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "files.h"
#include "import_document.h"
#include "output.h"
#include "store_image.h"

namespace ctl {
namespace {

constexpr size_t kNameSize = 3 * QN_KVS_KEY_MAX + 2;
constexpr mode_t kFileMode = 0600;
constexpr size_t kHeader = 25; // magic and version

int load(const char* path, StoreImage* image) {
  if (const int status = load_store(path, image, kCannotLook)) return status;
  return image->unsteady ? fail(kCannotLook, "%s changes all the time; try again", shown(path)) : kFine;
}

// What a get of the entry's key finds: the entry itself and not an earlier one of that text.
bool is_found(const StoreImage& image, const StoreKey& key) {
  return key.busy && find_key(image, key.text, key.text_length) == static_cast<int>(key.index);
}

// --- diff ---

void put_side(char sign, const StoreKey& key) {
  printf("    %c ", sign);
  put_value(key.value, key.value_length);
  putchar('\n');
}

bool same_value(const StoreKey& left, const StoreKey& right) {
  if (left.is_given() != right.is_given()) return false;
  if (!left.is_given()) return left.value_length == right.value_length;
  return left.value_length == right.value_length &&
         memcmp(left.value, right.value, left.value_length) == 0;
}

struct Difference {
  const StoreKey* left; // null where only the other store has the key
  const StoreKey* right;

  const char* sign() const { return left == nullptr ? "+" : right == nullptr ? "-" : "!"; }
};

void print_difference(const Difference& it, bool values) {
  const StoreKey& key = it.left != nullptr ? *it.left : *it.right;
  printf("%s %-32s", it.sign(), shown(key.text, key.text_length));
  if (it.left != nullptr) printf(" %5u", it.left->value_length);
  printf("%s", it.left != nullptr && it.right != nullptr ? " ->" : "");
  if (it.right != nullptr) printf(" %5u", it.right->value_length);
  puts(" bytes");
  if (!values) return;
  if (it.left != nullptr && it.left->is_given()) put_side('-', *it.left);
  if (it.right != nullptr && it.right->is_given()) put_side('+', *it.right);
}

void json_side(Json* json, const char* name, const StoreKey* key, bool values) {
  if (key == nullptr) return;
  json->open('{', name);
  json->number("bytes", key->value_length);
  if (values && key->is_given()) json->bytes(key->value, key->value_length);
  json->close('}');
}

void json_difference(Json* json, const Difference& it, bool values) {
  const StoreKey& key = it.left != nullptr ? *it.left : *it.right;
  json->open('{');
  json->text("key", key.text, key.text_length);
  json_side(json, "a", it.left, values);
  json_side(json, "b", it.right, values);
  json->close('}');
}

// Calls `report` for each key that differs.
template <typename Report>
void compare(const StoreImage& a, const StoreImage& b, Report report) {
  for (unsigned i = 0; i < kStoreKeys; i++) {
    const StoreKey left = store_key(a, i);
    if (!is_found(a, left)) continue;
    const int other = find_key(b, left.text, left.text_length);
    const StoreKey right = store_key(b, other < 0 ? 0 : static_cast<unsigned>(other));
    if (other < 0 || !same_value(left, right)) report(Difference{&left, other < 0 ? nullptr : &right});
  }
  for (unsigned i = 0; i < kStoreKeys; i++) {
    const StoreKey right = store_key(b, i);
    if (is_found(b, right) && find_key(a, right.text, right.text_length) < 0)
      report(Difference{nullptr, &right});
  }
}

// --- export ---

bool is_name_byte(char byte, bool first) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
         byte == '_' || byte == '-' || (byte == '.' && !first);
}

void name_of_key(const StoreKey& key, char (&name)[kNameSize]) {
  size_t used = 0;
  for (size_t i = 0; i < key.text_length; i++) {
    if (is_name_byte(key.text[i], i == 0)) {
      name[used++] = key.text[i];
    } else {
      used += static_cast<size_t>(snprintf(name + used, 4, "%%%02X", static_cast<uint8_t>(key.text[i])));
    }
  }
  if (used == 0) name[used++] = '%';
  name[used] = '\0';
}

bool write_all(int fd, const void* bytes, size_t length) {
  size_t done = 0;
  while (done < length) {
    const ssize_t put = write(fd, static_cast<const char*>(bytes) + done, length - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    done += static_cast<size_t>(put);
  }
  return true;
}

int export_key(int folder, const StoreKey& key) {
  char name[kNameSize];
  name_of_key(key, name);
  Fd fd(openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!fd.valid()) {
    return fail(kFoundWrong, "%s: %s", name,
                errno == EEXIST ? "it exists; name an empty folder" : why_not(errno));
  }
  if (write_all(fd.get(), key.value, key.value_length) && close(fd.release()) == 0) return kFine;
  return fail(kCannotLook, "%s: it could not be written: %s", name, why_not(errno));
}

int export_to_folder(const StoreImage& image, const char* path) {
  const Folder folder(path);
  if (!folder.valid()) return fail(kCannotLook, "%s: no folder that can be opened", shown(path));
  unsigned count = 0, skipped = 0;
  for (unsigned i = 0; i < kStoreKeys; i++) {
    const StoreKey key = store_key(image, i);
    if (!is_found(image, key)) continue;
    if (key.value_length > QN_KVS_VALUE_MAX) {
      skipped++;
      continue;
    }
    if (const int status = export_key(folder.fd(), key)) return status;
    count++;
  }
  printf("%u keys exported, %u left out: a get refuses them\n", count, skipped);
  return skipped > 0 ? kFoundWrong : kFine;
}

int export_to_document(const StoreImage& image) {
  Json json;
  bool whole = true;
  json.open('{');
  json.open('[', "keys");
  for (unsigned i = 0; i < kStoreKeys; i++) {
    const StoreKey key = store_key(image, i);
    if (!is_found(image, key)) continue;
    if (key.value_length > QN_KVS_VALUE_MAX) whole = false;
    if (key.value_length > QN_KVS_VALUE_MAX) continue;
    json.open('{');
    json.text("key", key.text, key.text_length);
    json.bytes(key.value, key.value_length);
    json.close('}');
  }
  json.close(']');
  json.close('}');
  json.end_line();
  return whole ? kFine : kFoundWrong;
}

// --- import ---

// Takes %NN back. False for what no export wrote.
bool key_of_name(const char* name, ImportKey* key) {
  key->key_length = 0;
  for (; *name != '\0'; name++) {
    if (key->key_length >= QN_KVS_KEY_MAX) return false;
    char byte = *name;
    if (byte == '%') {
      if (!hex_byte(name + 1, &byte) || byte == '\0') return false;
      name += 2;
    }
    key->key[key->key_length++] = byte;
  }
  key->key[key->key_length] = '\0';
  return key->key_length > 0;
}

int read_folder(const char* path, ImportList* list) {
  Folder folder(path);
  if (!folder.valid()) return fail(kCannotLook, "%s: no folder that can be opened", shown(path));
  while (const char* const name = folder.next()) {
    ImportKey* const key = list->add();
    if (key == nullptr || !key_of_name(name, key))
      return fail(kFoundWrong, "%s: %s", shown(name),
                  key == nullptr ? "more than 200 keys" : "no name of a key");
    const Fd fd(open_plain(name, nullptr, folder.fd()));
    if (!fd.valid()) return fail(kCannotLook, "%s: %s", shown(name), why_not(errno));
    const ssize_t length = read_up_to(fd.get(), key->value, sizeof(key->value));
    if (length < 0) return fail(kCannotLook, "%s: %s", shown(name), why_not(errno));
    if (length > QN_KVS_VALUE_MAX) return fail(kFoundWrong, "%s: longer than 2045 bytes", shown(name));
    key->value_length = static_cast<uint16_t>(length);
  }
  return kFine;
}

// The library says on standard error what it does. From construction to the end of its scope nobody hears
// it.
class QuietLibrary {
 public:
  QuietLibrary() : own_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    const Fd nowhere(openat(AT_FDCWD, "/dev/null", O_WRONLY | O_CLOEXEC));
    if (nowhere.valid()) dup2(nowhere.get(), STDERR_FILENO);
  }
  ~QuietLibrary() {
    if (own_.valid()) dup2(own_.get(), STDERR_FILENO);
  }
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;

 private:
  const Fd own_;
};

// An empty store: the library fills in the rest when it opens it. Made here because no link may be
// followed and no file replaced, and because the library makes folders.
bool make_store(const char* path) {
  static const char header[kHeader + 1] = "qnkv8deea96c7bc2b089429s\x01";
  Fd fd(openat(AT_FDCWD, path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!fd.valid()) return false;
  if (write_all(fd.get(), header, kHeader) && ftruncate(fd.get(), kStoreSize) == 0 &&
      close(fd.release()) == 0)
    return true;
  const int error = errno;
  unlink(path);
  errno = error;
  return false;
}

// Returns null, or the first key that the library did not take; `opened` tells whether it took the file.
const ImportKey* put_all(const char* path, ImportList& list, bool* opened) {
  const QuietLibrary quiet;
  qn_pool_t* const pool = qn_pool_create_default();
  kvstore_t* store = nullptr;
  *opened = pool != nullptr && qn_kvs_open(&store, pool, path) == 0;
  const ImportKey* refused = nullptr;
  for (unsigned i = 0; *opened && i < list.count && refused == nullptr; i++) {
    ImportKey& key = list.keys[i];
    const qn_str_t name = {key.key_length, key.key};
    if (qn_kvs_put(store, &name, key.value, key.value_length) != 0) refused = &key;
  }
  if (*opened) qn_kvs_close(store);
  if (pool != nullptr) qn_pool_free(pool);
  return refused;
}

// Whether the file holds what was put: the library does not tell of a write that failed.
bool holds_all(const char* path, const ImportList& list) {
  const Owned<StoreImage> image;
  if (read_store(path, image.get()) != 0 || refusal_of(*image) != nullptr) return false;
  for (unsigned i = 0; i < list.count; i++) {
    const ImportKey& key = list.keys[i];
    const int index = find_key(*image, key.key, key.key_length);
    if (index < 0) return false;
    const StoreKey stored = store_key(*image, static_cast<unsigned>(index));
    if (stored.value_length != key.value_length || memcmp(stored.value, key.value, key.value_length) != 0)
      return false;
  }
  return true;
}

int fill_store(const char* path, ImportList& list) {
  bool opened = false;
  if (const ImportKey* const refused = put_all(path, list, &opened)) {
    return fail(kFoundWrong, "%s: no room for a value of %u bytes; the class is full",
                shown(refused->key), refused->value_length);
  }
  if (opened && holds_all(path, list)) return printf("%u keys imported\n", list.count), kFine;
  return fail(kCannotLook, "%s: it could not be written; is there room?", shown(path));
}

} // namespace

int run_store_diff(const Arguments& arguments) {
  const Owned<StoreImage> a, b;
  if (const int status = load(arguments.words[0], a.get())) return status;
  if (const int status = load(arguments.words[1], b.get())) return status;
  Json json;
  unsigned count = 0;
  if (arguments.has('j')) json.open('[');
  compare(*a, *b, [&](const Difference& difference) {
    count++;
    if (arguments.has('j')) {
      json_difference(&json, difference, arguments.has('v'));
    } else {
      print_difference(difference, arguments.has('v'));
    }
  });
  if (arguments.has('j')) json.close(']');
  if (arguments.has('j')) json.end_line();
  return count > 0 ? kFoundWrong : kFine;
}

int run_store_export(const Arguments& arguments) {
  if (arguments.has('j') == (arguments.count == 2))
    return fail(kUsage, "store export: it takes a FOLDER or --json");
  const Owned<StoreImage> image;
  if (const int status = load(arguments.words[0], image.get())) return status;
  return arguments.has('j') ? export_to_document(*image) : export_to_folder(*image, arguments.words[1]);
}

int run_store_import(const Arguments& arguments) {
  const char* const path = arguments.words[0];
  if (strlen(path) > 638) return fail(kUsage, "the path is too long");
  const Owned<ImportList> list;
  const int status =
      arguments.count == 2 ? read_folder(arguments.words[1], list.get()) : read_document(list.get());
  if (status != kFine) return status;
  if (!make_store(path))
    return fail(kCannotLook, "%s: %s", shown(path),
                errno == EEXIST ? "it exists; name a new file" : why_not(errno));
  const int filled = fill_store(path, *list);
  if (filled != kFine) unlink(path);
  return filled;
}

} // namespace ctl
