# Cross build for Debian's armel, which is what the brick runs: little-endian ARM with soft floats. The tests run under
# qemu-user.
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/armel-sysroot)
cmake_path(NORMAL_PATH sysroot)
if(NOT EXISTS ${sysroot})
  message(FATAL_ERROR "There is no ${sysroot}; scripts/armel-sysroot makes it")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabi)
set(CMAKE_C_COMPILER arm-linux-gnueabi-gcc)  # only GoogleTest's project asks for it
set(CMAKE_CXX_COMPILER arm-linux-gnueabi-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)  # only remarks that GCC 6 passed some arguments otherwise
set(CMAKE_FIND_ROOT_PATH ${sysroot})  # not the building machine's BlueZ
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${sysroot})
