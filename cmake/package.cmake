# What `cpack` makes: a tarball of everything, and a Debian package for each component.
set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_NAME quillcore)
set(CPACK_PACKAGE_VENDOR "The quillcore developers")
set(CPACK_PACKAGE_CONTACT "The quillcore developers <quillcore@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Whatever the umask is.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development tools)

# Without components a tarball would hold what other projects of the build install, too.
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libquillcore1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS iproute2) # "ip", which makes pairs of interfaces
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquillcore-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libquillcore1 (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME quillcore-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The C library that the shared library asks for will do for the tools, which were built beside it.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libquillcore1 (= ${PROJECT_VERSION}), libc6")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, the static library, pkg-config and CMake files.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "The example daemon hubd and its client hubctl.")
# The tarball is of everything; the Debian packages are one a component.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package_generator.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package_times.cmake)
include(CPack)
