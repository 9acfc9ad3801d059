# The stand-in is what these tests are about; against an installed libubus the same cases hold but for the
# faults that it waits on without a limit.
quill_test(bus_test bus/bus_test.cc)
add_dependencies(bus_test test_broker)
target_compile_definitions(bus_test PRIVATE
  TEST_BROKER="$<TARGET_FILE:test_broker>"
  TEST_DATA_DIR="${CMAKE_CURRENT_SOURCE_DIR}/data")
