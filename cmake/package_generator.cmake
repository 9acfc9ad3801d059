# Read by cpack for each generator: for Debian a package for each of its own components, one archive of all otherwise.
if(CPACK_GENERATOR STREQUAL "DEB")
  set(CPACK_COMPONENTS_ALL deb_runtime deb_development deb_tools)
  set(CPACK_COMPONENTS_GROUPING IGNORE)
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each has its own
  # Without them cpack leaves out what the packages depend on, or stops with a message that names no package.
  find_program(QUILL_SHLIBDEPS dpkg-shlibdeps)
  find_program(QUILL_FILE file)
  if(NOT QUILL_SHLIBDEPS OR NOT QUILL_FILE)
    message(FATAL_ERROR "Debian packages want dpkg-dev and file, which scripts/package installs")
  endif()
endif()
