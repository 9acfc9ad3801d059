// Store: at most 200 small values in one file of 131072 bytes, each change on disk when the call returns
// with errno 0.
//
// The length of a value alone decides its size class, and each class has a fixed number of slots:
//
//   value, bytes   0..30  31..62  63..126  127..254  255..510  511..1022  1023..2045
//   keys of it        32      32       32        32        32         32           8
//
// A class that is full takes no further key, whatever room the others have. A value that grows or
// shrinks into another class needs a free slot there; without one the put fails and the old value stays.
//
// One handle at a time uses a file, in all processes together: no file lock is taken, and each change
// writes the whole file, so two handles overwrite each other's changes.
//
// What has failed. A put or delete gives 0 also when its write to disk failed: the change is made in
// memory and goes to disk with the next one that gets there. `errno` tells: 0 when the change is on disk,
// else what kept it from it, ENOSPC or EIO for example, and EIO too where a write came to a stop without
// a reason. A flash file system that never overwrites in place needs free space for each change, so this
// happens to a store that exists for long. Ask after each call whose change must survive:
//
//   if (qn_kvs_put(store, &key, value, len) == 0 && errno == 0) ... // it will be there after a restart
//
// Threads: any number of threads may share a store. Each get, put and delete runs as a whole, its write
// to disk included, under the store's own mutex; qn_kvs_close() must be the last call on it. The pool
// that a store was opened with is used by qn_kvs_open() only.
//
// What a crash leaves behind. A change is one write of the whole file, in place, and the format has no
// mark for a write that was cut short. Every key that the change does not touch stays byte-exact. The
// touched key, if the write stopped after a whole number of sectors:
//
//   change                 what the next open can find
//   new key                absent; or the key with what its slot held before: the value that this or any
//                          other key has left there, or length 0, for which a get gives -1 with 514
//                          although the key takes its slot; or the new length with the new value's first
//                          bytes and behind them what was left there; or the new value
//   update, same class     the old value; the new length with the new value's first bytes and behind them
//                          the old value's, or zeros where that was shorter; the new value
//   update, longer class   the old value; absent; then as a new key
//   update, shorter class  the old value; then as a new key. Both entries can be busy: the one in the
//                          shorter class is found, and the other one comes back, with the old value, at
//                          an open after the first was deleted or moved to a place behind it
//   delete                 the old value; absent
//
// A disk that reorders the parts of one write can leave any mixture of these. On flash none of this is
// rare: key and value lie on different pages of the file, and of the power cuts that hit a new or a moved
// key about one in three left it with what its slot held before. docs/whole-values.md shows a way around.
//
// A file whose creation was cut short before its first sector was written has no magic or is too short;
// it is refused at every later open (463, 464, 480) and never repaired or deleted here: remove it by hand
// to start afresh. One cut short later opens as an empty store. A creation that fails is another matter:
// the file that it has made goes again with the failing qn_kvs_open(), or, if that has given 0 though
// nothing could be written, with the qn_kvs_close() of a store of which nothing ever was.
#ifndef QUILLCORE_STORE_H
#define QUILLCORE_STORE_H

#include <quillcore/api.h>
#include <quillcore/memory.h>
#include <stdint.h>

QN_BEGIN_DECLS

#define QN_KVS_KEY_MAX 31     // bytes of a key
#define QN_KVS_VALUE_MAX 2045 // bytes of a value
#define QN_KVS_TEXT_MAX 2044  // bytes of a text through qn_kvs_put_fmt()

// A counted text. As a key it is the first `len` bytes of `data`, or less if a NUL comes first; `data`
// must be NUL-terminated all the same, since records print it. A key of length 0 is taken. It lasts until
// the store is closed, and for good once a put has moved its value to another class.
typedef struct qn_str {
  uint32_t len;
  char* data;
} qn_str_t;

typedef struct kvstore kvstore_t; // opaque

// Opens the store at `path` (at most 638 bytes), or creates it, mode 0600, with its directories; these
// are made by "mkdir -p" through the shell, so the path's directory must hold nothing that a shell would
// read differently, and one of more than 502 bytes must exist. `pool` is borrowed until qn_kvs_close()
// and must not be reset before it. An open writes the file once, with damaged entries mended, each of
// them logged at level W with logid 0. Returns 0 and the handle in `*store`, also when that write failed
// (517, 518) or a slot or a key could not be indexed (466, 467). -1 on any other failure (logged), and
// `*store` stays as it was. A failed open never changes an existing file, and takes one that it has made
// away again, unless that is a whole store by then (486, 487). What was taken from the pool stays in the
// pool.
QN_API int32_t qn_kvs_open(kvstore_t** store, qn_pool_t* pool, const char* path);

// Closes a store. Nothing is written: every change is on disk already, or could not get there. Null is
// ignored.
QN_API void qn_kvs_close(kvstore_t* store);

// Reads the value of `key`, which must not be null. The caller owns `*value`, a block of `*value_len`
// bytes without a terminator, and releases it with qn_free().
// Returns 0; -1 for a null store or out argument, a key of more than QN_KVS_KEY_MAX bytes, an absent key
// (511, level D) or a damaged length of more than QN_KVS_VALUE_MAX (512), and then the out arguments stay
// as they were; -1 with null and 0 in them when memory is short or the stored value has length 0 (514). A
// damaged length within that, but beyond the value's slot, gives bytes of the slots behind it.
QN_API int32_t qn_kvs_get(kvstore_t* store, const qn_str_t* key, void** value, uint16_t* value_len);

// Stores a copy of `value` under `key` and writes it to disk. No argument may be null.
// Returns 0, with errno 0 when the change is on disk and else the reason (a failed seek or write is
// logged too, 517 or 518); and 0 when memory for the index was short (467): the value is on disk then but
// not found before the next open, and where the key has been stored once more by then, either value may
// be the one that is found. -1 when the value is longer than QN_KVS_VALUE_MAX (491), the key longer than
// QN_KVS_KEY_MAX, or the size class is full (470, level D); the store is unchanged then.
QN_API int32_t qn_kvs_put(kvstore_t* store, const qn_str_t* key, const void* value, uint16_t value_len);

// qn_kvs_put() of a formatted text of at most QN_KVS_TEXT_MAX bytes, without its terminator.
// Returns as qn_kvs_put(); -1 too for a null store or key (494, 495), a text that does not fit (498) and
// when memory is short (497).
QN_API int32_t qn_kvs_put_fmt(kvstore_t* store, const qn_str_t* key, const char* fmt, ...)
    QN_PRINTF(3, 4);

// Deletes `key` and writes the change to disk.
// Returns 0, with errno as after qn_kvs_put(); -1 for a null store or key (499, 500), a key of
// more than QN_KVS_KEY_MAX bytes and an absent key (503).
QN_API int32_t qn_kvs_delete(kvstore_t* store, const qn_str_t* key);

QN_END_DECLS

#endif // QUILLCORE_STORE_H
