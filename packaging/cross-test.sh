#!/bin/sh
# Cross-builds dravik for an ARM target with Debian's cross compilers, runs
# the unit tests under qemu-user, reports the daemon's stripped size and
# shared libraries, builds and checks the target's Debian packages
# (packaging/check-deb.sh), builds the example peers against the target's
# library packages as a cross-compiling consumer would, through pkg-config
# and CMake (packaging/check-consumers.sh), and then runs the end-to-end
# suite under qemu when it can.
#
#   packaging/cross-test.sh ARCH [BUILD_DIR]
#
#   ARCH       aarch64 (aarch64-linux-gnu) or armhf (arm-linux-gnueabihf)
#   BUILD_DIR  default: build-ARCH in the source tree
#
# Environment: JOBS (default 2); E2E=auto (default: try the end-to-end suite
# on aarch64 only), yes (on any ARCH, and fail if it cannot run) or no.
#
# The end-to-end tests exec the daemon, a foreign ELF file: the kernel runs it
# only through a binfmt_misc entry for qemu. When the machine has none, the
# suite runs in a user namespace with a binfmt_misc instance of its own
# (Linux 6.7 or later), which leaves the machine's registrations untouched.
#
# Exit status: 0 when the build, the unit tests, the package checks and (if
# run) the end-to-end tests pass; 1 otherwise; 2 on bad usage.
set -eu

usage() {
  echo "usage: $0 aarch64|armhf [BUILD_DIR]" >&2
  exit 2
}
if [ $# -lt 1 ] || [ $# -gt 2 ]; then usage; fi
arch=$1
case $arch in
  aarch64) triple=aarch64-linux-gnu qemu=qemu-aarch64 ;;
  armhf) triple=arm-linux-gnueabihf qemu=qemu-arm ;;
  *) usage ;;
esac
src=$(cd "$(dirname "$0")/.." && pwd)
build=${2:-$src/build-$arch}
jobs=${JOBS:-2}
e2e=${E2E:-auto}
sysroot=/usr/$triple
toolchain=$src/cmake/toolchain-$triple.cmake

say() { printf 'cross-test %s: %s\n' "$arch" "$*"; }

# Tools: Debian's cross compiler and qemu-user; installed when running as root.
missing=
command -v "$triple-g++" >/dev/null 2>&1 || missing="$missing g++-$triple"
command -v "$qemu" >/dev/null 2>&1 || missing="$missing qemu-user"
[ -f /usr/src/googletest/CMakeLists.txt ] || missing="$missing googletest"
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v ninja >/dev/null 2>&1 || missing="$missing ninja-build"
command -v dpkg-shlibdeps >/dev/null 2>&1 || missing="$missing dpkg-dev"
command -v lintian >/dev/null 2>&1 || missing="$missing lintian"
command -v hardening-check >/dev/null 2>&1 || missing="$missing devscripts"
command -v pkg-config >/dev/null 2>&1 || missing="$missing pkgconf"
if [ -n "$missing" ]; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
    say "installing$missing"
    # shellcheck disable=SC2086
    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing >/dev/null
  else
    say "missing packages; as root: apt-get update && apt-get install -y$missing" >&2
    exit 1
  fi
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$src" -B "$build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DDRAVIK_TESTS=ON -DDRAVIK_WERROR=ON >/dev/null
fi
say "building in $build"
cmake --build "$build" -j "$jobs"

# How the kernel runs a program of the target: directly (a binfmt_misc entry
# for qemu on the machine), through a binfmt_misc instance of a private user
# namespace (Linux 6.7 or later; the machine's registrations stay as they
# are), or not at all. Tests that exec the daemon or dravikctl need one of
# the first two; test programs themselves run under qemu through CTest.
daemon=$build/service/dravik
exec_mode=none
why_not=
rule=
direct=0
"$daemon" -x >/dev/null 2>&1 || direct=$?
rule_file=/usr/lib/binfmt.d/$qemu.conf
if [ "$direct" = 127 ]; then
  exec_mode=direct
elif [ "$(id -u)" != 0 ]; then
  why_not="the sandbox needs root"
elif ! command -v unshare >/dev/null 2>&1; then
  why_not="unshare is missing (package util-linux)"
