#!/usr/bin/env bash
# The daemon at work with its peers, as one timestamped transcript.
#
#   tools/demo.sh [BUILD_DIR]      (root; `make demo` installs, builds, runs it)
#
# Runs the real dravik in a private mount namespace (tmpfs on /tmp and on
# /etc/sysconfig, a private /dev whose /dev/log is captured) together with
# `dravikctl simulate`, which plays the analytics engine (endpoint 11) and
# endpoint 2, and walks a short scenario. Nothing reaches the host's /tmp,
# /etc or syslog. Transcript columns: time (UTC), source, text. Sources:
# demo (narration), $ (a command), > (its output), recv/send (the simulated
# peers), syslog (the daemon's log), daemon (its console), sim (simulator notes).
set -euo pipefail

if [[ "${1:-}" != --inside ]]; then
  build=${1:-build}
  if [[ $(id -u) != 0 ]]; then
    echo "demo: needs root for a private mount namespace (try: sudo make demo)" >&2
    exit 1
  fi
  for binary in "$build/service/dravik" "$build/tools/dravikctl"; do
    if [[ ! -x $binary ]]; then
      echo "demo: $binary is missing; run 'make demo', which builds it" >&2
      exit 1
    fi
  done
  build=$(cd "$build" && pwd)
  exec unshare --mount --propagation private -- "$BASH" "$0" --inside "$build"
fi

build=$2
export TZ=UTC LC_ALL=C

# Descriptors of the binaries' directories, opened before a tmpfs may cover
# them (a build under /tmp would vanish): the programs run through /proc.
exec 7<"$build/service" 8<"$build/tools"
DRAVIK=/proc/$$/fd/7/dravik
CTL=/proc/$$/fd/8/dravikctl

# --- the sandbox (the recipe of tests/support/sandbox.cc) -------------------
mount -t tmpfs -o mode=1777 demo-tmp /tmp
mkdir -p /tmp/.etc-upper /tmp/.etc-work
if [[ ! -d /etc/sysconfig ]]; then
  mount -t overlay overlay -o lowerdir=/etc,upperdir=/tmp/.etc-upper,workdir=/tmp/.etc-work /etc
  mkdir /etc/sysconfig
fi
mount -t tmpfs -o mode=755 demo-store /etc/sysconfig
mkdir -p /etc/sysconfig/dravik/zek/cal /etc/sysconfig/dravik/zek/tbe
mount -t tmpfs -o mode=1777 demo-tmp /tmp
mkdir -p /run
mount -t tmpfs -o mode=755 demo-run /run
mkdir /run/host-dev
mount --rbind /dev /run/host-dev
mount -t tmpfs -o mode=755 demo-dev /dev
for name in null zero full random urandom tty pts shm; do
  [[ -e /run/host-dev/$name ]] || continue
  if [[ -d /run/host-dev/$name ]]; then mkdir /dev/$name; else touch /dev/$name; fi
  mount --rbind /run/host-dev/$name /dev/$name
done
# Process substitution needs /dev/fd.
ln -s /proc/self/fd /dev/fd
ln -s /proc/self/fd/0 /dev/stdin
ln -s /proc/self/fd/1 /dev/stdout
ln -s /proc/self/fd/2 /dev/stderr

STORE=/etc/sysconfig/dravik/zek
INCOMING=/etc/sysconfig/dravik/incoming  # the store's file system: filters are renamed into it
SYSLOG_COPY=/tmp/demo-syslog.txt
mkdir -p "$INCOMING"
: >"$SYSLOG_COPY"

