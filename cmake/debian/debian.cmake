# Debian's packages: libraries in the folder of their architecture, documents by package, all of them with a changelog.
list(APPEND CPACK_GENERATOR DEB)
quill_install(deb_ lib/${CMAKE_LIBRARY_ARCHITECTURE} share/doc/libquillcore-dev EXCLUDE_FROM_ALL)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# What the packages need is read out of what is in them, and what others need of the library is told by it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_NAME libquillcore1)
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_RECOMMENDS iproute2) # "ip", which makes pairs of interfaces
set(CPACK_DEBIAN_DEB_RUNTIME_DESCRIPTION "base library of a family of mesh daemons for small routers
Memory, log, configuration, a small persistent store, services on local
sockets, a bus client, processes and network interfaces, behind a plain C
interface. This package holds the shared library.")
# Brings the loader's cache up to date. cpack cannot be kept from scripts that do it once more.
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)

set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_NAME libquillcore-dev)
set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_DEPENDS "libquillcore1 (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_DEBIAN_DEB_DEVELOPMENT_DESCRIPTION "base library of mesh daemons (development files)
Headers, the static library, pkg-config and CMake files, documents and
examples of libquillcore1.")

set(CPACK_DEBIAN_DEB_TOOLS_PACKAGE_NAME quillcore-tools)
set(CPACK_DEBIAN_DEB_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_DEB_TOOLS_PACKAGE_DEPENDS "libquillcore1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEB_TOOLS_DESCRIPTION "tools of a family of mesh daemons, and an example daemon
quillctl tells what runs, what is stored, logged and wrong. hubd keeps
settings, serves them on a local socket and watches a child; hubctl asks it.")

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # of SOURCE_DATE_EPOCH, where that is set
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in ${PROJECT_BINARY_DIR}/deb_install/changelog @ONLY)
execute_process(COMMAND gzip -9nf changelog WORKING_DIRECTORY ${PROJECT_BINARY_DIR}/deb_install
  COMMAND_ERROR_IS_FATAL ANY)
foreach(part RUNTIME DEVELOPMENT TOOLS)
  string(TOLOWER deb_${part} component)
  install(FILES ${PROJECT_BINARY_DIR}/deb_install/changelog.gz
    DESTINATION share/doc/${CPACK_DEBIAN_DEB_${part}_PACKAGE_NAME} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
