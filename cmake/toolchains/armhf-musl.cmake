# 32-bit ARM with musl, the router; programs run under qemu-user. MUSL_ROOT is what scripts/musl-root made.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(_root ${MUSL_ROOT}/armhf)
set(MUSL_PREFIX arm-linux-gnueabihf-)
set(MUSL_INCLUDE ${_root}/usr/include/arm-linux-musleabihf)
set(MUSL_LIBRARIES ${_root}/usr/lib/arm-linux-musleabihf)
set(MUSL_KERNEL ${_root}/kernel)
set(MUSL_CXX_ROOT /usr/arm-linux-gnueabihf/include/c++)
set(MUSL_CXX_TRIPLET /usr/arm-linux-gnueabihf/include/c++/@version@/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${_root})
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${_root})
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
