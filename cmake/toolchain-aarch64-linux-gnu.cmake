# Cross build for 64-bit ARM with Debian's cross compilers
# (apt-get install g++-aarch64-linux-gnu qemu-user):
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake
# Test programs run under qemu-user, with the target's libraries from the
# cross sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(DRAVIK_CROSS_TRIPLE aarch64-linux-gnu)
set(DRAVIK_CROSS_SYSROOT /usr/${DRAVIK_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${DRAVIK_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${DRAVIK_CROSS_TRIPLE}-g++)
set(CMAKE_AR ${DRAVIK_CROSS_TRIPLE}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${DRAVIK_CROSS_TRIPLE}-ranlib CACHE FILEPATH "")
set(CMAKE_STRIP ${DRAVIK_CROSS_TRIPLE}-strip CACHE FILEPATH "")

find_program(DRAVIK_QEMU qemu-aarch64)
if(DRAVIK_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DRAVIK_QEMU} -L ${DRAVIK_CROSS_SYSROOT})
endif()

# Headers and libraries from the cross sysroot only; programs from the host.
set(CMAKE_FIND_ROOT_PATH ${DRAVIK_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
