# Cross build for 64-bit ARM with Debian's cross compilers
# (apt-get install g++-aarch64-linux-gnu qemu-user):
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake
# Test programs run under qemu-user, with the target's libraries from the
# cross sysroot.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(DRAVIK_CROSS_TRIPLE aarch64-linux-gnu)
set(DRAVIK_QEMU_NAME qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
