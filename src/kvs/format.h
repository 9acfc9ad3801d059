// Format of a store file: 131072 bytes, a byte-for-byte copy of the image in memory.
//
//   offset  length
//        0      24  magic, 24 ASCII characters without a terminator
//       24       1  version
//    10240    7200  key area: 200 key entries of 36 bytes
//    26624   80896  value area: 200 slots in seven size classes
//
// Everything else is zero. Each key index is tied for ever to one slot: its class and its place there
// follow from the table alone. The only fields of more than one byte are value_index and value_len, both
// little-endian on every host.
#ifndef QN_KVS_FORMAT_H
#define QN_KVS_FORMAT_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qn {

constexpr uint32_t kDbSize = 131072;
constexpr size_t kMagicSize = 24;
constexpr char kMagic[kMagicSize + 1] = "qnkv8deea96c7bc2b089429s";
constexpr uint8_t kVersion = 1;
constexpr size_t kHeaderSize = 44; // read and tested at open; only magic and version have a meaning
constexpr size_t kKeyArea = 10240;
constexpr size_t kValueArea = 26624;
constexpr uint32_t kKeyCount = 200;
constexpr size_t kKeyTextSize = 32; // with its terminator
constexpr size_t kValueLenSize = 2;
constexpr uint32_t kValueTypeCount = 7;

// One entry of the key area. Bytes behind the text's terminator are zero.
struct kvs_key_entry_t {
  char text[kKeyTextSize];
  uint8_t key_len;    // 0: the entry is free. A mark first, and a length only at times
  uint8_t value_type; // the three bytes below equal what the table gives for the entry's index
  uint8_t value_index_bytes[2];

  uint16_t value_index() const {
    return static_cast<uint16_t>(value_index_bytes[0] | value_index_bytes[1] << 8);
  }
  void set_value_index(uint16_t index) {
    value_index_bytes[0] = static_cast<uint8_t>(index);
    value_index_bytes[1] = static_cast<uint8_t>(index >> 8);
  }
};

struct kvs_value_type_t {
  uint8_t value_type;
  uint16_t slot_size;
  uint32_t area_offset; // from the start of the value area
  uint16_t slot_count;
  uint16_t first_key_index;

  uint32_t value_size_max() const { return slot_size - static_cast<uint32_t>(kValueLenSize); }
};

extern const kvs_value_type_t kvs_value_types[kValueTypeCount];

// The smallest class for a value of this length, or null.
const kvs_value_type_t* value_type_for_length(uint32_t value_len);

inline kvs_key_entry_t& key_entry(uint8_t* image, uint32_t key_index) {
  return reinterpret_cast<kvs_key_entry_t*>(image + kKeyArea)[key_index];
}

inline uint8_t* value_slot(uint8_t* image, uint8_t value_type, uint32_t value_index) {
  const kvs_value_type_t& type = kvs_value_types[value_type];
  return image + kValueArea + type.area_offset + size_t{type.slot_size} * value_index;
}

inline uint16_t read_value_len(const uint8_t* slot) {
  return static_cast<uint16_t>(slot[0] | slot[1] << 8);
}

inline void write_value_len(uint8_t* slot, uint16_t value_len) {
  slot[0] = static_cast<uint8_t>(value_len);
  slot[1] = static_cast<uint8_t>(value_len >> 8);
}

} // namespace qn

#endif // QN_KVS_FORMAT_H
