// Threads and mutexes in the library's form.
#include <gtest/gtest.h>
#include <quillcore/thread.h>

namespace {

void* report_stack_size(void* out) {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstacksize(&attributes, static_cast<size_t*>(out));
  pthread_attr_destroy(&attributes);
  return out;
}

TEST(Thread, RunsJoinableOnAStackOfTheDocumentedSize) {
  size_t stack_size = 0;
  pthread_t thread;
  ASSERT_EQ(0, qn_pthread_new(&thread, report_stack_size, &stack_size));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(thread, &result));
  EXPECT_EQ(&stack_size, result);
  EXPECT_GE(stack_size, size_t{QN_PTHREAD_STACK_SIZE});
  EXPECT_LT(stack_size, size_t{QN_PTHREAD_STACK_SIZE} * 4) << "not the platform's default";
}

TEST(Thread, DetachesOnce) {
  pthread_t thread;
  pthread_mutex_t gate;
  ASSERT_EQ(0, qn_pthread_mutex_init(&gate));
  pthread_mutex_lock(&gate);
  ASSERT_EQ(0, qn_pthread_new(
                   &thread,
                   [](void* mutex) -> void* {
                     pthread_mutex_lock(static_cast<pthread_mutex_t*>(mutex));
                     return nullptr;
                   },
                   &gate));
  EXPECT_EQ(EBUSY, pthread_mutex_trylock(&gate)) << "the default type is not recursive";
  pthread_mutex_unlock(&gate);
  pthread_join(thread, nullptr);
  pthread_mutex_unlock(&gate);
  pthread_mutex_destroy(&gate);
}

} // namespace
