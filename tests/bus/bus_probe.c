// A client of the library to be watched from outside, and a sender of many events, for a real broker.
//
//   bus_probe listen SOCKET              prints the number in each event "probe", one a line
//   bus_probe send SOCKET FIRST COUNT    sends events "probe" with numbers from FIRST on
#include <libubus.h>
#include <quillcore/bus.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void on_event(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                     struct blob_attr* msg) {
  (void)ctx, (void)ev, (void)type;
  static const struct blobmsg_policy policy = {.name = "number", .type = BLOBMSG_TYPE_INT32};
  struct blob_attr* number = NULL;
  blobmsg_parse(&policy, 1, &number, blob_data(msg), (unsigned int)blob_len(msg));
  if (number != NULL) printf("%u\n", blobmsg_get_u32(number));
}

static int listen_for_ever(const char* path) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  if (qn_ubus_add_event_handler("probe", on_event) != 0 || qn_ubus_start(path) != 0) return 1;
  for (;;) pause();
}

static int send_events(const char* path, unsigned long first, unsigned long count) {
  struct ubus_context* const ctx = ubus_connect(path);
  int status = ctx == NULL;
  struct blob_buf fields = {0};
  for (unsigned long i = 0; i < count && status == 0; i++) {
    blob_buf_init(&fields, 0);
    blobmsg_add_u32(&fields, "number", (uint32_t)(first + i));
    status = ubus_send_event(ctx, "probe", fields.head);
  }
  blob_buf_free(&fields);
  ubus_free(ctx);
  return status;
}

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "listen") == 0) return listen_for_ever(argv[2]);
  if (argc == 5 && strcmp(argv[1], "send") == 0)
    return send_events(argv[2], strtoul(argv[3], NULL, 10), strtoul(argv[4], NULL, 10));
  fprintf(stderr, "usage: bus_probe listen SOCKET | send SOCKET FIRST COUNT\n");
  return 64;
}
