// An open store: the image, the tree index over its busy keys, the lists of its slots.
//
// Every free entry has its node on the free list of its class and is not in the tree; every busy entry
// has its node on the busy list and stands in the tree. The tree points at the entries inside the image.
//
// Locks, in this order: `mutex` covers the whole of each get, put and delete, commit included, so that
// any number of threads may share a store. Inside it `lock` covers delete and an update into another
// class; a list's spinlock covers that list; a class's read-write lock covers its writers. No two list
// spinlocks are ever held together.
#ifndef QN_KVS_KVSTORE_H
#define QN_KVS_KVSTORE_H

#include <pthread.h>
#include <quillcore/store.h>

#include <cstdint>

#include "container/list.h"
#include "kvs/format.h"

struct kvs_list_t {
  pthread_spinlock_t lock;
  qn::ListLink head;
};

// One for each slot; made at open, moves between its class's free list and the busy list.
struct kvs_node_t {
  uint8_t value_type;
  uint16_t key_index;
  uint16_t value_index;
  qn::ListLink link;
};

struct kvstore {
  qn_pool_t* pool; // borrowed
  uint8_t* db_addr;
  char dbfile[640];
  int32_t fd;
  pthread_spinlock_t lock;
  pthread_rwlock_t* rwlocks; // by value_type
  void* index_root;
  kvs_list_t* lists; // 0 to 6: the free lists by value_type; 7: the busy list
  pthread_mutex_t mutex;
  bool has_made_file; // the file came into being for this store
};

namespace qn {

constexpr char kStoreModule[] = "kvstore";
constexpr uint32_t kListCount = kValueTypeCount + 1;
constexpr uint32_t kBusyList = kValueTypeCount;

// Writes the image back: flush, one write of the whole file in place, flush. A failure is logged and
// changes no result: the next commit that succeeds carries everything. Leaves errno at 0 when the image
// is on disk, else at the reason.
void kvs_commit(kvstore_t& store);

// Seeks to the start of the file. Returns 0 or -1.
int32_t kvs_seek_start(int32_t fd);

// Order of key entries by their text.
int kvs_key_compare(const void* left, const void* right);

// The entry in the tree whose text is the first `length` bytes of `text`, at most 31 and no NUL; or null.
kvs_key_entry_t* kvs_index_find(const kvstore_t& store, const char* text, size_t length);

// Enters a busy entry of the image into the tree. One whose text is there already is not added.
void kvs_index_insert(kvstore_t& store, kvs_key_entry_t& entry);

// Makes a node for each slot, sorts them into the lists, enters the busy keys into the tree and commits.
void qn_kvs_build_indexs(kvstore_t& store);

} // namespace qn

#endif // QN_KVS_KVSTORE_H
