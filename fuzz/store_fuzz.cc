// A store file with any damage, and any operations on it: the store must do what the model does.
//
// The input is a list of commands, each one byte and its arguments. Damage closes the store; the next
// operation opens it again. Whatever file an open takes, its bytes and every result must be the model's,
// and what quillctl tells of it before the open is what the open and each get do. After a file that it
// refuses the input goes on with a good one.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "tools/store_image.h"

namespace {

enum Command {
  kPatchFile,
  kPatchEntry,
  kPatchSlot,
  kResize,
  kReopen,
  kPut,
  kPutText,
  kGet,
  kDelete,
  kCommandCount
};

constexpr int kCommandsMax = 32;
constexpr size_t kFileMax = StoreModel::kFileSize + 100;

// A store with a few keys in each class, some of them deleted again.
std::string start_file() {
  StoreModel model;
  for (const size_t length : {5u, 30u, 31u, 100u, 200u, 400u, 1000u, 1500u}) {
    for (int i = 0; i < 3; i++) {
      model.put("key" + std::to_string(length) + "-" + std::to_string(i),
                std::string(length, static_cast<char>('a' + i)));
    }
    model.remove("key" + std::to_string(length) + "-1");
  }
  return model.image();
}

// A file in memory that has a path all the same.
class StoreFile {
 public:
  StoreFile() : fd_(memfd_create("store", MFD_CLOEXEC)) {
    bytes_ = static_cast<char*>(mmap(nullptr, kFileMax, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
    require(fd_ >= 0 && bytes_ != MAP_FAILED, "a file can be made");
  }

  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

  void write(const std::string& content) const {
    require(ftruncate(fd_, static_cast<off_t>(content.size())) == 0, "the file can be resized");
    memcpy(bytes_, content.data(), content.size());
  }

  // Whether it holds `image` and then what `content` has behind an image's length.
  bool holds(const std::string& image, const std::string& content) const {
    struct stat status;
    if (fstat(fd_, &status) != 0 || static_cast<size_t>(status.st_size) != content.size()) return false;
    const size_t tail = std::min(image.size(), content.size());
    return memcmp(bytes_, image.data(), tail) == 0 &&
           memcmp(bytes_ + tail, content.data() + tail, content.size() - tail) == 0;
  }

 private:
  int fd_;
  char* bytes_;
};

// One for all inputs: its large buffers are made once.
class Tester {
 public:
  void run(const uint8_t* data, size_t size) {
    input_ = {reinterpret_cast<const char*>(data), size};
    content_ = start_;
    for (int i = 0; i < kCommandsMax && !input_.empty(); i++) {
      const uint32_t command = draw(1) % kCommandCount;
      if (command <= kReopen) {
        damage(command);
      } else if (open()) {
        operate(command);
      }
    }
    damage(kReopen);
    open();
    store_.reset();
  }

 private:
  // A number of so many bytes; zeros stand behind the input's end.
  uint32_t draw(size_t bytes) {
    uint32_t value = 0;
    for (; bytes > 0; bytes--) {
      value = value << 8 | (input_.empty() ? 0u : static_cast<uint8_t>(input_[0]));
      if (!input_.empty()) input_.remove_prefix(1);
    }
    return value;
  }

  void damage(uint32_t command) {
    if (store_) content_.replace(0, StoreModel::kFileSize, model_.image());
    store_.reset();
    if (command == kReopen) return;
    // One draw in a statement: within one, their order would be the compiler's.
    uint32_t at = draw(command == kPatchFile || command == kResize ? 3 : 1);
    if (command == kResize) {
      content_.resize(at % (kFileMax + 1));
      return;
    }
    if (command == kPatchFile) at %= StoreModel::kFileSize;
    if (command == kPatchSlot) at = StoreModel::slot_offset(at % StoreModel::kKeys);
    if (command == kPatchEntry) {
      at = StoreModel::entry_offset(at % StoreModel::kKeys);
      at += draw(1) % 36;
    }
    const uint32_t count = 1 + draw(1) % 40;
    std::string bytes;
    while (bytes.size() < count) bytes += static_cast<char>(draw(1));
    if (at + count <= content_.size()) content_.replace(at, count, bytes);
  }

  // Whether there is an open store.
  bool open() {
    if (store_) return true;
    file_.write(content_);
    const bool tool_takes = look_with_tool();
    store_ = std::make_unique<OpenStore>(file_.path());
    require((store_->result() == 0) == StoreModel::takes(content_), "open takes what is a store");
    require((store_->result() == 0) == tool_takes, "the tool tells what an open takes");
    if (store_->result() != 0) {
      require(file_.holds(content_, content_), "a refused file stays as it was");
      store_.reset();
      content_ = start_; // for the commands to come
      return false;
    }
    model_.load(std::string_view(content_).substr(0, StoreModel::kFileSize));
    require_file();
    compare_with_tool();
    return true;
  }

  bool look_with_tool() {
    image_->size = std::min(content_.size(), ctl::kStoreSize);
    memcpy(image_->bytes, content_.data(), image_->size);
    memset(image_->bytes + image_->size, 0, ctl::kStoreSize - image_->size);
    if (ctl::refusal_of(*image_) != nullptr) return false;
    static ctl::Fault faults[ctl::kFaultsMax];
    for (size_t i = ctl::find_faults(*image_, faults); i > 0; i--)
      require(faults[i - 1].offset < ctl::kStoreSize && faults[i - 1].kind < ctl::kFaultKinds, "a fault");
    return true;
  }

  void compare_with_tool() {
    for (unsigned i = 0; i < ctl::kStoreKeys; i++) {
      const ctl::StoreKey key = ctl::store_key(*image_, i);
      if (!key.busy || ctl::find_key(*image_, key.text, key.text_length) != static_cast<int>(i)) continue;
      Reading told{key.value_length == 0 ? Reading::kEmpty : Reading::kNothing, ""};
      if (key.is_given())
        told = {Reading::kValue, {reinterpret_cast<const char*>(key.value), key.value_length}};
      require(store_->get(std::string(key.text, key.text_length)) == told,
              "the tool tells what a get gives");
    }
  }

  void operate(uint32_t command) {
    const StoreKey key = take_key();
    if (command == kDelete) require(store_->remove(key) == model_.remove(key), "the result of a delete");
    if (command == kPut || command == kPutText) {
      const bool is_text = command == kPutText;
      const uint32_t length = draw(2) % 2100;
      const std::string value(length, static_cast<char>(draw(1) | 1));
      const int32_t result = is_text ? store_->put_text(key, value) : store_->put(key, value);
      require(result == (is_text ? model_.put_text(key, value) : model_.put(key, value)),
              "the result of a put");
    }
    require(store_->get(key) == model_.get(key), "what a get reads");
    require_file();
  }

  // A key that stands in an entry, free or busy, or one of a few others; of its whole length or another.
  StoreKey take_key() {
    const uint32_t choice = draw(1);
    const std::string others[] = {"", "new", "other", std::string(31, 'k'), std::string(32, 'k')};
    const std::string text = choice < StoreModel::kKeys ? model_.entry_text(choice) : others[choice % 5];
    const uint32_t length = draw(1);
    return {text, length < 192 ? static_cast<uint32_t>(text.size()) : length - 192};
  }

  void require_file() const { require(file_.holds(model_.image(), content_), "the bytes of the file"); }

  const std::string start_ = start_file();
  const StoreFile file_;
  std::string_view input_; // what is left of it
  std::string content_;    // the file before the open; behind a store's length also afterwards
  StoreModel model_;
  std::unique_ptr<ctl::StoreImage> image_ = std::make_unique<ctl::StoreImage>();
  std::unique_ptr<OpenStore> store_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const GateAt quiet(0);
  static Tester tester;
  tester.run(data, size);
  return 0;
}
