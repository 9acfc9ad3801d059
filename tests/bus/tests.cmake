# The same cases for the stand-in and for an installed libubus; what that cannot do is skipped by name.
quill_test(bus_test bus/bus_test.cc)
add_dependencies(bus_test test_broker)
target_compile_definitions(bus_test PRIVATE
  TEST_BROKER="$<TARGET_FILE:test_broker>"
  TEST_BUS_STANDIN=$<BOOL:${QUILL_BUS_STANDIN}>
  TEST_DATA_DIR="${CMAKE_CURRENT_SOURCE_DIR}/data")

# The client compiles unchanged against headers with the fields in other places.
add_library(bus_layout OBJECT ${PROJECT_SOURCE_DIR}/src/bus/ubus_client.cc)
target_link_libraries(bus_layout PRIVATE quillcore_options)
target_include_directories(bus_layout BEFORE PRIVATE
  bus/layout ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
