#!/usr/bin/env bash
# The gateway's init script: start returns once the daemon's parent has
# exited (the child is ready), stop sends SIGTERM and waits for the orderly
# shutdown to end, restart does both, status tells. A stand-in daemon named
# usbmgrd plays the fork and a shutdown that takes a second. Runs in private
# PID and mount namespaces, so no other usbmgrd on this machine is seen.
#
#   test_init_script.sh BUILD_DIR
set -euo pipefail
build=$1
if [ "${2:-}" != --inner ]; then
    exec unshare --mount --pid --fork --mount-proc --propagation private bash "$0" "$build" --inner
fi
script=$build/etc/init.d/usbmgrd-init
mount -t tmpfs test-tmp /tmp
failures=0
fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

sh -n "$script" || fail "sh -n"
if command -v busybox >/dev/null; then
    busybox sh -n "$script" || fail "busybox sh -n"
fi

# The stand-in: a shell under the daemon's name. Its parent exits once the
# child runs; the child's SIGTERM takes a second, then marks its end. The
# child waits by a builtin read on a FIFO that never speaks, not by running
# sleep: a fork of it would carry the daemon's name for a moment and be
# seen as a second daemon.
cp "$(command -v bash)" /tmp/usbmgrd
mkfifo /tmp/never
cat >/tmp/daemon.sh <<'INNER'
(
    exec 3<>/tmp/never
    trap 'read -r -t 1 -u 3; echo done >/tmp/shutdown; exit 0' TERM
    while :; do read -r -t 0.1 -u 3 || :; done
) </dev/null >/dev/null 2>&1 &
exit 0
INNER
cat >/tmp/daemon <<'INNER'
#!/bin/sh
exec /tmp/usbmgrd /tmp/daemon.sh
INNER
chmod +x /tmp/daemon
export USBMGRD_DAEMON=/tmp/daemon USBMGRD_SETUP=/bin/true USBMGRD_STOP_SECONDS=10

# Under the system's sh and, where installed, BusyBox's (the gateway's).
shells=(sh)
command -v busybox >/dev/null && shells+=("busybox sh")
for run in "${shells[@]}"; do
    echo "==== under $run"
    rm -f /tmp/shutdown
    echo "== status before start"
    rc=0
    $run "$script" status || rc=$?
    [ "$rc" = 3 ] || fail "status of a stopped daemon answered $rc"

    echo "== start"
    $run "$script" start || fail "start failed"
    pid=$(pidof usbmgrd) || fail "no usbmgrd after start"
    $run "$script" status || fail "status of a running daemon"
    $run "$script" start | grep -q 'already runs' || fail "a second start did not see the first"
    [ "$(pidof usbmgrd)" = "$pid" ] || fail "a second start started another daemon"

    echo "== stop waits for the orderly shutdown"
    $run "$script" stop || fail "stop failed"
    [ -f /tmp/shutdown ] || fail "stop returned before the shutdown ended"
    [ -z "$(pidof usbmgrd || true)" ] || fail "usbmgrd still runs after stop"

    echo "== restart"
    rm -f /tmp/shutdown
    $run "$script" start >/dev/null
    first=$(pidof usbmgrd)
    $run "$script" restart || fail "restart failed"
    [ -f /tmp/shutdown ] || fail "restart did not wait for the shutdown"
    second=$(pidof usbmgrd) || fail "no usbmgrd after restart"
    [ "$first" != "$second" ] || fail "restart kept the old daemon"
    $run "$script" stop >/dev/null
done

[ "$failures" -eq 0 ] || exit 1
echo "init script: every check passed"
