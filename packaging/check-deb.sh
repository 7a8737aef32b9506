#!/bin/sh
# Builds the Debian package with CPack and checks that it holds exactly the
# installed files (daemon, dravikctl and its Wireshark dissector when built,
# systemd unit, tmpfiles.d entry, man pages) and their directories, nothing
# more or less.
#
#   packaging/check-deb.sh [BUILD_DIR]     (default: build-deb in the source)
#
# Extra configure arguments can be passed in CMAKE_ARGS. Exit status 0 when
# the package is as expected, 1 otherwise.
set -eu

src=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$src/build-deb}
jobs=${JOBS:-2}

for tool in cmake cpack dpkg-deb; do
  command -v "$tool" >/dev/null 2>&1 || { echo "check-deb: $tool is missing" >&2; exit 1; }
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
  echo ./usr/share/man/man8/dravik.8.gz
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
  $6 ~ /\.(service|conf|gz|lua)$/ && $1 != "-rw-r--r--" { print "check-deb: " $6 " is " $1 > "/dev/stderr"; bad = 1 }
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

if [ $status -eq 0 ]; then
  echo "check-deb: $(basename "$deb") OK ($(grep -c . "$actual") entries, dravikctl: $with_ctl)"
  dpkg-deb -f "$deb" Package Version Architecture Depends
fi
exit $status
