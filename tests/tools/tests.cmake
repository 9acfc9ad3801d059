if(TARGET quillctl_logids)
  quill_test(quillctl_test tools/quillctl_test.cc
    ${PROJECT_SOURCE_DIR}/examples/log_switches.c $<TARGET_OBJECTS:quillctl_objects>)
  target_include_directories(quillctl_test PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_definitions(quillctl_test PRIVATE
    QUILLCTL="$<TARGET_FILE:quillctl>" QUILL_SOURCE="${PROJECT_SOURCE_DIR}" LOGIDS="${logids}")
  # GCC sees std::regex use what it did not set, with sanitizers only.
  target_compile_options(quillctl_test PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_dependencies(quillctl_test quillctl quillctl_logids quillctl_pages)
endif()

# What is made out of the table of commands is what is committed.
foreach(page man bash)
  set(file_man docs/man/quillctl.1.scd)
  set(file_bash tools/quillctl.bash)
  add_test(NAME quillctl_${page}
    COMMAND sh -c "\"$1\" ${page} | diff - ${file_${page}}" sh $<TARGET_FILE:quillctl_pages>
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
endforeach()
