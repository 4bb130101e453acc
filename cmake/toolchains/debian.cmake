# What Debian's cross compilers have in common; the toolchain files set
#   ovra_triplet  the compiler's prefix
#   ovra_name     Debian's name of the architecture
#   ovra_qemu     the program of qemu-user that runs what the compiler makes: only tests need it
# Libraries beside the compiler's own are looked for in build/<name>-packages of the source tree,
# which tools/test-arm fills.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${ovra_triplet}-g++)
set(CMAKE_C_COMPILER ${ovra_triplet}-gcc)

set(ovra_root /usr/${ovra_triplet})
get_filename_component(ovra_packages
  ${CMAKE_CURRENT_LIST_DIR}/../../build/${ovra_name}-packages ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${ovra_root} ${ovra_packages})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The library path keeps a C library of the machine itself, of the same architecture, from being
# mixed in.
find_program(OVRA_QEMU ${ovra_qemu})
if(OVRA_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR
    ${OVRA_QEMU} -L ${ovra_root} -E LD_LIBRARY_PATH=${ovra_root}/lib)
endif()
