# What `cpack` makes: a tarball of everything, and on Debian a package for each component.
set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME quillcore)
set(CPACK_PACKAGE_VENDOR "The quillcore developers")
set(CPACK_PACKAGE_CONTACT "The quillcore developers <quillcore@example.org>") # whoever distributes puts in theirs
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Whatever the umask is.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Without components a tarball would hold what other projects of the build install, too.
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package_generator.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package_times.cmake)
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE AND NOT CMAKE_CROSSCOMPILING)
  include(${CMAKE_CURRENT_LIST_DIR}/debian/debian.cmake)
endif()
include(CPack)
