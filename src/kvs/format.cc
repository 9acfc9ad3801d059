// The size-class table and the proof that it covers the file as laid out.
#include "kvs/format.h"

#include <iterator>

namespace qn {

constexpr kvs_value_type_t kvs_value_types[kValueTypeCount] = {
    // type, slot size, offset in the value area, slots, first key index
    {0, 32, 0, 32, 0},        {1, 64, 1024, 32, 32},     {2, 128, 3072, 32, 64},   {3, 256, 7168, 32, 96},
    {4, 512, 15360, 32, 128}, {5, 1024, 31744, 32, 160}, {6, 2048, 64512, 8, 192},
};

namespace {

constexpr bool table_has_no_gap() {
  uint32_t offset = 0;
  uint32_t index = 0;
  uint8_t type = 0;
  for (const kvs_value_type_t& row : kvs_value_types) {
    if (row.value_type != type || row.area_offset != offset || row.first_key_index != index) return false;
    type++;
    offset += uint32_t{row.slot_size} * row.slot_count;
    index += row.slot_count;
  }
  return index == kKeyCount && offset == 80896;
}

static_assert(std::size(kvs_value_types) == 7);
static_assert(table_has_no_gap());
static_assert(sizeof(kvs_key_entry_t) == 36 && alignof(kvs_key_entry_t) == 1);
static_assert(offsetof(kvs_key_entry_t, key_len) == 32 && offsetof(kvs_key_entry_t, value_type) == 33);
static_assert(offsetof(kvs_key_entry_t, value_index_bytes) == 34);
static_assert(kKeyArea + kKeyCount * sizeof(kvs_key_entry_t) == 17440);

} // namespace

const kvs_value_type_t* value_type_for_length(uint32_t value_len) {
  for (const kvs_value_type_t& row : kvs_value_types) {
    if (value_len <= row.value_size_max()) return &row;
  }
  return nullptr;
}

} // namespace qn
