#!/bin/sh
# Builds the Debian packages with CPack and checks them as a Debian
# maintainer would:
#   dravik                   the daemon, systemd unit, sysusers.d and tmpfiles.d
#                            entries, dravik(8)
#   dravik-tools             dravikctl, dravikctl(1), the Wireshark dissector in
#                            Wireshark's plugin folder, bash completion
#   libdravik-messaging1     libdravik-messaging.so.1
#   libdravik-messaging-dev  headers, .so link, pkg-config file, CMake package,
#                            the example peers
# Each holds exactly its files and their directories (and its copyright and
# changelog), nothing more or less, owned by root with Debian's modes;
# lintian reports no error and no warning on any; hardening-check finds the
# programs and the library hardened; systemd accepts the packaged unit; the
# changelogs name the packages' version; the packaged library exports
# exactly what packaging/debian/libdravik-messaging1.symbols lists
# (dpkg-gensymbols, as the package build itself does).
#
#   packaging/check-deb.sh [BUILD_DIR]     (default: build-deb in the source)
#
# Extra configure arguments can be passed in CMAKE_ARGS (a cross build's
# toolchain file, for instance). The build is configured for the prefix
# /usr, so that the library goes to the multiarch directory. Exit status 0
# when the packages are as expected, 1 otherwise.
set -eu

src=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$src/build-deb}
jobs=${JOBS:-2}

for tool in cmake cpack dpkg-deb dpkg-shlibdeps dpkg-gensymbols lintian hardening-check systemd-analyze; do
  command -v "$tool" >/dev/null 2>&1 || {
    echo "check-deb: $tool is missing; as root: apt-get update && apt-get install -y dpkg-dev lintian devscripts systemd" >&2
    exit 1
  }
done
generator=
command -v ninja >/dev/null 2>&1 && generator="-G Ninja"

# Configured every time: a directory added since joins the build.
if [ ! -f "$build/CMakeCache.txt" ]; then
  # shellcheck disable=SC2086
  cmake -S "$src" -B "$build" $generator -DDRAVIK_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr ${CMAKE_ARGS:-} >/dev/null
else
  # shellcheck disable=SC2086
  cmake -S "$src" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr ${CMAKE_ARGS:-} >/dev/null
fi
cmake --build "$build" -j "$jobs"

packages="dravik dravik-tools libdravik-messaging1 libdravik-messaging-dev"
for package in $packages; do rm -f "$build/${package}"_*.deb; done
(cd "$build" && cpack -G DEB >/dev/null)
status=0
for package in $packages; do
  set -- "$build/$package"_*.deb
  if [ ! -f "$1" ] || [ $# -ne 1 ]; then
    echo "check-deb: cpack made no single ${package}_*.deb in $build" >&2
    exit 1
  fi
done
deb() { echo "$build/$1"_*.deb; }

arch=$(dpkg-deb -f "$(deb dravik)" Architecture)
multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
lib=usr/lib/$multiarch
version=$(dpkg-deb -f "$(deb dravik)" Version)
# dravikctl and its dissector are packaged exactly when the build made them.
with_ctl=no
[ -x "$build/tools/dravikctl" ] && with_ctl=yes
with_lua=no
[ -f "$build/packaging/dravik.lua" ] && with_lua=yes
with_completion=no
[ -f "$src/packaging/dravikctl.bash-completion" ] && with_completion=yes

files_of() {
  echo "./usr/share/doc/$1/copyright"
  echo "./usr/share/doc/$1/changelog.gz"
  case $1 in
    dravik)
      echo ./usr/sbin/dravik
      echo ./usr/lib/systemd/system/dravik.service
      echo ./usr/lib/tmpfiles.d/dravik.conf
      echo ./usr/lib/sysusers.d/dravik.conf
      echo ./usr/share/man/man8/dravik.8.gz
      ;;
    dravik-tools)
      if [ "$with_ctl" = yes ]; then
        echo ./usr/bin/dravikctl
        echo ./usr/share/man/man1/dravikctl.1.gz
      fi
      [ "$with_lua" = no ] || echo "./$lib/wireshark/plugins/dravik.lua"
      [ "$with_completion" = no ] || echo ./usr/share/bash-completion/completions/dravikctl
      ;;
    libdravik-messaging1)
      echo "./$lib/libdravik-messaging.so.1"
      echo "./$lib/libdravik-messaging.so.$version"
      ;;
    libdravik-messaging-dev)
      for h in binary_fifo binary_message binary_stream console_line fifo frame_format memory_stream pipe_buffer \
        pipe_input pipe_output signal_descriptor system_log text_message timestamp typed_open wake_up; do
        echo "./usr/include/dravik/messaging/$h.h"
      done
      echo ./usr/include/dravik/store/catalogue.h
      echo ./usr/include/dravik/store/service_paths.h
      echo "./$lib/libdravik-messaging.so"
      echo "./$lib/pkgconfig/dravik-messaging.pc"
      for f in DravikMessagingConfig DravikMessagingConfigVersion DravikMessagingTargets \
        "DravikMessagingTargets-$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt" | tr 'A-Z' 'a-z')"; do
        echo "./$lib/cmake/DravikMessaging/$f.cmake"
      done
      for f in CMakeLists.txt Makefile calibration_engine.cc filter_endpoint.cc; do
        echo "./usr/share/doc/libdravik-messaging-dev/examples/$f"
      done
      ;;
  esac
}

