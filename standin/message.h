// Messages of the bus: an 8-byte header, then one root attribute that holds the others.
//
//   offset  size
//        0     1  version, 0
//        1     1  type
//        2     2  seq
//        4     4  peer
//        8     4  head of the root attribute: id 0, length with this head
//       12        attributes
//
// All numbers are big endian.
#ifndef QN_STANDIN_MESSAGE_H
#define QN_STANDIN_MESSAGE_H

#include <libubox/blob.h>

#include <cstddef>
#include <cstdint>

namespace qn::bus {

enum MessageType : uint8_t {
  kHello = 0,
  kStatus = 1,
  kData = 2,
  kInvoke = 5,
  kAddObject = 6,
};

enum AttrId : uint32_t {
  kAttrStatus = 1,
  kAttrObjId = 3,
  kAttrMethod = 4,
  kAttrData = 7,
  kAttrNoReply = 10,
};

constexpr size_t kMessageHeadSize = 12; // with the head of the root attribute
constexpr size_t kRootLenMax = 1048576; // of the root attribute, on both sides

struct MessageHead {
  uint8_t type;
  uint16_t seq;
  uint32_t peer;
  uint32_t raw_peer; // as it lies on the wire
  size_t body_len;   // bytes behind the head
};

// Reads the first kMessageHeadSize bytes of a message. False for what no message begins with: another
// version, or a length below 4 or above the limit.
bool parse_head(const uint8_t* bytes, MessageHead* head);

// What a message can carry for us. A pointer is null and a `has_` false where the attribute is absent or
// of the wrong form; of one that comes twice the last counts.
struct MessageBody {
  bool has_status = false;
  uint32_t status = 0;
  bool has_objid = false;
  uint32_t objid = 0;
  const char* method = nullptr;
  blob_attr* data = nullptr;
  bool no_reply = false;
};

// `body` is aligned for a blob_attr; what comes out points into it.
MessageBody parse_body(uint8_t* body, size_t length);

// Builds a message in a buffer of its own, large enough for every message that we send.
class MessageBuilder {
 public:
  MessageBuilder(MessageType type, uint16_t seq, uint32_t peer);

  void put_u32(uint32_t id, uint32_t value);
  void put_string(uint32_t id, const char* text);
  // The DATA attribute; its fields are put in between.
  size_t open_data();
  void close_data(size_t start);
  void put_field_u32(const char* name, uint32_t value);
  void put_field_string(const char* name, const char* text);

  // Completes the message. False when something did not fit.
  bool finish();
  const uint8_t* bytes() const { return bytes_; }
  size_t size() const { return size_; }

 private:
  void append(const void* bytes, size_t size);
  void append_u32(uint32_t value);
  void pad();
  void write_head(size_t start, uint32_t flags_and_id);
  size_t open_field(const char* name);
  void close(size_t start, uint32_t flags_and_id);

  uint8_t bytes_[1024] = {};
  size_t size_ = 0;
  bool fits_ = true;
};

} // namespace qn::bus

#endif // QN_STANDIN_MESSAGE_H
