// Threads and mutexes in the library's one form.
#include <quillcore/thread.h>

#include "core/log_record.h"

namespace {

using qn::Message;

constexpr char kModule[] = "qn_pthread";
constexpr char kBizName[] = "qn_pthread_new";

constexpr Message kAttrInitFailed{QN_LOG_E, 603, kModule, kBizName, "init thread atrr error."};
constexpr Message kStackSizeFailed{QN_LOG_E, 604, kModule, kBizName, "create set stack size error"};
constexpr Message kCreateFailed{QN_LOG_E, 605, kModule, kBizName, "create thread error"};
constexpr Message kAttrDestroyFailed{QN_LOG_E, 606, kModule, kBizName, "destroy thread attr error"};

// Attributes that ask for the stack size; null attributes where they cannot be made.
class StackAttributes {
 public:
  StackAttributes() {
    if (pthread_attr_init(&attributes_) != 0) {
      QN_LOG(kAttrInitFailed);
      return;
    }
    valid_ = true;
    if (pthread_attr_setstacksize(&attributes_, QN_PTHREAD_STACK_SIZE) != 0) QN_LOG(kStackSizeFailed);
  }
  ~StackAttributes() {
    if (valid_ && pthread_attr_destroy(&attributes_) != 0) QN_LOG(kAttrDestroyFailed);
  }
  StackAttributes(const StackAttributes&) = delete;
  StackAttributes& operator=(const StackAttributes&) = delete;

  const pthread_attr_t* get() const { return valid_ ? &attributes_ : nullptr; }

 private:
  pthread_attr_t attributes_;
  bool valid_ = false;
};

} // namespace

int32_t qn_pthread_new(pthread_t* thread, void* (*start_routine)(void*), void* arg) {
  const StackAttributes attributes;
  if (pthread_create(thread, attributes.get(), start_routine, arg) != 0)
    return QN_FAIL(-1, kCreateFailed);
  return 0;
}

int32_t qn_pthread_detach(pthread_t thread) { return pthread_detach(thread); }

int32_t qn_pthread_mutex_init(pthread_mutex_t* mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutex_init(mutex, &attributes);
  return pthread_mutexattr_destroy(&attributes);
}