# Every parent directory of the files, as dpkg-deb lists them ("./usr/";
# there is no entry for "./" itself).
with_directories() {
  while read -r f; do
    d=${f%/*}
    while [ "$d" != . ]; do
      echo "$d/"
      d=${d%/*}
    done
    echo "$f"
  done | sort -u
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for package in $packages; do
  file=$(deb "$package")
  files_of "$package" | with_directories >"$work/$package.expected"
  # dpkg-deb -c prints tar's long listing; the name is the sixth field on
  # (a link's target follows " -> ").
  dpkg-deb -c "$file" | awk '{ name = $6; for (i = 7; i <= NF; i++) name = name " " $i; sub(/ -> .*/, "", name); print name }' \
    | sort -u >"$work/$package.actual"
  if ! diff -u "$work/$package.expected" "$work/$package.actual" >/dev/null; then
    echo "check-deb: $package does not hold exactly the expected files:" >&2
    diff "$work/$package.expected" "$work/$package.actual" | sed -n 's/^< /  missing: /p; s/^> /  unexpected: /p' >&2
    status=1
  fi

  # Kinds and modes: programs executable, the library a file and its links,
  # the rest plain files.
  dpkg-deb -c "$file" | awk -v pkg="$package" '
    $6 ~ /\/(sbin|bin)\/[^\/]+$/ && $1 != "-rwxr-xr-x" { print "check-deb: " pkg ": " $6 " is " $1 > "/dev/stderr"; bad = 1 }
    $6 ~ /\.so\.[0-9]+\.[0-9]+\.[0-9]+$/ && $1 != "-rw-r--r--" { print "check-deb: " pkg ": " $6 " is " $1 > "/dev/stderr"; bad = 1 }
    $6 ~ /\.so(\.[0-9]+)?$/ && $1 !~ /^l/ { print "check-deb: " pkg ": " $6 " is no link" > "/dev/stderr"; bad = 1 }
    $6 ~ /(\.(service|conf|gz|lua|h|pc|cmake|cc|txt)|\/copyright|\/Makefile|completions\/dravikctl)$/ && $1 != "-rw-r--r--" {
      print "check-deb: " pkg ": " $6 " is " $1 > "/dev/stderr"; bad = 1 }
    $2 != "root/root" { print "check-deb: " pkg ": " $6 " belongs to " $2 > "/dev/stderr"; bad = 1 }
    END { exit bad }' || status=1

  # The control data names the package, its source and version.
  for field in "Package $package" "Source dravik" "Version $version" "Architecture $arch"; do
    if [ "$(dpkg-deb -f "$file" "${field% *}")" != "${field#* }" ]; then
      echo "check-deb: $package: ${field% *} is '$(dpkg-deb -f "$file" "${field% *}")', not ${field#* }" >&2
      status=1
    fi
  done
  mkdir -p "$work/root"
  dpkg-deb -x "$file" "$work/root"
  logged=$(gzip -dc "$work/root/usr/share/doc/$package/changelog.gz" | dpkg-parsechangelog -l- -S Version)
  if [ "$logged" != "$version" ]; then
    echo "check-deb: $package: the changelog's latest entry is $logged, the package $version" >&2
    status=1
  fi
done

echo "check-deb: lintian" $(for p in $packages; do basename "$(deb "$p")"; done)
# shellcheck disable=SC2046
if ! lintian --fail-on error,warning --display-info $(for p in $packages; do deb "$p"; done); then
  echo "check-deb: lintian reports errors or warnings" >&2
  status=1
fi

# Control-flow protection is left out: Debian 12's C start files carry no
# IBT/SHSTK marks, so no program linked there gets them, and the ARM
# targets have no such check.
binaries=$(cd "$work/root" && find usr/sbin usr/bin "$lib" -maxdepth 1 -type f \( -perm -u+x -o -name '*.so.*' \) 2>/dev/null | sort)
echo "check-deb: hardening-check" $binaries
if [ "$arch" != "$(dpkg --print-architecture)" ]; then
  echo "check-deb: (the build machine's objdump cannot disassemble them: stack-clash probes unknown)"
fi
# shellcheck disable=SC2086
if ! (cd "$work/root" && hardening-check --nocfprotection $binaries); then
  echo "check-deb: packaged programs are not hardened" >&2
  status=1
fi

