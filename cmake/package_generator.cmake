# Read by cpack for each generator: one package a component for Debian, one archive of all otherwise.
if(CPACK_GENERATOR STREQUAL "DEB")
  set(CPACK_COMPONENTS_GROUPING IGNORE)
endif()
