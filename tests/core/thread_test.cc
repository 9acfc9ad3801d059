// Threads and mutexes in the library's form.
#include <gtest/gtest.h>
#include <quillcore/thread.h>
#include <semaphore.h>

#include <cerrno>

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
  EXPECT_LT(stack_size, size_t{QN_PTHREAD_STACK_SIZE} * 16) << "not the platform's default";
}

TEST(Thread, RunsOnAfterItWasDetached) {
  sem_t turns[2];
  for (sem_t& turn : turns) sem_init(&turn, 0, 0);
  pthread_t thread;
  ASSERT_EQ(0, qn_pthread_new(
                   &thread,
                   [](void* arg) -> void* {
                     sem_t* const turn = static_cast<sem_t*>(arg);
                     sem_wait(&turn[0]);
                     sem_post(&turn[1]);
                     return nullptr;
                   },
                   turns));
  EXPECT_EQ(0, qn_pthread_detach(thread));
  sem_post(&turns[0]);
  sem_wait(&turns[1]);
}

TEST(Mutex, IsOfTheDefaultType) {
  pthread_mutex_t mutex;
  ASSERT_EQ(0, qn_pthread_mutex_init(&mutex));
  pthread_mutex_lock(&mutex);
  EXPECT_EQ(EBUSY, pthread_mutex_trylock(&mutex)) << "not recursive";
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
}

} // namespace
