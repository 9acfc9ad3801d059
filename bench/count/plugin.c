// A plugin of qemu-user that counts instructions between the marks of count.c: of the library's text, and
// of everything. Built against declared prototypes, for no package of Debian has the header.
//
// Its argument is out=FILE: a line for each pair of marks, of instructions of the library, of all, and
// times.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
typedef struct qemu_info_t qemu_info_t;
typedef void (*tb_trans_t)(qemu_plugin_id_t, struct qemu_plugin_tb*);
typedef void (*syscall_t)(qemu_plugin_id_t, unsigned cpu, int64_t number, uint64_t, uint64_t, uint64_t,
                          uint64_t, uint64_t, uint64_t, uint64_t, uint64_t);
enum { INLINE_ADD_U64 };
extern void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t, tb_trans_t);
extern void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t, syscall_t);
extern void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb*, int op, void* counter,
                                                     uint64_t add);
extern size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb*);
extern uint64_t qemu_plugin_tb_vaddr(const struct qemu_plugin_tb*);

__attribute__((visibility("default"))) int qemu_plugin_version = 1;

enum { MARK_TEXT = -1001, MARK_BEGIN = -1002, MARK_END = -1003 };
static uint64_t text, text_size, library, all;
static FILE* out;

// A block of instructions is left at its end only, so its length counts at each entry.
static void translated(qemu_plugin_id_t id, struct qemu_plugin_tb* block) {
  (void)id;
  const uint64_t length = qemu_plugin_tb_n_insns(block);
  qemu_plugin_register_vcpu_tb_exec_inline(block, INLINE_ADD_U64, &all, length);
  if (qemu_plugin_tb_vaddr(block) - text < text_size)
    qemu_plugin_register_vcpu_tb_exec_inline(block, INLINE_ADD_U64, &library, length);
}

// The numbers of write() differ from target to target; no other call takes these descriptors.
static void called(qemu_plugin_id_t id, unsigned cpu, int64_t number, uint64_t fd, uint64_t first,
                   uint64_t second, uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8) {
  (void)id, (void)cpu, (void)number, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
  switch ((int32_t)fd) {
    case MARK_TEXT:
      text = first, text_size = second;
      break;
    case MARK_BEGIN:
      library = all = 0;
      break;
    case MARK_END:
      fprintf(out, "%llu %llu %llu\n", (unsigned long long)library, (unsigned long long)all,
              (unsigned long long)first);
      fflush(out);
      break;
  }
}

__attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id,
                                                               const qemu_info_t* info, int argc,
                                                               char** argv) {
  (void)info;
  if (argc != 1 || strncmp(argv[0], "out=", 4) != 0 || (out = fopen(argv[0] + 4, "we")) == NULL)
    return -1;
  qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
  qemu_plugin_register_vcpu_syscall_cb(id, called);
  return 0;
}
