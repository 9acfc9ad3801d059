// The fields of a bus message: whatever bytes come, every reader stays inside them.
#include <libubox/blobmsg.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "standin/message.h"

namespace {

constexpr int kDepthMax = 8;

uint64_t g_sum; // what was read, so that reading is not optimised away

void read_field(blob_attr* field, int depth);

void walk(blob_attr* container, int depth) {
  blob_attr* field;
  size_t rem;
  blobmsg_for_each_attr(field, container, rem) read_field(field, depth);
}

void read_field(blob_attr* field, int depth) {
  if (!blobmsg_check_attr(field, false)) return;
  g_sum += strlen(blobmsg_name(field)) + blobmsg_data_len(field);
  switch (blobmsg_type(field)) {
    case BLOBMSG_TYPE_INT8:
      g_sum += blobmsg_get_u8(field);
      break;
    case BLOBMSG_TYPE_INT16:
      g_sum += blobmsg_get_u16(field);
      break;
    case BLOBMSG_TYPE_INT32:
      g_sum += blobmsg_get_u32(field);
      break;
    case BLOBMSG_TYPE_INT64:
      g_sum += blobmsg_get_u64(field);
      break;
    case BLOBMSG_TYPE_DOUBLE:
      g_sum += blobmsg_get_double(field) > 0;
      break;
    case BLOBMSG_TYPE_STRING:
      g_sum += strlen(blobmsg_get_string(field));
      break;
    default:
      if (depth < kDepthMax) walk(field, depth + 1);
      break;
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A block of just this size: a byte read behind it is found.
  const std::unique_ptr<uint8_t, decltype(&free)> body(static_cast<uint8_t*>(malloc(size + (size == 0))),
                                                       free);
  if (size != 0) memcpy(body.get(), data, size);
  const qn::bus::MessageBody found = qn::bus::parse_body(body.get(), size);
  if (found.method != nullptr) g_sum += strlen(found.method);
  if (found.data == nullptr) return 0;
  walk(found.data, 0);

  const blobmsg_policy policy[] = {
      {"node", BLOBMSG_TYPE_STRING}, {"hops", BLOBMSG_TYPE_INT32}, {"tab", BLOBMSG_TYPE_UNSPEC}};
  blob_attr* fields[3];
  blobmsg_parse(policy, 3, fields, blob_data(found.data),
                static_cast<unsigned int>(blob_len(found.data)));
  for (blob_attr* field : fields) {
    if (field != nullptr) read_field(field, 0);
  }
  if (fields[0] != nullptr && strcmp(blobmsg_name(fields[0]), "node") != 0) abort();
  return 0;
}
