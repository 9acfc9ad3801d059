// Attributes of the bus protocol: a 4-byte big-endian head (extended flag, 7-bit id, 24-bit length with
// the head counted in), then the payload, then zero bytes up to a multiple of 4.
//
// Stands in for the header of the same name where that is not installed.
#ifndef STANDIN_LIBUBOX_BLOB_H
#define STANDIN_LIBUBOX_BLOB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct blob_attr {
  uint32_t id_len; // big endian
  char data[];
};

#define BLOB_ATTR_EXTENDED 0x80000000u
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_ID_MASK 0x7f000000u
#define BLOB_ATTR_LEN_MASK 0x00ffffffu

bool blob_is_extended(const struct blob_attr* attr);
unsigned int blob_id(const struct blob_attr* attr);
// Length with the head; without it; and with the padding behind it.
size_t blob_raw_len(const struct blob_attr* attr);
size_t blob_len(const struct blob_attr* attr);
size_t blob_pad_len(const struct blob_attr* attr);
void* blob_data(const struct blob_attr* attr);
// The attribute behind `attr`; the caller knows that there is one.
struct blob_attr* blob_next(const struct blob_attr* attr);

#ifdef __cplusplus
}
#endif

#endif // STANDIN_LIBUBOX_BLOB_H
