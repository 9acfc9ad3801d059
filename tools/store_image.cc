// A store file as the library will see it.
#include "store_image.h"

#include <poll.h>

#include <cerrno>
#include <cstring>

#include "files.h"
#include "output.h"

namespace ctl {
namespace {

constexpr char kMagic[] = "qnkv8deea96c7bc2b089429s";
constexpr size_t kMagicSize = 24;
constexpr uint8_t kVersion = 1;
constexpr size_t kHeaderSize = 44; // what an open reads at first
constexpr uint32_t kEntries = 10240;
constexpr uint32_t kEntrySize = 36;
constexpr uint32_t kTextSize = 32;
constexpr unsigned kValueMax = 2045;
constexpr uint32_t kReadingsMax = 20;
constexpr int kPauseMs = 5; // a commit takes less, on most disks

// Places that no operation writes.
constexpr struct { uint32_t begin, end; } kZeroAreas[] = {{25, 10240}, {17440, 26624}, {107520, 131072}};

uint32_t entry_offset(unsigned key_index) { return kEntries + kEntrySize * key_index; }

// The first byte that is not zero, or `end`.
uint32_t first_used(const StoreImage& image, uint32_t begin, uint32_t end) {
  while (begin < end && image.bytes[begin] == 0) begin++;
  return begin;
}

int read_once(int fd, StoreImage* image) {
  uint8_t more;
  const ssize_t size = read_up_to_at(fd, image->bytes, kStoreSize, 0);
  if (size < 0 || fstat(fd, &image->file) != 0) return -1;
  image->size = static_cast<size_t>(size);
  image->longer = image->size == kStoreSize && read(fd, &more, 1) == 1;
  memset(image->bytes + image->size, 0, kStoreSize - image->size);
  return 0;
}

bool same_reading(const StoreImage& left, const StoreImage& right) {
  return left.size == right.size && left.file.st_mtim.tv_sec == right.file.st_mtim.tv_sec &&
         left.file.st_mtim.tv_nsec == right.file.st_mtim.tv_nsec &&
         memcmp(left.bytes, right.bytes, left.size) == 0;
}

// Adds up faults as long as there is room, which is for all that there can be.
struct FaultList {
  Fault* faults;
  size_t count = 0;

