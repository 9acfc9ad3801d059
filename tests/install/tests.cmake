# Where the library is built as it ships, and programs of the target can be built and run here.
if(NOT QUILL_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME install_test
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/install/install_test.sh
      ${CMAKE_COMMAND} ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
  set_tests_properties(install_test PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
endif()
