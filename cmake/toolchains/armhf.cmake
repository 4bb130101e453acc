# 32-bit ARM with hardware floating point, by Debian's cross compiler.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(ovra_triplet arm-linux-gnueabihf)
set(ovra_name armhf)
set(ovra_qemu qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
