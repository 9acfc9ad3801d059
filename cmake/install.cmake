# What `cmake --install` puts where, as three components: runtime, development and tools. Debian's folders are others;
# for them there is the same once more, as components that only cpack installs.
include(CMakePackageConfigHelpers)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/quillcoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
set(QUILL_PC_PRIVATE "-lpthread")
if(NOT QUILL_BUS_STANDIN)
  string(APPEND QUILL_PC_PRIVATE " -lubus -lubox")
endif()

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
  install(TARGETS hubd hubctl quillctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${prefix}tools ${ARGN})

  install(FILES README.md CHANGELOG.md DESTINATION ${docdir} COMPONENT ${prefix}development ${ARGN})
  install(DIRECTORY docs/ DESTINATION ${docdir}
    COMPONENT ${prefix}development ${ARGN} FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN man EXCLUDE)
  install(DIRECTORY examples DESTINATION ${docdir}
    COMPONENT ${prefix}development ${ARGN} FILES_MATCHING PATTERN "*.[ch]" PATTERN "*.conf")
  install(FILES ${QUILL_LOGIDS} DESTINATION ${CMAKE_INSTALL_DATADIR}/quillcore COMPONENT ${prefix}tools ${ARGN})
  install(FILES tools/quillctl.bash RENAME quillctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT ${prefix}tools ${ARGN})
  foreach(page IN LISTS QUILL_MAN_PAGES)
    string(REGEX MATCH "[1-9]\\.gz$" section ${page})
    string(REGEX MATCH "^." section ${section})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${prefix}tools ${ARGN})
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
