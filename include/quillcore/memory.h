// Memory: heap wrappers with one contract, and a pool whose memory goes all at once.
//
// The heap wrappers give null for size 0, hand out zero-filled memory, log every allocation (level D,
// 523 or 525) and report a failure (level E, 524 or 526) instead of aborting. What they hand out may
// also be released with the C library's free().
//
// A pool carves small requests out of equal-sized blocks by moving a cursor; large ones go to the heap
// and are remembered, so that the pool releases them with itself.
//
// Threads: the heap wrappers are as thread-safe as the C heap. A pool has no lock: one thread at a
// time uses it.
#ifndef QUILLCORE_MEMORY_H
#define QUILLCORE_MEMORY_H

#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

typedef struct qn_pool qn_pool_t; // opaque

// Allocates `size` bytes, all zero.
// Returns null for size 0 (nothing is logged) and when memory is short (logged, 524).
QN_API void* qn_alloc(uint32_t size);

// Releases memory from any function of this library that hands out heap memory. Null is ignored.
QN_API void qn_free(void* ptr);

// Moves a block of `old_size` bytes to a new one of `new_size` bytes; the bytes behind the copied ones
// are zero. Unlike realloc() it always moves, and `old_ptr` is gone after the call whatever the result.
// A null `old_ptr` makes it qn_alloc(new_size).
// Returns null when `new_size` is 0 or memory is short (logged, 524); `old_ptr` is released then too.
QN_API void* qn_realloc(void* old_ptr, uint32_t new_size, uint32_t old_size);

// Allocates `size` bytes, all zero, at a multiple of `alignment` (a power of two and a multiple of the
// size of a pointer).
// Returns null for size 0 (nothing is logged), for another alignment and when memory is short (logged,
// 526).
QN_API void* qn_memalign(uint32_t alignment, uint32_t size);

// Copies at most `length` bytes of `source`, up to its first NUL, into a new block of length + 1 bytes.
// `source` need not be terminated within `length` bytes; the copy always is.
// Returns null for a null source, for a length of UINT32_MAX and when memory is short (logged, 524).
QN_API char* qn_strdup(const char* source, uint32_t length);

// Makes a pool of blocks of `block_size` bytes each (a multiple of 4; the pool's own record of at most
// 64 bytes lies in the first block). Requests of up to `block_size` less that record, and at most 4095
// bytes, are carved out of blocks.
// Returns null when memory is short or no record fits `block_size`; nothing is logged.
QN_API qn_pool_t* qn_pool_create(uint32_t block_size);

// qn_pool_create(1024).
QN_API qn_pool_t* qn_pool_create_default(void);

// Releases the pool and all that was allocated from it. `pool` must not be null.
QN_API void qn_pool_free(qn_pool_t* pool);

// Takes back all that was allocated from the pool and keeps its blocks for reuse; large blocks go back
// to the heap. `pool` must not be null.
QN_API void qn_pool_reset(qn_pool_t* pool);

// Allocates `size` bytes from the pool, of undefined content, at a multiple of 4; a large request is
// aligned for any type and zero-filled. A size of 0 gives a pointer to no bytes. `pool` must not be null.
// Returns null when memory is short (logged, 526 and 414, or 524); the pool is unchanged then.
QN_API void* qn_palloc(qn_pool_t* pool, uint32_t size);

// qn_palloc(), with the bytes set to zero.
QN_API void* qn_pcalloc(qn_pool_t* pool, uint32_t size);

// Releases a large block before its pool goes.
// Returns 0; -1 when `ptr` is null, was carved out of a block or is no live block of this pool.
QN_API int32_t qn_pfree(qn_pool_t* pool, void* ptr);

QN_END_DECLS

#endif // QUILLCORE_MEMORY_H
