#!/bin/sh
# Builds the fuzz targets and runs each one for N seconds (default 60, or the
# first argument) on a fresh copy of its seed corpus. Fails if a target
# crashes, leaks, times out or fails a sanitizer check; the input that did it
# is left in the build directory's artifacts/.
#
#   fuzz/run.sh            60 s per target
#   fuzz/run.sh 600        10 min per target
#   BUILD_DIR=/tmp/fz fuzz/run.sh 10
set -eu

seconds=${1:-60}
fuzz_dir=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$fuzz_dir")
build=${BUILD_DIR:-$root/build-fuzz}
generator=
command -v ninja >/dev/null 2>&1 && generator="-G Ninja"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" $generator \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDRAVIK_FUZZ=ON -DDRAVIK_TESTS=OFF >/dev/null
cmake --build "$build" --target fuzz_decoders fuzz_frame_reader fuzz_text_line -j "$(nproc 2>/dev/null || echo 2)"

status=0
for target in decoders frame_reader text_line; do
  work="$build/corpus/$target"
  rm -rf "$work"
  mkdir -p "$work" "$build/artifacts"
  cp "$fuzz_dir/corpus/$target/"* "$work/"
  echo "== fuzz_$target for ${seconds}s"
  if ! "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/fuzz_$target-" "$work"; then
    echo "fuzz_$target FAILED; see $build/artifacts/" >&2
    status=1
  fi
done
exit $status
