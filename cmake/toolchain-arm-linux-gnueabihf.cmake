# Cross build for 32-bit hard-float ARM (ARMv7) with Debian's cross compilers
# (apt-get install g++-arm-linux-gnueabihf qemu-user):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm-linux-gnueabihf.cmake
# Test programs run under qemu-user, with the target's libraries from the
# cross sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(DRAVIK_CROSS_TRIPLE arm-linux-gnueabihf)
set(DRAVIK_CROSS_SYSROOT /usr/${DRAVIK_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${DRAVIK_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${DRAVIK_CROSS_TRIPLE}-g++)
set(CMAKE_AR ${DRAVIK_CROSS_TRIPLE}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${DRAVIK_CROSS_TRIPLE}-ranlib CACHE FILEPATH "")
set(CMAKE_STRIP ${DRAVIK_CROSS_TRIPLE}-strip CACHE FILEPATH "")

find_program(DRAVIK_QEMU qemu-arm)
if(DRAVIK_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DRAVIK_QEMU} -L ${DRAVIK_CROSS_SYSROOT})
endif()

# Headers and libraries from the cross sysroot only; programs from the host.
set(CMAKE_FIND_ROOT_PATH ${DRAVIK_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