# The ABI: what the packaged library exports against the symbols file.
mkdir -p "$work/gensymbols/debian"
printf 'Source: dravik\n\nPackage: libdravik-messaging1\nArchitecture: any\n' >"$work/gensymbols/debian/control"
echo "check-deb: dpkg-gensymbols -c4 $lib/libdravik-messaging.so.$version"
if ! (cd "$work/gensymbols" && dpkg-gensymbols -c4 -q -a"$arch" -plibdravik-messaging1 -v"$version" \
    -I"$src/packaging/debian/libdravik-messaging1.symbols" -e"$work/root/$lib/libdravik-messaging.so.$version" \
    -O"$work/symbols"); then
  echo "check-deb: libdravik-messaging exports other symbols than packaging/debian/libdravik-messaging1.symbols lists" >&2
  status=1
fi

# Wireshark loads the packaged dissector with no option: in a private mount
# namespace the packaged plugin folder stands in for the system's.
if [ "$with_lua" = yes ] && [ "$arch" = "$(dpkg --print-architecture)" ] && command -v tshark >/dev/null 2>&1; then
  plugins=/$lib/wireshark/plugins
  namespace="-m"
  [ "$(id -u)" = 0 ] || namespace="-Urm"
  # shellcheck disable=SC2086
  loaded=$(unshare $namespace --propagation private sh -c \
    'mount --bind "$1" "$2" && tshark -G plugins 2>/dev/null' sh "$work/root$plugins" "$plugins" | grep 'dravik\.lua' || true)
  echo "check-deb: tshark -G plugins: ${loaded:-no dravik.lua}"
  case $loaded in
    *"lua script"*"$plugins/dravik.lua"*) ;;
    *) echo "check-deb: Wireshark does not load $plugins/dravik.lua" >&2; status=1 ;;
  esac
fi

# What the daemon's postrm leaves: remove keeps the store and the pipes;
# purge takes both away, but not what is not a pipe at a pipe's path. Run in
# a private mount namespace whose /tmp, /etc/sysconfig, /run and systemd
# state are empty.
postrm=$(dpkg-deb --ctrl-tarfile "$(deb dravik)" | tar -xO ./postrm)
# shellcheck disable=SC2016
leftover='set -e
for d in /tmp /etc/sysconfig /run /etc/systemd/system /var/lib/systemd; do
  mkdir -p "$d" && mount -t tmpfs leftover "$d"
done
mkfifo /tmp/dravik.mailbox
if [ "$2" = file ]; then echo x >/tmp/comm.mailbox; else mkfifo /tmp/comm.mailbox; fi
mkdir -p /etc/sysconfig/dravik/zek/cal /etc/sysconfig/dravik/zek/tbe /etc/sysconfig/dravik/incoming
echo block >/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH0.bin
echo filter >/etc/sysconfig/dravik/incoming/f.xml
DPKG_MAINTSCRIPT_PACKAGE=dravik DPKG_MAINTSCRIPT_NAME=postrm sh -c "$3" postrm "$1" >/dev/null
find /tmp /etc/sysconfig -mindepth 1 | sort | tr "\n" " "'
namespace="-m"
[ "$(id -u)" = 0 ] || namespace="-Urm"
store="/etc/sysconfig/dravik /etc/sysconfig/dravik/incoming /etc/sysconfig/dravik/incoming/f.xml \
/etc/sysconfig/dravik/zek /etc/sysconfig/dravik/zek/cal /etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH0.bin \
/etc/sysconfig/dravik/zek/tbe "
left=ok
while IFS='|' read -r action comm expected; do
  # shellcheck disable=SC2086
  got=$(unshare $namespace --propagation private sh -c "$leftover" sh "$action" "$comm" "$postrm" 2>&1 || true)
  expected=$(eval "echo \"$expected\"")
  if [ "$got" != "$expected" ]; then
    echo "check-deb: postrm $action (comm.mailbox a $comm) leaves: $got" >&2
    echo "check-deb:   expected: $expected" >&2
    left=bad
  fi
done <<'ROWS'
remove|pipe|$store/tmp/comm.mailbox /tmp/dravik.mailbox 
purge|pipe|
purge|file|/tmp/comm.mailbox 
ROWS
if [ $left = ok ]; then
  echo "check-deb: postrm: remove keeps the store and the pipes, purge removes them"
else
  status=1
fi

# systemd's own check of the packaged unit, pointed at the packaged daemon
# and man pages (systemd is not needed to run).
unit=$work/dravik.service
sed "s|^ExecStart=/usr/sbin/dravik|ExecStart=$work/root/usr/sbin/dravik|" \
  "$work/root/usr/lib/systemd/system/dravik.service" >"$unit"
if ! MANPATH=$work/root/usr/share/man systemd-analyze verify "$unit"; then
  echo "check-deb: systemd-analyze verify fails on the packaged unit" >&2
  status=1
fi

if [ $status -eq 0 ]; then
  for package in $packages; do
    file=$(deb "$package")
    echo "check-deb: $(basename "$file") OK ($(grep -c . "$work/$package.actual") entries, $(wc -c <"$file") bytes)"
    dpkg-deb -f "$file" Depends | sed 's/^/  Depends: /'
  done
  echo "check-deb: dravikctl: $with_ctl, dissector: $with_lua, completion: $with_completion"
fi
exit $status
