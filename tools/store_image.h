// A store file as the library will see it, read and never written.
//
// What is said of a file is what an open and a get will do with it: places are computed from the key's
// index alone, damaged places of an entry are mended, a value's length is believed up to 2045 even beyond
// its slot.
#ifndef TOOLS_STORE_IMAGE_H
#define TOOLS_STORE_IMAGE_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

namespace ctl {

constexpr size_t kStoreSize = 131072;
constexpr unsigned kStoreKeys = 200;
constexpr unsigned kStoreClasses = 7;

struct StoreClass {
  uint16_t slot_size;
  uint16_t first_key;
  uint16_t keys;
  uint32_t first_slot; // offset in the file

  unsigned value_max() const { return slot_size - 2u; }
};

extern const StoreClass kStoreClass[kStoreClasses];

unsigned class_of_key(unsigned key_index);
// The shortest value of a class; shorter ones go to the class before.
unsigned value_min(unsigned value_class);
// The longest that a put takes: one less than the last class has room for.
unsigned value_max(unsigned value_class);

struct StoreImage {
  uint8_t bytes[kStoreSize];
  size_t size;     // of them that the file has
  bool longer;     // it has more
  bool unsteady;   // it changed each time it was read
  uint32_t reread; // times
  struct stat file;
};

// Reads the file until two readings are equal. Returns 0, or -1 with errno as open_plain().
int read_store(const char* path, StoreImage* image);

// read_store() for a command: what an open takes. Returns a Status, having said what is wrong: `refused`
// where an open refuses the file, kCannotLook where it cannot be read.
int load_store(const char* path, StoreImage* image, int refused);

// Why an open refuses the file, with the logid of its record; null for a file that it takes.
struct Refusal {
  unsigned logid;
  const char* why;
};
const Refusal* refusal_of(const StoreImage& image);

struct StoreKey {
  unsigned index;
  bool busy;
  const char* text; // not terminated
  size_t text_length;
  unsigned value_class;
  unsigned value_length; // as stored, also where it cannot be
  const uint8_t* value;
  uint32_t entry_offset;
  uint32_t slot_offset;

  // What a get gives, once the key is found.
  bool is_given() const;
};

StoreKey store_key(const StoreImage& image, unsigned key_index);

// The entry that a get of this text finds, or -1.
int find_key(const StoreImage& image, const char* text, size_t length);

enum FaultKind : uint8_t {
  kLengthBeyondStore,
  kLengthBeyondSlot,
  kLengthBelowClass,
  kSecondEntry,
  kLengthZeroed,
  kRestBehindValue,
  kTextUnended,
  kRestBehindText,
  kPlaceDamaged,
  kEmptyText,
  kAreaNotZero,
  kFaultKinds
};

struct Fault {
  FaultKind kind;
  uint8_t key_index; // kNoKey for an area
  uint32_t offset;   // of the first damaged byte
};

constexpr uint8_t kNoKey = 255;
constexpr size_t kFaultsMax = 8 * kStoreKeys;

struct FaultText {
  const char* name;    // for the list of keys
  const char* what;    // the damage
  const char* outcome; // what a get will do
};
extern const FaultText kFaultTexts[kFaultKinds];

// Finds what is damaged in a file that an open takes, in the order of the file. Returns the number.
size_t find_faults(const StoreImage& image, Fault (&faults)[kFaultsMax]);

} // namespace ctl

#endif // TOOLS_STORE_IMAGE_H
