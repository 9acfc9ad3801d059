// What hubd does on the bus. Everything but the start runs on the bus thread.
#include "bus_handlers.h"

#include <inttypes.h>
#include <libubox/blobmsg.h>
#include <quillcore/bus.h>
#include <quillcore/log.h>
#include <stdarg.h>
#include <stdio.h>

// Handlers get no argument of their own, and there is one bus for a process.
static hub_store_t* hub_of_the_bus;

// A text that is cut where it is full.
typedef struct text {
  char bytes[512];
  size_t len;
} text_t;

QN_PRINTF(2, 3) static void add(text_t* text, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int len = vsnprintf(text->bytes + text->len, sizeof(text->bytes) - text->len, fmt, args);
  va_end(args);
  if (len > 0) text->len += (size_t)len;
  if (text->len >= sizeof(text->bytes)) text->len = sizeof(text->bytes) - 1;
}

// Nested fields are only named: what they hold is for a daemon that knows the event.
static void add_field(text_t* text, struct blob_attr* field) {
  add(text, " %s=", blobmsg_name(field));
  switch (blobmsg_type(field)) {
    case BLOBMSG_TYPE_STRING:
      add(text, "%s", blobmsg_get_string(field));
      break;
    case BLOBMSG_TYPE_INT8:
      add(text, "%u", blobmsg_get_u8(field));
      break;
    case BLOBMSG_TYPE_INT16:
      add(text, "%u", blobmsg_get_u16(field));
      break;
    case BLOBMSG_TYPE_INT32:
      add(text, "%" PRId32, (int32_t)blobmsg_get_u32(field));
      break;
    case BLOBMSG_TYPE_INT64:
      add(text, "%" PRId64, (int64_t)blobmsg_get_u64(field));
      break;
    case BLOBMSG_TYPE_DOUBLE:
      add(text, "%g", blobmsg_get_double(field));
      break;
    default:
      add(text, "...");
      break;
  }
}

// `type` and `msg` are valid during this call only; what is kept is a copy.
static void on_event(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                     struct blob_attr* msg) {
  (void)ctx;
  (void)ev;
  text_t text = {.len = 0};
  add(&text, "%s", type);
  struct blob_attr* field;
  size_t rem;
  blobmsg_for_each_attr(field, msg, rem) {
    if (blobmsg_check_attr(field, true)) add_field(&text, field); // whatever the bus brings is checked
  }
  // The log has a line for each record, whatever the bus brings.
  for (char* byte = text.bytes; *byte != '\0'; byte++) {
    if ((unsigned char)*byte < ' ') *byte = '?';
  }
  qn_log_core_adpater(QN_LOG_I, 9004, "hubd", 1, 1, "hubd_event", "event %s", text.bytes);
  if (hub_store_put_text(hub_of_the_bus, HUB_LAST_EVENT, text.bytes) != 0) {
    qn_log_core_adpater(QN_LOG_W, 9005, "hubd", 1, 1, "hubd_event", "the event could not be kept.");
  }
}

int hub_bus_start(const char* path, hub_store_t* hub) {
  hub_of_the_bus = hub;
  qn_ubus_init();
  if (qn_ubus_add_event_handler("mesh.*", on_event) != 0) return -1;
  return qn_ubus_start(path);
}
