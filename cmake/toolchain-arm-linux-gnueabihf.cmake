# Cross build for 32-bit hard-float ARM (ARMv7) with Debian's cross compilers
# (apt-get install g++-arm-linux-gnueabihf qemu-user):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm-linux-gnueabihf.cmake
# Test programs run under qemu-user, with the target's libraries from the
# cross sysroot.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(DRAVIK_CROSS_TRIPLE arm-linux-gnueabihf)
set(DRAVIK_QEMU_NAME qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
