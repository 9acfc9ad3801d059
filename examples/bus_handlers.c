// What hubd does on the bus: it listens to the mesh and keeps the last thing it heard. Everything but the
// start runs on the bus thread.
#include <inttypes.h>
#include <libubox/blobmsg.h>
#include <stdio.h>
#include <string.h>

#include "hubd.h"

// Handlers get no argument of their own, and there is one bus for a process.
static hub_store_t* hub_of_the_bus;

// Appends " name=value" as far as there is room. What other types hold is for a daemon that knows the
// event.
static void add_field(char* text, size_t size, struct blob_attr* field) {
  const size_t len = strlen(text);
  const char* name = blobmsg_name(field);
  if (blobmsg_type(field) == BLOBMSG_TYPE_STRING) {
    snprintf(text + len, size - len, " %s=%s", name, blobmsg_get_string(field));
  } else if (blobmsg_type(field) == BLOBMSG_TYPE_INT32) {
    snprintf(text + len, size - len, " %s=%" PRId32, name, (int32_t)blobmsg_get_u32(field));
  } else {
    snprintf(text + len, size - len, " %s=...", name);
  }
}

// `type` and `msg` are valid during this call only; what is kept is a copy.
static void on_event(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                     struct blob_attr* msg) {
  (void)ctx;
  (void)ev;
  char text[512];
  snprintf(text, sizeof(text), "%s", type);
  struct blob_attr* field;
  size_t rem;
  blobmsg_for_each_attr(field, msg, rem) {
    if (blobmsg_check_attr(field, true)) add_field(text, sizeof(text), field); // whatever the bus brings
  }
  // The log has a line for each record, whatever the bus brings.
  for (char* byte = text; *byte != '\0'; byte++) {
    if ((unsigned char)*byte < ' ') *byte = '?';
  }
  HUB_LOG(QN_LOG_I, 9004, "hubd_event", "event %s", text);
  if (hub_store_put_event(hub_of_the_bus, text) != 0) {
    HUB_LOG(QN_LOG_W, 9005, "hubd_event", "the event could not be kept.");
  }
}

int hub_bus_start(const char* path, hub_store_t* hub) {
  hub_of_the_bus = hub;
  qn_ubus_init();
  if (qn_ubus_add_event_handler("mesh.*", on_event) != 0) return -1;
  return qn_ubus_start(path);
}
