#!/bin/bash
# The daemon's spine on a real bus: the fork and readiness hand-shake, the
# bus object, command answers and bus codes, the signals, the shutdown with
# and without the developer marker, and the end when the bus goes away.
# Runs inside scripts/sandbox.sh.
#
# Exit statuses of the daemon child: after the fork the child is no longer
# the test's child, so each daemon is started under a small python3 reaper
# that makes itself a child subreaper (PR_SET_CHILD_SUBREAPER). The orphaned
# daemon child is then re-parented to the reaper, which writes
# "parent STATUS", "child PID" and, for every process it reaps, "exit PID
# STATUS" to its report file.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1


work=$(mktemp -d /tmp/spine.XXXXXX)
bus() { busctl --address="$ORBIIL_BUS_ADDRESS" "$@"; }

cleanup() { leave_sandbox 10; }
trap cleanup EXIT

cat >"$work/reaper.py" <<'EOF'
import ctypes, os, subprocess, sys

PR_SET_CHILD_SUBREAPER = 36
report = open(sys.argv[1], "w", buffering=1)
libc = ctypes.CDLL(None, use_errno=True)
if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
    report.write("prctl failed\n")
    sys.exit(1)
proc = subprocess.Popen(sys.argv[2:], stdin=subprocess.DEVNULL, start_new_session=True)
_, status = os.waitpid(proc.pid, 0)
report.write("parent %d\n" % os.waitstatus_to_exitcode(status))
me = str(os.getpid())
for entry in os.listdir("/proc"):
    if not entry.isdigit():
        continue
    try:
        with open("/proc/%s/stat" % entry) as f:
            fields = f.read().rsplit(")", 1)[1].split()
    except OSError:
        continue
    if fields[1] == me:
        report.write("child %s\n" % entry)
while True:
    try:
        pid, status = os.wait()
    except ChildProcessError:
        break
    report.write("exit %d %d\n" % (pid, os.waitstatus_to_exitcode(status)))
EOF

# reaped_start NAME: starts "usbmgrd debug" under the reaper (report in
# $work/NAME.report) and waits until it serves commands; prints the child pid.
reaped_start() {
    local name=$1 report="$work/$1.report"
    python3 "$work/reaper.py" "$report" usbmgrd debug >>/var/log/usbmgrd.out 2>&1 &
    echo $! >"$work/$name.reaper"
    wait_for "grep -q '^child ' '$report'" 10 || return 1
    wait_for "usbmgrctl call 14" 10 || return 1
    sed -n 's/^child //p' "$report" | head -n 1
}

# reaped_status NAME PID: the exit status the reaper saw for PID.
reaped_status() {
    sed -n "s/^exit $2 //p" "$work/$1.report" | head -n 1
}

gone() { ! _sandbox_alive "$1"; }

# --- the readiness hand-shake
rc=0
setsid --wait usbmgrd debug </dev/null >>/var/log/usbmgrd.out 2>&1 || rc=$?
check "parent exits 0 once the child is on the bus" [ "$rc" -eq 0 ]
daemon=$(pgrep -o -x usbmgrd || true)
check "a daemon child remains after the parent ended" [ -n "$daemon" ]
check "the daemon owns org.orbiil.USBMGR_DMON" wait_for "bus_has_name USBMGR_DMON" 10
check "the daemon serves commands" wait_for "usbmgrctl call 14" 10

# --- the bus object and command answers
introspection=$(bus introspect org.orbiil.USBMGR_DMON /org/orbiil/USBMGR_DMON 2>&1 || true)
check "introspection shows interface org.orbiil.Daemon" grep -q '^org\.orbiil\.Daemon  *interface' <<<"$introspection"
check "introspection shows method Command uay -> uay" grep -Eq '^\.Command +method +uay +uay' <<<"$introspection"

out=$(usbmgrctl call 14 || true)
check "command 14 answers code 0" grep -qx 'code: 0 OK' <<<"$out"
check "command 14 answers one storage service" grep -Eqx ' *number = 1' <<<"$out"
out=$(bus call org.orbiil.USBMGR_DMON /org/orbiil/USBMGR_DMON org.orbiil.Daemon Command uay 14 4 0 0 0 0 2>&1 || true)
check "raw busctl command 14 answers 'uay 0 4 1 0 0 0'" [ "$out" = "uay 0 4 1 0 0 0" ]

out=$(usbmgrctl call 14 0000000000 || true)
check "a payload longer than declared answers MISMATCH_CMD_LEN" grep -qx 'code: 16 MISMATCH_CMD_LEN' <<<"$out"
out=$(usbmgrctl call 14 || true)
check "command 14 still answers after the refused payload" grep -qx 'code: 0 OK' <<<"$out"

out=$(usbmgrctl call 13 || true)
check "id 13 answers UNKNOWN_CMD" grep -qx 'code: 13 UNKNOWN_CMD' <<<"$out"
out=$(usbmgrctl call 37 || true)
check "id 37 answers UNKNOWN_CMD" grep -qx 'code: 13 UNKNOWN_CMD' <<<"$out"

check "the log says the daemon is running" log_has "ORB usb mgt daemon is running"