  void add(FaultKind kind, unsigned key_index, uint32_t offset) {
    if (count < kFaultsMax) faults[count++] = {kind, static_cast<uint8_t>(key_index), offset};
  }
};

void judge_text(const StoreImage& image, const StoreKey& key, FaultList* list) {
  const uint32_t end = key.entry_offset + kTextSize;
  const uint32_t behind = key.entry_offset + static_cast<uint32_t>(key.text_length);
  if (key.text_length == 0) list->add(kEmptyText, key.index, key.entry_offset);
  if (image.bytes[behind] != 0) list->add(kTextUnended, key.index, behind);
  const uint32_t used = first_used(image, behind + 1, end);
  if (used < end) list->add(kRestBehindText, key.index, used);
}

// Class and number of an entry's slot, which follow from its index.
// A free entry of a store that was never opened has none yet.
void judge_place(const StoreImage& image, const StoreKey& key, FaultList* list) {
  if (!key.busy &&
      first_used(image, key.entry_offset + 33, key.entry_offset + 36) == key.entry_offset + 36)
    return;
  const unsigned place[] = {key.value_class, (key.index - kStoreClass[key.value_class].first_key) & 255u,
                            0};
  for (uint32_t i = 0; i < 3; i++) {
    if (image.bytes[key.entry_offset + 33 + i] == place[i]) continue;
    list->add(kPlaceDamaged, key.index, key.entry_offset + 33 + i);
    return;
  }
}

void judge_value(const StoreImage& image, const StoreKey& key, FaultList* list) {
  const StoreClass& row = kStoreClass[key.value_class];
  if (key.value_length > kValueMax) return list->add(kLengthBeyondStore, key.index, key.slot_offset);
  if (key.value_length > row.value_max()) return list->add(kLengthBeyondSlot, key.index, key.slot_offset);
  if (key.value_length != 0 && key.value_length < value_min(key.value_class))
    list->add(kLengthBelowClass, key.index, key.slot_offset);
  const uint32_t end = key.slot_offset + row.slot_size;
  const uint32_t used = first_used(image, key.slot_offset + 2 + key.value_length, end);
  if (used < end) list->add(key.value_length == 0 ? kLengthZeroed : kRestBehindValue, key.index, used);
}

} // namespace

const StoreClass kStoreClass[kStoreClasses] = {
    {32, 0, 32, 26624},    {64, 32, 32, 27648},    {128, 64, 32, 29696},  {256, 96, 32, 33792},
    {512, 128, 32, 41984}, {1024, 160, 32, 58368}, {2048, 192, 8, 91136},
};

const FaultText kFaultTexts[kFaultKinds] = {
    {"too long for any", "a length of more than 2045", "a get is refused (512)"},
    {"longer than its slot", "a length beyond the slot", "a get gives bytes of the slots behind it"},
    {"too short for its class", "a length that belongs into a lower class", "a get gives so many bytes"},
    {"a second entry", "the key stands in an earlier entry, too",
     "a get gives the earlier entry's value"},
    {"length 0 over a value", "a length of 0 over bytes that are not 0",
     "a get is refused (514); a write was cut short"},
    {"bytes behind the value", "bytes behind the value that should be 0",
     "a get gives the value; a write may have been cut short"},
    {"text has no end", "a text without its end", "the next open ends it after 31 bytes"},
    {"bytes behind the text", "bytes behind the text that should be 0", "the next open clears them"},
    {"place is wrong", "class or slot is not the entry's own", "the next open mends it"},
    {"no text", "a busy entry without a text", "a get of the empty key finds it"},
    {"", "bytes that no operation writes", "nobody reads them; something else wrote here"},
};

unsigned class_of_key(unsigned key_index) {
  unsigned value_class = kStoreClasses - 1;
  while (key_index < kStoreClass[value_class].first_key) value_class--;
  return value_class;
}

unsigned value_min(unsigned value_class) {
  return value_class == 0 ? 0 : kStoreClass[value_class - 1].value_max() + 1;
}

unsigned value_max(unsigned value_class) {
  const unsigned room = kStoreClass[value_class].value_max();
  return room < kValueMax ? room : kValueMax;
}

int read_store(const char* path, StoreImage* image) {
  const Fd fd(open_plain(path));
  if (!fd.valid() || read_once(fd.get(), image) != 0) return -1;
  const Owned<StoreImage> before;
  for (uint32_t i = 1; i <= kReadingsMax; i++) {
    memcpy(before.get(), image, sizeof(StoreImage));
    if (i > 1) poll(nullptr, 0, kPauseMs);
    if (read_once(fd.get(), image) != 0) return -1;
    image->reread = i - 1;
    if (same_reading(*before, *image)) return 0;
  }
  image->unsteady = true;
  return 0;
}

const Refusal* refusal_of(const StoreImage& image) {
  static const Refusal refusals[] = {{463, "it is shorter than a header"},
                                     {464, "it does not begin as a store does"},
                                     {465, "its version is not 1"},
                                     {480, "it is shorter than 131072 bytes"}};
  if (image.size < kHeaderSize) return &refusals[0];
  if (memcmp(image.bytes, kMagic, kMagicSize) != 0) return &refusals[1];
  if (image.bytes[kMagicSize] != kVersion) return &refusals[2];
  return image.size < kStoreSize ? &refusals[3] : nullptr;
}

int load_store(const char* path, StoreImage* image, int refused) {
  if (read_store(path, image) != 0) return fail(kCannotLook, "%s: %s", shown(path), why_not(errno));
  const Refusal* const refusal = refusal_of(*image);
  if (refusal == nullptr) return kFine;
  return fail(refused, "%s: %s; an open refuses it (%u)", shown(path), refusal->why, refusal->logid);
}

bool StoreKey::is_given() const { return value_length > 0 && value_length <= kValueMax; }

StoreKey store_key(const StoreImage& image, unsigned key_index) {
  StoreKey key = {};
  key.index = key_index;
  key.entry_offset = entry_offset(key_index);
  key.text = reinterpret_cast<const char*>(image.bytes) + key.entry_offset;
  key.text_length = strnlen(key.text, kTextSize - 1);
  key.busy = image.bytes[key.entry_offset + kTextSize] != 0;
  key.value_class = class_of_key(key_index);
  const StoreClass& row = kStoreClass[key.value_class];
  key.slot_offset = row.first_slot + row.slot_size * (key_index - row.first_key);
  key.value_length = image.bytes[key.slot_offset] | uint32_t{image.bytes[key.slot_offset + 1]} << 8;
  key.value = image.bytes + key.slot_offset + 2;
  return key;
}

int find_key(const StoreImage& image, const char* text, size_t length) {
  for (unsigned i = 0; i < kStoreKeys; i++) {
    const StoreKey key = store_key(image, i);
    if (key.busy && key.text_length == length && memcmp(key.text, text, length) == 0)
      return static_cast<int>(i);
  }
  return -1;
}

size_t find_faults(const StoreImage& image, Fault (&faults)[kFaultsMax]) {
  FaultList list = {faults};
  for (const auto& area : kZeroAreas) {
    const uint32_t used = first_used(image, area.begin, area.end);
    if (used < area.end) list.add(kAreaNotZero, kNoKey, used);
  }
  for (unsigned i = 0; i < kStoreKeys; i++) {
    const StoreKey key = store_key(image, i);
    judge_place(image, key, &list);
    if (!key.busy) continue;
    judge_text(image, key, &list);
    if (find_key(image, key.text, key.text_length) != static_cast<int>(i))
      list.add(kSecondEntry, i, key.entry_offset);
    judge_value(image, key, &list);
  }
  return list.count;
}

} // namespace ctl
