# What the two musl targets share: Debian's g++, which is made for glibc, turned to musl's headers and libc.
#
#   MUSL_PREFIX        of the compilers' names
#   MUSL_INCLUDE       musl's headers
#   MUSL_LIBRARIES     folders of musl's libc and start files
#   MUSL_KERNEL        the kernel's headers, without the C library's that lie beside them
#   MUSL_CXX_ROOT, MUSL_CXX_TRIPLET   the C++ headers; @version@ is the compiler's
#
# There is no libstdc++ for musl here: every link names libgcc, whose helpers are static, and libc.
set(CMAKE_C_COMPILER ${MUSL_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${MUSL_PREFIX}g++)

execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion
                OUTPUT_VARIABLE _version OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=include
                OUTPUT_VARIABLE _own OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REPLACE "@version@" "${_version}" _cxx_triplet "${MUSL_CXX_TRIPLET}")

# -mmusl names the loader, -B finds the start files and libc.
set(_libc "-mmusl")
foreach(_folder ${MUSL_LIBRARIES})
  string(APPEND _libc " -B${_folder}")
endforeach()
set(_c_headers "-nostdinc -isystem ${MUSL_INCLUDE} -isystem ${_own} -isystem ${MUSL_KERNEL}")
set(_cxx_headers "-nostdinc -nostdinc++ -isystem ${CMAKE_CURRENT_LIST_DIR}/shim")
string(APPEND _cxx_headers " -isystem ${MUSL_CXX_ROOT}/${_version} -isystem ${_cxx_triplet}")
string(APPEND _cxx_headers " -isystem ${MUSL_INCLUDE} -isystem ${_own} -isystem ${MUSL_KERNEL}")

set(CMAKE_C_FLAGS_INIT "${_libc} ${_c_headers}")
set(CMAKE_CXX_FLAGS_INIT "${_libc} ${_cxx_headers}")
foreach(_kind EXE SHARED MODULE)
  set(CMAKE_${_kind}_LINKER_FLAGS_INIT "-nodefaultlibs")
endforeach()
set(CMAKE_C_STANDARD_LIBRARIES "-lgcc -lc -lgcc" CACHE STRING "")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lgcc -lc -lgcc" CACHE STRING "")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(_kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${_kind} ONLY)
endforeach()
# The compiler checks run in projects of their own, which read this file too.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MUSL_ROOT)
