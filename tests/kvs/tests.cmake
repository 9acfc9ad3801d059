quill_test(kvs_test
  kvs/crash_test.cc
  kvs/format_test.cc
  kvs/messages_test.cc
  kvs/threads_test.cc)
target_link_options(kvs_test PRIVATE -Wl,--wrap=write,--wrap=fsync)
if(EXISTS /dev/shm)
  # Thousands of commits, each of them flushed twice: on a memory file system, where there is one.
  set_tests_properties(kvs_test PROPERTIES ENVIRONMENT TMPDIR=/dev/shm)
endif()
