# libubus and libubox where they are installed, else our own small layer behind the same headers.
# Sets QUILL_BUS_STANDIN and makes the targets
#   quillcore_bus      what the bus client is compiled and linked with
#   quillcore_blobmsg  what an event handler reads the fields of a message with
set(QUILL_BUS auto CACHE STRING "Bus libraries: system, standin, or auto for system where it is found")
set_property(CACHE QUILL_BUS PROPERTY STRINGS auto system standin)

if(NOT QUILL_BUS STREQUAL "standin")
  find_path(UBUS_INCLUDE_DIR libubus.h)
  find_library(UBUS_LIBRARY ubus)
  find_library(UBOX_LIBRARY ubox)
endif()

if(UBUS_INCLUDE_DIR AND UBUS_LIBRARY AND UBOX_LIBRARY AND NOT QUILL_BUS STREQUAL "standin")
  set(QUILL_BUS_STANDIN OFF)
  add_library(quillcore_bus INTERFACE)
  target_include_directories(quillcore_bus SYSTEM INTERFACE ${UBUS_INCLUDE_DIR})
  target_link_libraries(quillcore_bus INTERFACE ${UBUS_LIBRARY} ${UBOX_LIBRARY})
  add_library(quillcore_blobmsg ALIAS quillcore_bus)
elseif(QUILL_BUS STREQUAL "system")
  message(FATAL_ERROR "QUILL_BUS=system, but libubus.h, libubus or libubox is missing")
else()
  set(QUILL_BUS_STANDIN ON)
  add_library(quillcore_bus INTERFACE)
  target_include_directories(quillcore_bus INTERFACE ${PROJECT_SOURCE_DIR}/standin/include)
  add_library(quillcore_blobmsg STATIC ${PROJECT_SOURCE_DIR}/standin/blob.cc)
  target_link_libraries(quillcore_blobmsg PUBLIC quillcore_bus PRIVATE quillcore_options)
endif()
if(QUILL_BUS_STANDIN)
  message(STATUS "Bus: the stand-in takes the place of libubus")
endif()
