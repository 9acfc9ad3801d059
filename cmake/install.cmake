# What `cmake --install` puts where, as three components: runtime, development and tools.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quillcore)

install(TARGETS quillcore EXPORT quillcoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS quillcore_static EXPORT quillcoreTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY include/quillcore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development FILES_MATCHING PATTERN "*.h")
install(TARGETS hubd hubctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# The CMake package finds everything from where it lies itself, so that a prefix can be moved.
install(EXPORT quillcoreTargets NAMESPACE quillcore:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/quillcoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/quillcoreConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quillcoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/quillcoreConfig.cmake ${PROJECT_BINARY_DIR}/quillcoreConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)

# So does quillcore.pc.
file(RELATIVE_PATH QUILL_PC_TO_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" QUILL_PC_TO_PREFIX "${QUILL_PC_TO_PREFIX}")
set(QUILL_PC_PRIVATE "-lpthread")
if(NOT QUILL_BUS_STANDIN)
  string(APPEND QUILL_PC_PRIVATE " -lubus -lubox")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/quillcore.pc.in ${PROJECT_BINARY_DIR}/quillcore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quillcore.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