# --- the transcript -----------------------------------------------------------
line() {  # SOURCE TEXT
  local t=$EPOCHREALTIME
  local fraction=${t#*.}
  printf '%(%H:%M:%S)T.%s %s %s\n' "${t%.*}" "${fraction:0:3}" "$1" "$2"
}
stamp() {  # SOURCE: stamps each line of standard input
  local text
  while IFS= read -r text; do line "$1" "$text"; done
}
say() { line demo "$*"; }
step() {
  echo
  line demo "==== $*"
}
ctl() {  # a dravikctl command, shown and run
  line '$' "dravikctl $*"
  local status=0
  "$CTL" "$@" > >(stamp '>') 2>&1 || status=$?
  sleep 0.05  # lets the output stamp finish before the next line
  if [[ $status != 0 ]]; then say "(exit status $status)"; fi
}
show_store() {
  local file found=0
  for file in "$STORE"/cal/* "$STORE"/tbe/*; do
    [[ -e $file ]] || continue
    found=1
    line '>' "$(stat -c '%n, %s bytes' "$file")"
  done
  if [[ $found == 0 ]]; then line '>' "the store is empty"; fi
}

# Waits for a syslog line containing TEXT logged after line MARK of the copy.
wait_for_log() {  # MARK TEXT SECONDS
  local deadline=$((SECONDS + $3))
  until tail -n +"$(($1 + 1))" "$SYSLOG_COPY" | grep -qF -- "$2"; do
    if ((SECONDS >= deadline)); then
      say "gave up waiting $3 s for the log line: $2"
      exit 1
    fi
    sleep 0.1
  done
}
log_mark() { wc -l <"$SYSLOG_COPY"; }

CAPTURE= DAEMON= SIM=
stop_process() {  # PID: SIGTERM, then wait for it (bounded)
  local pid=$1 i
  [[ -n $pid ]] || return 0
  kill -TERM "$pid" 2>/dev/null || return 0
  for i in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}
cleanup() {
  stop_process "$SIM"
  stop_process "$DAEMON"
  stop_process "$CAPTURE"
}
trap cleanup EXIT

start_daemon() {
  line '$' "dravik -s 0"
  "$DRAVIK" -s 0 > >(stamp daemon) 2>&1 &
  DAEMON=$!
  local i
  for i in $(seq 50); do
    [[ -p /tmp/dravik.mailbox && -p /tmp/comm.mailbox ]] && return 0
    sleep 0.1
  done
  say "the daemon made no pipes"
  exit 1
}
start_simulator() {  # simulate's options
  line '$' "dravikctl simulate${*:+ $*}"
  "$CTL" simulate "$@" 2> >(stamp sim) &
  SIM=$!
}
stop_simulator() {
  line demo "(stopping the simulator)"
  stop_process "$SIM"
  SIM=
}

# --- the scenario -------------------------------------------------------------
step "A private sandbox: tmpfs on /tmp and /etc/sysconfig, syslog captured on a private /dev/log"
"$CTL" syslog-capture > >(tee -a "$SYSLOG_COPY") &
CAPTURE=$!
for i in $(seq 50); do [[ -S /dev/log ]] && break; sleep 0.1; done

say "The service asks the engine for calibration only 30 min after it starts (then hourly),"
say "so the store starts with the blocks that an earlier run kept for channels 0 and 2."
head -c 64 /dev/zero | tr '\0' '\001' >"$STORE/cal/zekCalibrationDataCH0.bin"
head -c 64 /dev/zero | tr '\0' '\042' >"$STORE/cal/zekCalibrationDataCH2.bin"
show_store

step "Start: the daemon, and simulate as the engine (11) and endpoint 2; the restore begins"
say "The daemon waits for a writer on its mailbox, then restores channel by channel (4 s apart, then 5 s)"
mark=$(log_mark)
start_daemon
start_simulator
wait_for_log "$mark" "Restoring Zek Calibration for ch=0" 10

step "1. A new filter for channel 1: forwarded to endpoint 2, accepted (status 0), saved"
printf '<filter channel="1"><zone name="door"/></filter>\n' >"$INCOMING/filter-ch1.xml"
mark=$(log_mark)
ctl set-filter 1 "$INCOMING/filter-ch1.xml"
wait_for_log "$mark" "Saving Analytics Filter To file for ch=1" 5
sleep 0.2
show_store

step "2. A filter that the engine refuses: endpoint 2 answers status 3, nothing is saved"
say "When the last writer leaves its mailbox the daemon says so (console error, 'Input FIFO is empty')"
stop_simulator
start_simulator --filter-status 3
printf '<filter channel="2"><zone name="yard"/></filter>\n' >"$INCOMING/filter-ch2.xml"
mark=$(log_mark)
ctl set-filter 2 "$INCOMING/filter-ch2.xml"
wait_for_log "$mark" "Failed ZEK SetAnalyticsFilter with status 3" 5
sleep 0.2
line '>' "$(ls "$INCOMING" | tr '\n' ' ')(the refused filter stays where the client wrote it)"
show_store

step "3. get-filter: the service answers with the path of the channel's filter file"
say "One reader at a time on comm.mailbox: the simulator pauses while get-filter reads the answer"
stop_simulator
ctl get-filter 1
ctl get-filter 2
start_simulator

step "Waiting for the start-up restore to finish (filters follow the calibrations after 5 s)"
wait_for_log 0 "RestoreZekAnalyticsFilter:: for ch=3" 40
sleep 0.3

step "4. Restart: SIGTERM, and a new daemon restores the stored calibrations and filters"
line '$' "kill -TERM $DAEMON"
kill -TERM "$DAEMON"
status=0
wait "$DAEMON" || status=$?
say "dravik exited with status $status"
mark=$(log_mark)
start_daemon
wait_for_log "$mark" "RestoreZekAnalyticsFilter:: for ch=3" 40
sleep 0.3

step "5. Factory reset of channel 1, then of all channels"
mark=$(log_mark)
ctl reset-channel 1
wait_for_log "$mark" "ResetCalibrationNotification::toStream channel=1" 5
sleep 0.2
show_store
mark=$(log_mark)
ctl reset-all
wait_for_log "$mark" "ResetCalibrationNotification::toStream channel=3" 5
sleep 0.2
show_store

step "End: the daemon stops on SIGTERM"
stop_simulator
line '$' "kill -TERM $DAEMON"
kill -TERM "$DAEMON"
status=0
wait "$DAEMON" || status=$?
DAEMON=
say "dravik exited with status $status"
sleep 0.2
stop_process "$CAPTURE"
CAPTURE=
say "done in $SECONDS s"
