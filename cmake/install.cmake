# What `cmake --install` puts where, as three components: runtime, development and tools. Debian's folders are others;
# for them there is the same once more, as components that only cpack installs.
include(CMakePackageConfigHelpers)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/quillcoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
set(QUILL_PC_PRIVATE "-lpthread")
if(NOT QUILL_BUS_STANDIN)
  string(APPEND QUILL_PC_PRIVATE " -lubus -lubox")
endif()

# Manual pages, docs/man/NAME.SECTION, are installed compressed.
file(GLOB QUILL_MAN_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.[1-9])
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${QUILL_MAN_PAGES})
foreach(page IN LISTS QUILL_MAN_PAGES)
  cmake_path(GET page FILENAME name)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
  execute_process(COMMAND gzip -9nc ${page} OUTPUT_FILE ${PROJECT_BINARY_DIR}/man/${name}.gz COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# quill_install(PREFIX LIBDIR DOCDIR [EXCLUDE_FROM_ALL]): one layout; its components' names begin with the prefix.
function(quill_install prefix libdir docdir)
  set(package_dir ${libdir}/cmake/quillcore)
  set(made ${PROJECT_BINARY_DIR}/${prefix}install)

  install(TARGETS quillcore EXPORT ${prefix}targets LIBRARY DESTINATION ${libdir}
    COMPONENT ${prefix}runtime NAMELINK_COMPONENT ${prefix}development ${ARGN})
  install(TARGETS quillcore_static EXPORT ${prefix}targets ARCHIVE DESTINATION ${libdir}
    COMPONENT ${prefix}development ${ARGN})
  install(DIRECTORY include/quillcore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT ${prefix}development ${ARGN} FILES_MATCHING PATTERN "*.h")
  install(TARGETS hubd hubctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${prefix}tools ${ARGN})

  install(FILES README.md CHANGELOG.md DESTINATION ${docdir} COMPONENT ${prefix}development ${ARGN})
  install(DIRECTORY docs/ DESTINATION ${docdir}
    COMPONENT ${prefix}development ${ARGN} FILES_MATCHING PATTERN "*.md" PATTERN man EXCLUDE)
  install(DIRECTORY examples DESTINATION ${docdir}
    COMPONENT ${prefix}development ${ARGN} FILES_MATCHING PATTERN "*.[ch]" PATTERN "*.conf")
  # Pages of programs go with the programs, all others with the headers.
  foreach(section RANGE 1 9)
    set(component development)
    if(section EQUAL 1 OR section EQUAL 8)
      set(component tools)
    endif()
    set(pages ${QUILL_MAN_PAGES})
    list(FILTER pages INCLUDE REGEX "\\.${section}$")
    list(TRANSFORM pages REPLACE "^.*/(.*)$" "${PROJECT_BINARY_DIR}/man/\\1.gz")
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${prefix}${component} ${ARGN})
  endforeach()

  # The CMake package finds everything from where it lies itself, so that a prefix can be moved.
  install(EXPORT ${prefix}targets FILE quillcoreTargets.cmake NAMESPACE quillcore:: DESTINATION ${package_dir}
    COMPONENT ${prefix}development ${ARGN})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/quillcoreConfig.cmake.in
    ${made}/quillcoreConfig.cmake INSTALL_DESTINATION ${package_dir})
  install(FILES ${made}/quillcoreConfig.cmake ${PROJECT_BINARY_DIR}/quillcoreConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT ${prefix}development ${ARGN})

  # So does quillcore.pc.
  set(QUILL_LIBDIR ${libdir})
  file(RELATIVE_PATH QUILL_PC_TO_PREFIX
    ${CMAKE_INSTALL_PREFIX}/${libdir}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" QUILL_PC_TO_PREFIX "${QUILL_PC_TO_PREFIX}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/quillcore.pc.in ${made}/quillcore.pc @ONLY)
  install(FILES ${made}/quillcore.pc DESTINATION ${libdir}/pkgconfig COMPONENT ${prefix}development ${ARGN})
endfunction()

quill_install("" ${CMAKE_INSTALL_LIBDIR} ${CMAKE_INSTALL_DOCDIR})
