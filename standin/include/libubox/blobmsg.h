// Named fields of a bus message, as far as an event handler reads them.
//
// Stands in for the header of the same name where that is not installed. Every reader accepts any bytes:
// a field that does not fit its message, its type or its name ends the walk or is passed over.
#ifndef STANDIN_LIBUBOX_BLOBMSG_H
#define STANDIN_LIBUBOX_BLOBMSG_H

#include <libubox/blob.h>

#ifdef __cplusplus
extern "C" {
#endif

enum blobmsg_type {
  BLOBMSG_TYPE_UNSPEC,
  BLOBMSG_TYPE_ARRAY,
  BLOBMSG_TYPE_TABLE,
  BLOBMSG_TYPE_STRING,
  BLOBMSG_TYPE_INT64,
  BLOBMSG_TYPE_INT32,
  BLOBMSG_TYPE_INT16,
  BLOBMSG_TYPE_INT8,
  BLOBMSG_TYPE_DOUBLE,
  BLOBMSG_TYPE_LAST = BLOBMSG_TYPE_DOUBLE,
  BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
};

struct blobmsg_policy {
  const char* name;
  enum blobmsg_type type; // BLOBMSG_TYPE_UNSPEC: any
};

// Whether the attribute is a well-formed field: extended, a known type, a name with its terminator (not
// empty where `name` asks for one), a value of its type's size.
bool blobmsg_check_attr(const struct blob_attr* attr, bool name);

int blobmsg_type(const struct blob_attr* attr);
// The parts of a checked field; the name is empty in an array.
const char* blobmsg_name(const struct blob_attr* attr);
void* blobmsg_data(const struct blob_attr* attr);
size_t blobmsg_data_len(const struct blob_attr* attr);

// Fills tb[i] with the first field of policy[i]'s name and type, null where there is none.
// Returns 0; -1 at the first malformed field, what came before it being filled in; -EINVAL for no data.
int blobmsg_parse(const struct blobmsg_policy* policy, int policy_len, struct blob_attr** tb, void* data,
                  unsigned int len);

// Values of checked fields of the type that the name says; a string is terminated.
uint8_t blobmsg_get_u8(struct blob_attr* attr);
bool blobmsg_get_bool(struct blob_attr* attr);
uint16_t blobmsg_get_u16(struct blob_attr* attr);
uint32_t blobmsg_get_u32(struct blob_attr* attr);
uint64_t blobmsg_get_u64(struct blob_attr* attr);
double blobmsg_get_double(struct blob_attr* attr);
char* blobmsg_get_string(struct blob_attr* attr); // null for a null field

// Whether an attribute stands at `attr` with `rem` bytes left, and how many are left behind it.
bool blobmsg_fits(const struct blob_attr* attr, size_t rem);

// Walks the fields of a table, an array or a message's data, up to the first that does not fit.
#define blobmsg_for_each_attr(pos, attr, rem)                                        \
  for ((rem) = (attr) ? blobmsg_walk_len(attr) : 0, (pos) = blobmsg_walk_data(attr); \
       blobmsg_fits(pos, rem); (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

// Where the fields inside an attribute begin: behind the name of a field, else behind the head.
struct blob_attr* blobmsg_walk_data(const struct blob_attr* attr);
size_t blobmsg_walk_len(const struct blob_attr* attr);

#ifdef __cplusplus
}
#endif

#endif // STANDIN_LIBUBOX_BLOBMSG_H