# --- SIGINT does nothing. A pending signal is delivered before the process
# next runs, so a command answered after the kill proves it was handled.
kill -INT "$daemon"
out=$(usbmgrctl call 14 || true)
check "SIGINT: the daemon still answers command 14" grep -qx 'code: 0 OK' <<<"$out"
check "SIGINT: the same daemon still runs" _sandbox_alive "$daemon"
check "SIGINT: nothing is logged as terminated" bash -c "! grep -q 'daemon is terminated' '$ORBIIL_LOG_FILE'"

stop_daemon 10
check "the first daemon ends on SIGTERM" gone "$daemon"

# --- SIGTERM ends the daemon with status 0
daemon=$(reaped_start term) || daemon=""
check "reaper: parent exits 0" grep -qx 'parent 0' "$work/term.report"
check "reaper: the child is the running usbmgrd" [ -n "$daemon" -a "$daemon" = "$(pgrep -o -x usbmgrd || true)" ]
if [ -n "$daemon" ]; then
    kill -TERM "$daemon"
    check "SIGTERM ends the daemon within 5 s" wait_for "grep -q '^exit $daemon ' '$work/term.report'" 5
    check "SIGTERM: exit status 0" [ "$(reaped_status term "$daemon")" = 0 ]
fi
check "SIGTERM: no error end in the log" bash -c "! grep -q 'terminated with error' '$ORBIIL_LOG_FILE'"
# The reaper was started in a command substitution's subshell, so it is
# not this shell's child: wait until it has reaped everything and ended.
wait_for "! _sandbox_alive $(cat "$work/term.reaper")" 10 || true

# --- the developer marker keeps sh and getty alive on SIGTERM
cp /bin/sleep /tmp/getty
start_keepers() {
    # dash runs a lone command by exec: the ":" keeps the shell itself alive.
    sh -c 'sleep 600; :' &
    sh_pid=$!
    /tmp/getty 600 &
    getty_pid=$!
    wait_for "grep -qx 'Name:.sh' /proc/$sh_pid/status && grep -qx 'Name:.getty' /proc/$getty_pid/status" 5
}

: >/tmp/usbmgrd_develop
start_keepers
check "processes named sh and getty run" [ "$(awk '/^Name:/{print $2}' /proc/$sh_pid/status /proc/$getty_pid/status | tr '\n' ' ')" = "sh getty " ]
daemon=$(start_daemon debug) || daemon=""
check "a fresh daemon started (marker present)" [ -n "$daemon" ]
touch /var/dev/leftover
stop_daemon 10
check "marker: the daemon ended on SIGTERM" gone "$daemon"
check "marker: sh keeps running" _sandbox_alive "$sh_pid"
check "marker: getty keeps running" _sandbox_alive "$getty_pid"
check "marker: /var/dev is emptied" [ -z "$(ls -A /var/dev)" ]
rm -f /tmp/usbmgrd_develop

daemon=$(start_daemon debug) || daemon=""
check "a fresh daemon started (no marker)" [ -n "$daemon" ]
stop_daemon 10
check "no marker: the daemon ended on SIGTERM" gone "$daemon"
# The daemon started neither: without the marker it still leaves them be.
check "no marker: an sh the daemon did not start keeps running" _sandbox_alive "$sh_pid"
check "no marker: a getty the daemon did not start keeps running" _sandbox_alive "$getty_pid"
pkill -P "$sh_pid" 2>/dev/null || true
kill "$sh_pid" "$getty_pid" 2>/dev/null || true
wait "$sh_pid" 2>/dev/null || true
wait "$getty_pid" 2>/dev/null || true

# --- a child that dies before readiness: the parent ends with 255
rc=0
ORBIIL_BUS_ADDRESS=unix:path=/run/nobus timeout 15 setsid --wait usbmgrd debug </dev/null >>/var/log/usbmgrd.out 2>&1 || rc=$?
check "no bus: the parent exits 255" [ "$rc" -eq 255 ]
check "no bus: the child ends with the error end" log_has "ORB fault mgt daemon is terminated with error"
check "no bus: no daemon remains" no_daemon

# --- the bus goes away: the daemon ends within a second, status 0 (last:
# the private bus is gone afterwards)
daemon=$(reaped_start nobus) || daemon=""
check "a daemon runs before the bus is killed" [ -n "$daemon" ]
busd=$(pgrep -x dbus-daemon || true)
check "the private dbus-daemon runs" [ -n "$busd" ]
if [ -n "$daemon" ] && [ -n "$busd" ]; then
    t0=$(date +%s%N)
    kill -TERM "$busd"
    wait_for "! _sandbox_alive $daemon" 3 || true
    elapsed_ms=$((($(date +%s%N) - t0) / 1000000))
    echo "# daemon ended $elapsed_ms ms after dbus-daemon was killed"
    # Sanitizer builds run slower: USBMGR_TIME_SCALE stretches the limit there.
    check "bus gone: the daemon ends within a second" [ "$elapsed_ms" -le $((1000 * ${USBMGR_TIME_SCALE:-1})) ]
    check "bus gone: the log says terminated" grep -Eq 'ORB fault mgt daemon is terminated$' "$ORBIIL_LOG_FILE"
    check "bus gone: exit status 0" wait_for "[ \"\$(reaped_status nobus $daemon)\" = 0 ]" 3
fi
# No wait for this reaper: the servers that daemon started outlive it (the
# bus going away ends the daemon without the shutdown) and are the reaper's
# children now; the sandbox's end takes them all.

trap - EXIT
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
