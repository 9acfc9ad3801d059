# Language, warnings and definitions, each in one interface target.

# Warnings are errors everywhere, tests and benchmarks included, unless somebody packages it with a compiler
# that we do not know.
option(QUILL_WERROR "Take warnings as errors" ON)
add_library(quillcore_warnings INTERFACE)
target_compile_options(quillcore_warnings INTERFACE
  -Wall -Wextra $<$<BOOL:${QUILL_WERROR}>:-Werror> -Wshadow -Wconversion -Wformat=2
  # The texts of records are members of constant tables: GCC sees through them and checks the arguments,
  # clang only sees that they are no literals.
  $<$<CXX_COMPILER_ID:Clang>:-Wno-format-nonliteral -Wno-format-security>)

# 64-bit time and offsets on every target, for callers of system headers on both sides of a test.
add_library(quillcore_platform INTERFACE)
target_compile_definitions(quillcore_platform INTERFACE _GNU_SOURCE _TIME_BITS=64 _FILE_OFFSET_BITS=64)

# What the library itself is built with: C++20 without its run-time.
add_library(quillcore_options INTERFACE)
target_compile_features(quillcore_options INTERFACE cxx_std_20)
target_link_libraries(quillcore_options INTERFACE quillcore_warnings quillcore_platform)
target_compile_options(quillcore_options INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  -fno-unwind-tables -fno-asynchronous-unwind-tables
  -ffunction-sections -fdata-sections -fstack-protector
  # The same bytes, wherever the tree lies.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)

if(QUILL_SANITIZE)
  add_compile_options(-fsanitize=${QUILL_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${QUILL_SANITIZE})
  if(QUILL_SANITIZE MATCHES "undefined")
    # A finding ends the program; vptr checks need the run-time type information that we leave out.
    add_compile_options(-fno-sanitize-recover=all -fno-sanitize=vptr)
  endif()
endif()

include(${CMAKE_CURRENT_LIST_DIR}/bus.cmake)
