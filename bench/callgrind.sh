#!/usr/bin/env bash
# User-space instructions per handled request, counted by callgrind: a
# repeatable figure where timings are not. The daemon and the logging echo
# each run twice under valgrind in the benchmark's sandbox (private /tmp and
# store, /dev/log drained), once with 0 and once with N ping-pong
# GetAnalyticsFilterDataRequest round trips; (instructions with N - instructions
# with 0) / N is the figure. Start-up and shutdown cancel out.
#
#   bench/callgrind.sh [BUILD_DIR] [REQUESTS]     (defaults: build-bench 5000)
#
# Prints "daemon <instructions>" and "echo <instructions>", also written to
# BUILD_DIR/callgrind/result.txt; the callgrind profiles stay beside it:
#   callgrind_annotate --inclusive=yes BUILD_DIR/callgrind/daemon.5000.out
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build-bench}
REQUESTS=${2:-5000}
BENCH=$BUILD/bench/dravik_bench
VALGRIND=$(command -v valgrind) || { echo "callgrind.sh: valgrind is not installed (apt-get install valgrind)" >&2; exit 2; }
[ -x "$BENCH" ] || { echo "callgrind.sh: $BENCH not built (cmake -DDRAVIK_BENCH=ON)" >&2; exit 2; }
OUT=$(realpath "$BUILD")/callgrind
mkdir -p "$OUT"
# valgrind writes its profile from inside the sandbox, whose /tmp is a
# private tmpfs: a build under /tmp gets its profiles through a directory
# outside it, copied home at the end.
case "$OUT/" in
  /tmp/*)
    WORK=$(mktemp -d /var/tmp/dravik-callgrind.XXXXXX)
    trap 'cp -f "$WORK"/* "$OUT"/ 2>/dev/null || true; rm -rf "$WORK"' EXIT
    ;;
  *) WORK=$OUT ;;
esac

run() {  # target requests
  local name=$WORK/$1.$2
  if ! "$BENCH" --callgrind-target "$1" --requests "$2" \
      --wrapper "$VALGRIND --tool=callgrind --callgrind-out-file=$name.out" >"$name.log" 2>&1; then
    cat "$name.log" >&2
    exit 1
  fi
  awk '/^totals:/ { print $2; found = 1; exit } END { if (!found) exit 1 }' "$name.out"
}

: >"$OUT/result.txt"
for target in daemon echo; do
  base=$(run "$target" 0)
  loaded=$(run "$target" "$REQUESTS")
  echo "$target $(( (loaded - base) / REQUESTS ))" | tee -a "$OUT/result.txt"
done
