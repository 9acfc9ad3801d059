// What tests and fuzz target of the bus share: the fields of a message as a text, a broker's socket.
#ifndef TESTS_BUS_SHARED_H
#define TESTS_BUS_SHARED_H

#include <libubus.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <string>

inline std::string describe_fields(blob_attr* container, int depth_left = 8);

inline std::string describe(blob_attr* attr, int depth_left) {
  if (!blobmsg_check_attr(attr, false)) return "malformed";
  const std::string name = std::string(blobmsg_name(attr)) + "=";
  const int type = blobmsg_type(attr);
  if (type == BLOBMSG_TYPE_INT8) return name + std::to_string(blobmsg_get_u8(attr));
  if (type == BLOBMSG_TYPE_INT16) return name + std::to_string(blobmsg_get_u16(attr));
  if (type == BLOBMSG_TYPE_INT32)
    return name + std::to_string(static_cast<int32_t>(blobmsg_get_u32(attr)));
  if (type == BLOBMSG_TYPE_INT64) return name + std::to_string(blobmsg_get_u64(attr));
  if (type == BLOBMSG_TYPE_DOUBLE) return name + std::to_string(blobmsg_get_double(attr));
  if (type == BLOBMSG_TYPE_STRING) return name + "'" + blobmsg_get_string(attr) + "'";
  if (type == BLOBMSG_TYPE_TABLE) return name + "{ " + describe_fields(attr, depth_left) + "}";
  if (type == BLOBMSG_TYPE_ARRAY) return name + "[ " + describe_fields(attr, depth_left) + "]";
  return name + "null";
}

inline std::string describe_fields(blob_attr* container, int depth_left) {
  std::string text;
  blob_attr* field;
  size_t rem;
  blobmsg_for_each_attr(field, container, rem) {
    if (depth_left > 0) text += describe(field, depth_left - 1) + " ";
  }
  return text;
}

inline int listen_at(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, 4) != 0)
    abort();
  return fd;
}

#endif // TESTS_BUS_SHARED_H
