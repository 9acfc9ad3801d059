// Heap wrappers: zero-filled, logged, null instead of an abort.
#include "core/heap.h"

#include <cerrno>
#include <cstdlib>

#include "core/log_record.h"
#include "platform/bounded_string.h"
#include "platform/error_text.h"

namespace {

using qn::Message;

constexpr Message kAllocated{QN_LOG_D, 523, "alloc", "memalloc", "malloc ptr=%p, size=%d success."};
constexpr Message kAllocFailed{QN_LOG_E, 524, "alloc", "memalloc",
                               "malloc size=%d failed. errno=(%d,%s)"};
constexpr Message kAligned{QN_LOG_D, 525, "alloc", "memalign", "memalign alignment=%d, size=%d success."};
constexpr Message kAlignFailed{QN_LOG_E, 526, "alloc", "memalign",
                               "memalign alignment=%d, size=%d failed. errno=(%d,%s)"};

} // namespace

void* qn::alloc_unfilled(uint32_t size) {
  if (size == 0) return nullptr;

  void* const ptr = malloc(size);
  if (ptr == nullptr) {
    const int error = errno;
    QN_LOG(kAllocFailed, size, error, ErrorText(error).text());
    errno = error; // for the caller, who may report it too
    return nullptr;
  }
  QN_LOG(kAllocated, ptr, size);
  return ptr;
}

void* qn_alloc(uint32_t size) {
  void* const ptr = qn::alloc_unfilled(size);
  if (ptr != nullptr) memset_s(ptr, size, 0, size);
  return ptr;
}

void qn_free(void* ptr) { free(ptr); }

void* qn::memalign_unfilled(uint32_t alignment, uint32_t size) {
  if (size == 0) return nullptr;

  void* ptr = nullptr;
  // The error comes back as the result; errno says nothing about it.
  const int error = posix_memalign(&ptr, alignment, size);
  if (error != 0) {
    QN_LOG(kAlignFailed, alignment, size, error, ErrorText(error).text());
    errno = error;
    return nullptr;
  }
  QN_LOG(kAligned, alignment, size);
  return ptr;
}

void* qn_memalign(uint32_t alignment, uint32_t size) {
  void* const ptr = qn::memalign_unfilled(alignment, size);
  if (ptr != nullptr) memset_s(ptr, size, 0, size);
  return ptr;
}

void* qn_realloc(void* old_ptr, uint32_t new_size, uint32_t old_size) {
  void* const new_ptr = qn_alloc(new_size);
  if (new_ptr != nullptr && old_ptr != nullptr) {
    memcpy_s(new_ptr, new_size, old_ptr, new_size < old_size ? new_size : old_size);
  }
  // Also when there is no new block: a caller must not keep its old pointer.
  qn_free(old_ptr);
  return new_ptr;
}

char* qn_strdup(const char* source, uint32_t length) {
  if (source == nullptr || length == UINT32_MAX) return nullptr;
  char* const text = static_cast<char*>(qn_alloc(length + 1));
  if (text != nullptr) strncpy_s(text, size_t{length} + 1, source, length);
  return text;
}
