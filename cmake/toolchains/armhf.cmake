# 32-bit ARM with hardware floating point, by Debian's cross compiler; qemu-user runs what it makes.
# Libraries beside the compiler's own are looked for in build/armhf-packages of the source tree,
# which tools/test-armhf fills.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)

set(ovra_armhf_root /usr/arm-linux-gnueabihf)
cmake_path(SET ovra_armhf_packages NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../../build/armhf-packages)
set(CMAKE_FIND_ROOT_PATH ${ovra_armhf_root} ${ovra_armhf_packages})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The library path keeps an armhf C library of the machine itself from being mixed in.
find_program(OVRA_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
  ${OVRA_QEMU_ARM} -L ${ovra_armhf_root} -E LD_LIBRARY_PATH=${ovra_armhf_root}/lib)
