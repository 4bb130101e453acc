# 64-bit ARM, by Debian's cross compiler.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ovra_triplet aarch64-linux-gnu)
set(ovra_name arm64)
set(ovra_qemu qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
