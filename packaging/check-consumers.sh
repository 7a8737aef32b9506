#!/bin/sh
# Builds what a process of the camera builds against libdravik-messaging,
# outside the source tree, from the packages that check-deb.sh made: every
# installed header compiles on its own; the example peers (examples/) build
# once through pkg-config (examples/Makefile) and once through CMake
# (find_package(DravikMessaging)), for the packages' architecture (a cross
# build uses the cross compiler and the packages unpacked as its sysroot);
# and `cmake --install` writes a pkg-config file for the prefix it installs
# to. With a test build of the same architecture, both builds of the
# examples then run against the real daemon in the sandbox
# (tests/examples: what they answer is what the daemon stores).
#
#   packaging/check-consumers.sh DEB_BUILD_DIR [TEST_BUILD_DIR]
#
# DEB_BUILD_DIR holds libdravik-messaging1_*.deb and libdravik-messaging-dev_*.deb
# (packaging/check-deb.sh's build directory); TEST_BUILD_DIR a build with the
# tests (make test's). Exit status 0 when all of it works, 1 otherwise.
set -eu

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: $0 DEB_BUILD_DIR [TEST_BUILD_DIR]" >&2
  exit 2
fi
src=$(cd "$(dirname "$0")/.." && pwd)
debs=$(cd "$1" && pwd)
tests=${2:-}
say() { printf 'check-consumers: %s\n' "$*"; }

set -- "$debs"/libdravik-messaging1_*.deb
library=$1
set -- "$debs"/libdravik-messaging-dev_*.deb
dev=$1
[ -f "$library" ] && [ -f "$dev" ] || { say "no library packages in $debs (run packaging/check-deb.sh first)" >&2; exit 1; }
arch=$(dpkg-deb -f "$dev" Architecture)
multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
triple=$(dpkg-architecture -a"$arch" -qDEB_HOST_GNU_TYPE 2>/dev/null)
native=no
[ "$arch" = "$(dpkg --print-architecture)" ] && native=yes
if [ $native = yes ]; then
  cxx=${CXX:-g++}
else
  cxx=$triple-g++
fi

work=$debs/consumers
rm -rf "$work"
root=$work/root
mkdir -p "$root"
dpkg-deb -x "$library" "$root"
dpkg-deb -x "$dev" "$root"
say "$(basename "$library") and $(basename "$dev") unpacked in $root"
status=0

# Each header alone, with the consumers' include path and warnings as errors.
headers=$(cd "$root/usr/include/dravik" && find . -name '*.h' | sed 's|^\./||' | sort)
for header in $headers; do
  if ! printf '#include "%s"\n' "$header" | $cxx -std=c++17 -Wall -Wextra -Werror -fsyntax-only \
      -I"$root/usr/include/dravik" -x c++ -; then
    say "$header does not compile on its own" >&2
    status=1
  fi
done
say "$(echo "$headers" | wc -l) headers compile on their own ($cxx)"

# pkg-config: the packages' .pc, its paths below the sysroot.
pc_env="PKG_CONFIG_LIBDIR=$root/usr/lib/$multiarch/pkgconfig PKG_CONFIG_SYSROOT_DIR=$root"
# shellcheck disable=SC2086
flags=$(echo $(env $pc_env pkg-config --cflags --libs dravik-messaging))
say "pkg-config --cflags --libs dravik-messaging: $flags"
if [ "$flags" != "-I$root/usr/include/dravik -L$root/usr/lib/$multiarch -ldravik-messaging" ]; then
  say "pkg-config names other paths" >&2
  status=1
fi
mkdir -p "$work/pkg-config"
# shellcheck disable=SC2086
if ! env $pc_env make -s -C "$work/pkg-config" -f "$src/examples/Makefile" CXX="$cxx" \
    CXXFLAGS="-O2 -Wall -Wextra -Werror"; then
  say "the examples do not build through pkg-config" >&2
  status=1
fi

# CMake: find_package(DravikMessaging) in the unpacked packages; a cross
# build adds them to its toolchain's root paths, as a consumer's sysroot.
if [ $native = yes ]; then
  cmake_args="-DCMAKE_PREFIX_PATH=$root/usr"
else
  toolchain=$src/cmake/toolchain-$triple.cmake
  printf 'include(%s)\nlist(APPEND CMAKE_FIND_ROOT_PATH %s)\n' "$toolchain" "$root" >"$work/toolchain.cmake"
  cmake_args="-DCMAKE_TOOLCHAIN_FILE=$work/toolchain.cmake"
fi
# shellcheck disable=SC2086
if cmake -S "$src/examples" -B "$work/cmake" $cmake_args -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null &&
   cmake --build "$work/cmake" >/dev/null; then
  found=$(sed -n 's/^DravikMessaging_DIR:PATH=//p' "$work/cmake/CMakeCache.txt")
  say "find_package(DravikMessaging): $found"
  case $found in
    "$root"/*) ;;
    *) say "CMake found the package elsewhere than in $root" >&2; status=1 ;;
  esac
else
  say "the examples do not build through CMake" >&2
  status=1
fi

for build in pkg-config cmake; do
  for example in calibration_engine filter_endpoint; do
    needed=$(readelf -d "$work/$build/$example" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(libdravik.*\)\]/\1/p')
    if [ "$needed" != libdravik-messaging.so.1 ]; then
      say "$build/$example does not link libdravik-messaging.so.1" >&2
      status=1
    fi
  done
done
say "examples built for $arch through pkg-config and CMake, linked with libdravik-messaging.so.1"

# cmake --install: the pkg-config file names the prefix installed to.
prefix=$work/prefix
cmake --install "$debs" --prefix "$prefix" --component library >/dev/null
cmake --install "$debs" --prefix "$prefix" --component development >/dev/null
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$debs/CMakeCache.txt")
flags=$(echo $(PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig pkg-config --cflags --libs dravik-messaging))
if [ "$flags" != "-I$prefix/include/dravik -L$prefix/$libdir -ldravik-messaging" ]; then
  say "after cmake --install --prefix $prefix, pkg-config says: $flags" >&2
  status=1
else
  say "cmake --install --prefix: pkg-config names the prefix"
fi

# Both builds against the real daemon.
if [ -n "$tests" ] && [ $native = yes ]; then
  runner=$tests/tests/examples/peer_examples_tests
  [ -x "$runner" ] || { say "no $runner (build the tests first)" >&2; exit 1; }
  for build in pkg-config cmake; do
    say "examples built through $build against the daemon"
    if ! DRAVIK_EXAMPLES_DIR=$work/$build DRAVIK_LIBRARY_DIR=$root/usr/lib/$multiarch "$runner"; then
      status=1
    fi
  done
fi
exit $status
