quill_test(container_test
  container/config_test.cc
  container/hash_table_test.cc)
