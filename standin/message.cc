// Messages of the bus: reading and building.
#include "standin/message.h"

#include <arpa/inet.h>
#include <libubox/blobmsg.h>

#include <cstring>

namespace qn::bus {
namespace {

constexpr size_t kAttrHeadSize = 4;
constexpr size_t kRootStart = 8;
constexpr size_t kSeqOffset = 2;
constexpr size_t kPeerOffset = 4;

uint32_t load_u32(const void* bytes) {
  uint32_t value = 0;
  memcpy(&value, bytes, sizeof(value));
  return ntohl(value);
}

bool read_u32(const blob_attr* attr, uint32_t* value) {
  if (blob_len(attr) != sizeof(*value)) return false;
  *value = load_u32(attr->data);
  return true;
}

const char* read_string(const blob_attr* attr) {
  const size_t length = blob_len(attr);
  return length != 0 && attr->data[length - 1] == '\0' ? attr->data : nullptr;
}

void read_attr(blob_attr* attr, MessageBody* body) {
  switch (blob_id(attr)) {
    case kAttrStatus:
      body->has_status = read_u32(attr, &body->status);
      break;
    case kAttrObjId:
      body->has_objid = read_u32(attr, &body->objid);
      break;
    case kAttrMethod:
      body->method = read_string(attr);
      break;
    case kAttrData:
      body->data = attr;
      break;
    case kAttrNoReply:
      body->no_reply = blob_len(attr) == 1 && attr->data[0] != 0;
      break;
    default: // other attributes are not for us
      break;
  }
}

} // namespace

bool parse_head(const uint8_t* bytes, MessageHead* head) {
  uint16_t seq = 0;
  memcpy(&seq, bytes + kSeqOffset, sizeof(seq));
  head->type = bytes[1];
  head->seq = ntohs(seq);
  head->peer = load_u32(bytes + kPeerOffset);
  memcpy(&head->raw_peer, bytes + kPeerOffset, sizeof(head->raw_peer));

  const size_t length = load_u32(bytes + kRootStart) & BLOB_ATTR_LEN_MASK;
  const size_t padded = (length + kAttrHeadSize - 1) & ~(kAttrHeadSize - 1);
  if (bytes[0] != 0 || length < kAttrHeadSize || padded > kRootLenMax) return false;
  head->body_len = length - kAttrHeadSize;
  return true;
}

MessageBody parse_body(uint8_t* body, size_t length) {
  MessageBody found;
  size_t rem = length;
  for (blob_attr* attr = reinterpret_cast<blob_attr*>(body); blobmsg_fits(attr, rem);
       rem -= blob_pad_len(attr), attr = blob_next(attr)) {
    read_attr(attr, &found);
  }
  return found;
}

MessageBuilder::MessageBuilder(MessageType type, uint16_t seq, uint32_t peer) {
  const uint8_t start[2] = {0, type};
  const uint16_t wire_seq = htons(seq);
  append(start, sizeof(start));
  append(&wire_seq, sizeof(wire_seq));
  append_u32(peer);
  append_u32(0); // the root's head, written at the end
}

void MessageBuilder::append(const void* bytes, size_t size) {
  if (size > sizeof(bytes_) - size_) {
    fits_ = false;
    return;
  }
  if (size != 0) memcpy(bytes_ + size_, bytes, size);
  size_ += size;
}

void MessageBuilder::append_u32(uint32_t value) {
  const uint32_t wire = htonl(value);
  append(&wire, sizeof(wire));
}

void MessageBuilder::pad() {
  constexpr uint8_t kZeros[kAttrHeadSize] = {};
  append(kZeros, -size_ & (kAttrHeadSize - 1));
}

void MessageBuilder::write_head(size_t start, uint32_t flags_and_id) {
  const uint32_t wire = htonl(flags_and_id | static_cast<uint32_t>(size_ - start));
  if (fits_) memcpy(bytes_ + start, &wire, sizeof(wire));
}

// The length is that of head and payload; the padding behind them does not count.
void MessageBuilder::close(size_t start, uint32_t flags_and_id) {
  write_head(start, flags_and_id);
  pad();
}

size_t MessageBuilder::open_data() {
  const size_t start = size_;
  append_u32(0);
  return start;
}

void MessageBuilder::close_data(size_t start) { close(start, kAttrData << BLOB_ATTR_ID_SHIFT); }

void MessageBuilder::put_u32(uint32_t id, uint32_t value) {
  const size_t start = size_;
  append_u32(0);
  append_u32(value);
  close(start, id << BLOB_ATTR_ID_SHIFT);
}

void MessageBuilder::put_string(uint32_t id, const char* text) {
  const size_t start = size_;
  append_u32(0);
  append(text, strlen(text) + 1);
  close(start, id << BLOB_ATTR_ID_SHIFT);
}

// The name part counts in the field's length, its padding included.
size_t MessageBuilder::open_field(const char* name) {
  const size_t start = size_;
  const uint16_t length = htons(static_cast<uint16_t>(strlen(name)));
  append_u32(0);
  append(&length, sizeof(length));
  append(name, strlen(name) + 1);
  pad();
  return start;
}

void MessageBuilder::put_field_u32(const char* name, uint32_t value) {
  const size_t start = open_field(name);
  append_u32(value);
  close(start, BLOB_ATTR_EXTENDED | BLOBMSG_TYPE_INT32 << BLOB_ATTR_ID_SHIFT);
}

void MessageBuilder::put_field_string(const char* name, const char* text) {
  const size_t start = open_field(name);
  append(text, strlen(text) + 1);
  close(start, BLOB_ATTR_EXTENDED | BLOBMSG_TYPE_STRING << BLOB_ATTR_ID_SHIFT);
}

bool MessageBuilder::finish() {
  write_head(kRootStart, 0);
  return fits_;
}

} // namespace qn::bus
