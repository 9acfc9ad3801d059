// What every public header of libquillcore shares: version, linkage, visibility, checked formats.
//
// Unless a function says otherwise, four lifetimes hold for every pointer of this library:
//   1. What a caller passes in is read during the call only; the library keeps no copy of the pointer.
//   2. What comes back through a result or an out argument and was made on the heap belongs to the
//      caller, who releases it with qn_free().
//   3. What comes from a pool lives as long as that pool and is never released by itself.
//   4. What a function stores (a configuration, a handler table, the rows behind it) is borrowed: it
//      stays the caller's and must outlive whatever was started with it.
#ifndef QUILLCORE_API_H
#define QUILLCORE_API_H

// The version of these headers. Callers that were compiled against an equal major one go on working.
#define QN_VERSION "1.0.0"
#define QN_VERSION_MAJOR 1
#define QN_VERSION_MINOR 0
#define QN_VERSION_PATCH 0

#ifdef __cplusplus
#define QN_BEGIN_DECLS extern "C" {
#define QN_END_DECLS }
#else
#define QN_BEGIN_DECLS
#define QN_END_DECLS
#endif

// Everything else in the shared object is hidden.
#define QN_API __attribute__((visibility("default")))

// Lets the compiler check a printf-like format against its arguments; `first` is 0 for a va_list.
#define QN_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))

#endif // QUILLCORE_API_H