elif [ ! -f "$rule_file" ]; then
  why_not="no binfmt_misc entry for $qemu, and $rule_file is missing (package qemu-user-binfmt)"
else
  # Debian's rule, with F added: the interpreter is opened now, so that it is
  # still found when a test covers parts of the file system. O hands qemu the
  # program as a descriptor (the tests exec /proc/self/fd/N of a close-on-exec
  # descriptor), P keeps argv[0] as the tests expect it.
  rule=$(sed -n '/^:/p' "$rule_file" | sed 's/:\([A-Z]*\)$/:\1F/')
  probe='mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc 2>/dev/null &&
    ! [ -e /proc/sys/fs/binfmt_misc/'"$qemu"' ]'
  if unshare -U -r -m --propagation private sh -c "$probe" 2>/dev/null; then
    exec_mode=private
  else
    why_not="no binfmt_misc entry for $qemu, and no private binfmt_misc instance in a user namespace (Linux $(uname -r); 6.7 or later has one)"
  fi
fi
case $exec_mode in
  direct) say "the machine's binfmt_misc runs $arch programs" ;;
  private) say "$arch programs run through a binfmt_misc instance in a private user namespace" ;;
  none) say "$arch programs cannot be executed here: $why_not" ;;
esac

# The tests run in a private mount namespace. There the libfaketime of the
# build machine is hidden: the tests that compress the daemon's hour-long
# schedule with it would preload it into an ARM process, which cannot load an
# x86-64 library, so they report themselves skipped instead of waiting out the
# real schedule. A libfaketime for the target (multiarch) stays visible.
# shellcheck disable=SC2016
run='set -e
if [ -n "$RULE" ]; then
  mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
  printf "%s" "$RULE" >/proc/sys/fs/binfmt_misc/register
fi
for dir in /usr/lib/*/faketime /usr/lib/faketime /usr/local/lib/faketime; do
  if [ -d "$dir" ] && [ "$dir" != "/usr/lib/$TRIPLE/faketime" ]; then
    mount -t tmpfs -o ro,size=4k hidden-faketime "$dir"
    echo "cross-test: hid $dir (not built for $TRIPLE)"
  fi
done
cd "$BUILD"
ctest "$@" -j "$JOBS" --output-on-failure'
# ctest with the given selection, where target programs can be executed.
run_ctest() {
  case $exec_mode in
    direct) set -- "" ;;
    private) set -- "$rule" -U -r ;;
    none) (cd "$build" && ctest "$@" -j "$jobs" --output-on-failure); return ;;
  esac
  register=$1
  shift
  RULE=$register TRIPLE=$triple BUILD=$build JOBS=$jobs QEMU_LD_PREFIX=$sysroot \
    unshare "$@" -m --propagation private sh -c "$run" sh $selection
}

status=0
say "unit tests under $qemu"
selection="-LE e2e"
run_ctest $selection || status=1

# What the camera gets: the stripped daemon and the libraries it needs.
stripped=$build/dravik.stripped
"$triple-strip" -o "$stripped" "$daemon"
size=$(wc -c <"$stripped")
needed=$("$triple-readelf" -d "$stripped" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
say "stripped dravik: $size bytes; NEEDED: $needed"

say "Debian packages for $arch"
if ! JOBS=$jobs sh "$src/packaging/check-deb.sh" "$build"; then
  status=1
fi
say "consumers of libdravik-messaging for $arch"
if ! sh "$src/packaging/check-consumers.sh" "$build"; then
  status=1
fi

case $e2e in
  auto) if [ "$arch" = aarch64 ]; then e2e=yes-if-possible; else e2e=no; fi ;;
  yes) e2e=yes ;;
  no) ;;
  *) usage ;;
esac
if [ "$e2e" = no ]; then
  say "end-to-end suite not run"
  exit $status
fi
if [ "$(cd "$build" && ctest -N -L e2e | sed -n 's/^Total Tests: //p')" = 0 ]; then
  say "no end-to-end tests in this build"
  exit $status
fi
if [ "$exec_mode" = none ]; then
  say "end-to-end suite cannot run under $qemu: $why_not"
  if [ "$e2e" = yes ]; then exit 1; fi
  exit $status
fi
say "end-to-end suite under $qemu"
selection="-L e2e"
run_ctest $selection || status=1
exit $status
