# The part of a cross build shared by the ARM toolchain files: Debian's cross
# compilers for DRAVIK_CROSS_TRIPLE, test programs run by DRAVIK_QEMU_NAME
# (qemu-user) with the target's libraries from the cross sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(DRAVIK_CROSS_SYSROOT /usr/${DRAVIK_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${DRAVIK_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${DRAVIK_CROSS_TRIPLE}-g++)
set(CMAKE_AR ${DRAVIK_CROSS_TRIPLE}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${DRAVIK_CROSS_TRIPLE}-ranlib CACHE FILEPATH "")
set(CMAKE_STRIP ${DRAVIK_CROSS_TRIPLE}-strip CACHE FILEPATH "")

find_program(DRAVIK_QEMU ${DRAVIK_QEMU_NAME})
if(DRAVIK_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DRAVIK_QEMU} -L ${DRAVIK_CROSS_SYSROOT})
endif()

# Headers and libraries from the cross sysroot only; programs from the host.
set(CMAKE_FIND_ROOT_PATH ${DRAVIK_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# GCC notes where the ARM calling convention of a type changed between GCC
# releases ("parameter passing for argument of type ... changed in GCC 7.1").
# Every object of the program is built by the same compiler, so those ABI
# differences never meet.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Libraries go to Debian's multiarch directory of the target, as a native
# build for /usr gets it from GNUInstallDirs (which leaves cross builds at
# lib): the packages install beside the build machine's own.
set(CMAKE_INSTALL_LIBDIR lib/${DRAVIK_CROSS_TRIPLE} CACHE PATH "Object code libraries (lib/<multiarch>)")
