// Attributes and named fields: reading.
#include <libubox/blobmsg.h>

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr size_t kHeadSize = sizeof(blob_attr);
constexpr size_t kAlignment = 4;
constexpr size_t kNameLenSize = 2;

static_assert(kHeadSize == 4);

constexpr size_t padded(size_t length) { return (length + kAlignment - 1) & ~(kAlignment - 1); }

uint32_t head(const blob_attr* attr) {
  uint32_t word = 0;
  memcpy(&word, attr, sizeof(word));
  return ntohl(word);
}

// Value sizes by type; 0 where any size will do.
constexpr size_t kValueSizes[BLOBMSG_TYPE_LAST + 1] = {0, 0, 0, 0, 8, 4, 2, 1, 8};

size_t name_len(const blob_attr* attr) {
  uint16_t length = 0;
  memcpy(&length, attr->data, sizeof(length));
  return ntohs(length);
}

// Bytes of the name part: its length, the name, a NUL, padding. All of the payload where that does not
// hold them.
size_t name_part(const blob_attr* attr) {
  const size_t length = blob_len(attr);
  if (length < kNameLenSize) return length;
  const size_t size = padded(kNameLenSize + name_len(attr) + 1);
  return size < length ? size : length;
}

template <typename T>
T value(const blob_attr* attr) {
  T number = 0;
  memcpy(&number, blobmsg_data(attr), sizeof(number));
  return number;
}

} // namespace

bool blob_is_extended(const blob_attr* attr) { return (head(attr) & BLOB_ATTR_EXTENDED) != 0; }

unsigned int blob_id(const blob_attr* attr) {
  return (head(attr) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

size_t blob_raw_len(const blob_attr* attr) { return head(attr) & BLOB_ATTR_LEN_MASK; }

size_t blob_len(const blob_attr* attr) {
  const size_t length = blob_raw_len(attr);
  return length > kHeadSize ? length - kHeadSize : 0;
}

size_t blob_pad_len(const blob_attr* attr) { return padded(blob_raw_len(attr)); }

void* blob_data(const blob_attr* attr) { return const_cast<char*>(attr->data); }

blob_attr* blob_next(const blob_attr* attr) {
  return reinterpret_cast<blob_attr*>(const_cast<char*>(reinterpret_cast<const char*>(attr)) +
                                      blob_pad_len(attr));
}

bool blobmsg_fits(const blob_attr* attr, size_t rem) {
  return rem >= kHeadSize && blob_pad_len(attr) >= kHeadSize && blob_pad_len(attr) <= rem;
}

bool blobmsg_check_attr(const blob_attr* attr, bool name) {
  if (!blob_is_extended(attr) || blob_id(attr) > BLOBMSG_TYPE_LAST) return false;
  const size_t length = blob_len(attr);
  if (length < padded(kNameLenSize + 1) || length < padded(kNameLenSize + name_len(attr) + 1))
    return false;
  if (name && name_len(attr) == 0) return false;
  if (attr->data[kNameLenSize + name_len(attr)] != '\0') return false;

  const size_t size = blobmsg_data_len(attr);
  const size_t wanted = kValueSizes[blob_id(attr)];
  if (wanted != 0) return size == wanted;
  if (blob_id(attr) != BLOBMSG_TYPE_STRING) return true;
  return size != 0 && static_cast<const char*>(blobmsg_data(attr))[size - 1] == '\0';
}

int blobmsg_type(const blob_attr* attr) { return static_cast<int>(blob_id(attr)); }

const char* blobmsg_name(const blob_attr* attr) { return attr->data + kNameLenSize; }

void* blobmsg_data(const blob_attr* attr) { return const_cast<char*>(attr->data) + name_part(attr); }

size_t blobmsg_data_len(const blob_attr* attr) { return blob_len(attr) - name_part(attr); }

blob_attr* blobmsg_walk_data(const blob_attr* attr) {
  if (attr == nullptr) return nullptr;
  return static_cast<blob_attr*>(blob_is_extended(attr) ? blobmsg_data(attr) : blob_data(attr));
}

size_t blobmsg_walk_len(const blob_attr* attr) {
  return blob_is_extended(attr) ? blobmsg_data_len(attr) : blob_len(attr);
}

int blobmsg_parse(const blobmsg_policy* policy, int policy_len, blob_attr** tb, void* data,
                  unsigned int len) {
  for (int i = 0; i < policy_len; i++) tb[i] = nullptr;
  if (data == nullptr || len == 0) return -EINVAL;

  size_t rem = len;
  for (blob_attr* attr = static_cast<blob_attr*>(data); blobmsg_fits(attr, rem);
       rem -= blob_pad_len(attr), attr = blob_next(attr)) {
    if (!blobmsg_check_attr(attr, false)) return -1;
    for (int i = 0; i < policy_len; i++) {
      const bool type_fits =
          policy[i].type == BLOBMSG_TYPE_UNSPEC || static_cast<int>(policy[i].type) == blobmsg_type(attr);
      if (tb[i] != nullptr || policy[i].name == nullptr || !type_fits) continue;
      if (strcmp(policy[i].name, blobmsg_name(attr)) == 0) tb[i] = attr;
    }
  }
  return 0;
}

uint8_t blobmsg_get_u8(blob_attr* attr) { return value<uint8_t>(attr); }

bool blobmsg_get_bool(blob_attr* attr) { return blobmsg_get_u8(attr) != 0; }

uint16_t blobmsg_get_u16(blob_attr* attr) { return ntohs(value<uint16_t>(attr)); }

uint32_t blobmsg_get_u32(blob_attr* attr) { return ntohl(value<uint32_t>(attr)); }

uint64_t blobmsg_get_u64(blob_attr* attr) {
  const char* const bytes = static_cast<const char*>(blobmsg_data(attr));
  uint32_t high = 0;
  uint32_t low = 0;
  memcpy(&high, bytes, sizeof(high));
  memcpy(&low, bytes + sizeof(high), sizeof(low));
  return uint64_t{ntohl(high)} << 32 | ntohl(low);
}

double blobmsg_get_double(blob_attr* attr) {
  const uint64_t bits = blobmsg_get_u64(attr);
  double number = 0;
  memcpy(&number, &bits, sizeof(number));
  return number;
}

char* blobmsg_get_string(blob_attr* attr) {
  return attr != nullptr ? static_cast<char*>(blobmsg_data(attr)) : nullptr;
}
