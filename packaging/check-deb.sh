#!/bin/sh
# Builds the Debian package with CPack and checks it as a Debian maintainer
# would: it holds exactly the installed files (daemon, dravikctl and its
# Wireshark dissector when built, systemd unit, sysusers.d and tmpfiles.d
# entries, man pages, copyright and changelog) and their directories, nothing
# more or less; lintian reports no error and no warning; hardening-check finds
# the packaged programs hardened; systemd accepts the packaged unit; the
# changelog names the package's version.
#
#   packaging/check-deb.sh [BUILD_DIR]     (default: build-deb in the source)
#
# Extra configure arguments can be passed in CMAKE_ARGS (a cross build's
# toolchain file, for instance). Exit status 0 when the package is as
# expected, 1 otherwise.
set -eu

src=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$src/build-deb}
jobs=${JOBS:-2}

for tool in cmake cpack dpkg-deb dpkg-shlibdeps lintian hardening-check systemd-analyze; do
  command -v "$tool" >/dev/null 2>&1 || {
    echo "check-deb: $tool is missing (as root: apt-get install dpkg-dev lintian devscripts systemd)" >&2
    exit 1
  }
done
generator=
command -v ninja >/dev/null 2>&1 && generator="-G Ninja"

# Configured every time: a directory added since (tools/) joins the build.
if [ ! -f "$build/CMakeCache.txt" ]; then
  # shellcheck disable=SC2086
  cmake -S "$src" -B "$build" $generator -DDRAVIK_TESTS=OFF ${CMAKE_ARGS:-} >/dev/null
else
  # shellcheck disable=SC2086
  cmake -S "$src" -B "$build" ${CMAKE_ARGS:-} >/dev/null
fi
cmake --build "$build" -j "$jobs"

rm -f "$build"/dravik_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
set -- "$build"/dravik_*.deb
if [ ! -f "$1" ] || [ $# -ne 1 ]; then
  echo "check-deb: cpack made no single dravik_*.deb in $build" >&2
  exit 1
fi
deb=$1

# dravikctl is packaged exactly when the build made it.
with_ctl=no
if [ -n "$(find "$build" -path "$build/_CPack_Packages" -prune -o -type f -name dravikctl -perm -u+x -print 2>/dev/null)" ]; then
  with_ctl=yes
fi

expected=$(mktemp)
actual=$(mktemp)
trap 'rm -f "$expected" "$actual"' EXIT
{
  echo ./usr/sbin/dravik
  echo ./usr/lib/systemd/system/dravik.service
  echo ./usr/lib/tmpfiles.d/dravik.conf
  echo ./usr/lib/sysusers.d/dravik.conf
  echo ./usr/share/man/man8/dravik.8.gz
  echo ./usr/share/doc/dravik/copyright
  echo ./usr/share/doc/dravik/changelog.gz
  if [ "$with_ctl" = yes ]; then
    echo ./usr/bin/dravikctl
    echo ./usr/share/man/man1/dravikctl.1.gz
    echo ./usr/share/dravik/dravik.lua
  fi
} >"$expected.files"
# Every parent directory of the files, as dpkg-deb lists them ("./usr/";
# there is no entry for "./" itself).
{
  while read -r f; do
    d=${f%/*}
    while [ "$d" != . ]; do
      echo "$d/"
      d=${d%/*}
    done
    echo "$f"
  done <"$expected.files"
} | sort -u >"$expected"
rm -f "$expected.files"

# dpkg-deb -c prints tar's long listing; the name is the sixth field on.
dpkg-deb -c "$deb" | awk '{ name = $6; for (i = 7; i <= NF; i++) name = name " " $i; print name }' | sort -u >"$actual"

status=0
if ! diff -u "$expected" "$actual" >/dev/null; then
  echo "check-deb: $deb does not hold exactly the expected files:" >&2
  diff "$expected" "$actual" | sed -n 's/^< /  missing: /p; s/^> /  unexpected: /p' >&2
  status=1
fi

# Kinds and modes: programs executable, the rest plain files.
dpkg-deb -c "$deb" | awk '
  $6 ~ /\/(sbin|bin)\/[^\/]+$/ && $1 != "-rwxr-xr-x" { print "check-deb: " $6 " is " $1 > "/dev/stderr"; bad = 1 }
  $6 ~ /(\.(service|conf|gz|lua)|\/copyright)$/ && $1 != "-rw-r--r--" { print "check-deb: " $6 " is " $1 > "/dev/stderr"; bad = 1 }
  $2 != "root/root" { print "check-deb: " $6 " belongs to " $2 > "/dev/stderr"; bad = 1 }
  END { exit bad }' || status=1

# The control data names the package.
package=$(dpkg-deb -f "$deb" Package)
if [ "$package" != dravik ]; then
  echo "check-deb: package name is '$package', not dravik" >&2
  status=1
fi
if ! dpkg-deb -I "$deb" | grep -q '^ Package: dravik$'; then
  echo "check-deb: dpkg-deb -I does not show 'Package: dravik'" >&2
  status=1
fi

# What a Debian maintainer checks, on the package as it is and unpacked.
unpacked=$(mktemp -d)
trap 'rm -f "$expected" "$actual"; rm -rf "$unpacked"' EXIT
dpkg-deb -x "$deb" "$unpacked"

echo "check-deb: lintian $(basename "$deb")"
if ! lintian --fail-on error,warning --display-info "$deb"; then
  echo "check-deb: lintian reports errors or warnings" >&2
  status=1
fi

# Control-flow protection is left out: Debian 12's C start files carry no
# IBT/SHSTK marks, so no program linked there gets them, and the ARM
# targets have no such check.
programs=$(cd "$unpacked" && find usr/sbin usr/bin -type f 2>/dev/null | sort)
echo "check-deb: hardening-check" $programs
if [ "$(dpkg-deb -f "$deb" Architecture)" != "$(dpkg --print-architecture)" ]; then
  echo "check-deb: (the build machine's objdump cannot disassemble them: stack-clash probes unknown)"
fi
# shellcheck disable=SC2086
if ! (cd "$unpacked" && hardening-check --nocfprotection $programs); then
  echo "check-deb: packaged programs are not hardened" >&2
  status=1
fi

# systemd's own check of the packaged unit, pointed at the packaged daemon
# and man pages (systemd is not needed to run).
unit=$unpacked/dravik.service
sed "s|^ExecStart=/usr/sbin/dravik|ExecStart=$unpacked/usr/sbin/dravik|" \
  "$unpacked/usr/lib/systemd/system/dravik.service" >"$unit"
if ! MANPATH=$unpacked/usr/share/man systemd-analyze verify "$unit"; then
  echo "check-deb: systemd-analyze verify fails on the packaged unit" >&2
  status=1
fi

version=$(dpkg-deb -f "$deb" Version)
logged=$(gzip -dc "$unpacked/usr/share/doc/dravik/changelog.gz" | dpkg-parsechangelog -l- -S Version)
if [ "$logged" != "$version" ]; then
  echo "check-deb: the changelog's latest entry is $logged, the package $version" >&2
  status=1
fi

if [ $status -eq 0 ]; then
  echo "check-deb: $(basename "$deb") OK ($(grep -c . "$actual") entries, dravikctl: $with_ctl)"
  dpkg-deb -f "$deb" Package Version Architecture Depends
fi
exit $status
