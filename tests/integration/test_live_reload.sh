#!/bin/bash
# Live Samba reload with real smbd. With USBMGR.SAMBA.LIVE_RELOAD=1 (the
# factory settings): a copy to disk A, fed slowly through a FIFO, is under
# way when disk B is plugged; it completes, the file on A equals its source
# and smbd keeps its process id. Then disk A is unplugged while a client
# writes a file on it: A's share is closed ("smbcontrol smbd close-share"),
# A is unmounted, and a copy to disk B under way at the same time completes.
# With the setting 0 the same steps show the full restart: the copy to A is
# cut when B arrives, smbd gets a new process id, and the copy to B is cut
# when A leaves. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/live.XXXXXX)
scale=${USBMGR_TIME_SCALE:-1}
feeders=()

cleanup() {
    local p
    for p in "${feeders[@]}"; do kill "$p" 2>/dev/null || true; done
    leave_sandbox 30 sda sdb
}
trap cleanup EXIT

running() { pgrep -x "$1" >/dev/null; }
smbd_pid() { pgrep -o -x smbd; }
shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }'; }
has_share() { shares | grep -qxF -- "$1"; }
mounted() { awk -v m="$1" '$2 == m { found = 1 } END { exit !found }' /proc/mounts; }
log_count() { grep -cF -- "$1" "$ORBIIL_LOG_FILE" || true; }
minidlna_starts() { log_count "run command : /sbin/minidlnad"; }
set_live() { sed -i "s/^USBMGR\.SAMBA\.LIVE_RELOAD=.*/USBMGR.SAMBA.LIVE_RELOAD=$1/" /var/config/usbmgr.conf; }

# 4 MiB of random bytes, fed in 16 pieces a quarter of a second (stretched
# by the time scale) apart: a copy of about 4 s.
head -c $((4 * 1024 * 1024)) /dev/urandom >"$work/source.bin"
pause=$(awk -v s="$scale" 'BEGIN { printf "%.2f", 0.25 * s }')

# slow_put SHARE NAME: starts a copy of the source to SHARE as NAME, fed
# through a FIFO; prints the client's pid. Its status goes to NAME.rc. SMB2.02
# writes at most 64 KiB at a time: with SMB3 smbclient would read the whole
# FIFO into one 8 MiB write before sending anything.
slow_put() {
    local share=$1 name=$2 fifo="$work/$2.fifo"
    rm -f "$fifo" "$work/$name.rc"
    mkfifo "$fifo"
    (
        for ((i = 0; i < 16; i++)); do
            dd if="$work/source.bin" bs=256k skip="$i" count=1 status=none || exit 0
            sleep "$pause"
        done
    ) >"$fifo" 2>/dev/null &
    feeders+=($!)
    (
        rc=0
        smbclient "//127.0.0.1/$share" -m SMB2_02 -U 'root%root-pw' -c "put $fifo $name" >"$work/$name.out" 2>&1 || rc=$?
        echo "$rc" >"$work/$name.rc"
    ) &
    echo $!
}
# The copy's status once it ended (within a minute).
put_status() {
    wait_for "[ -s '$work/$1.rc' ]" $((60 * scale)) || return 1
    cat "$work/$1.rc"
}

make_disk_image "$work/a.img" 32 ext4 1
make_disk_image "$work/b.img" 32 ext4 1
attach_disk sda "$work/a.img" >/dev/null
attach_disk sdb "$work/b.img" >/dev/null
echo "1:root:root-pw" >/var/config/orbsm.users
check "the factory settings reload Samba in place" grep -qx 'USBMGR.SAMBA.LIVE_RELOAD=1' /var/config/usbmgr.conf

# run LIVE: one daemon run with the setting LIVE; checks named "LIVE: ...".
run() {
    local live=$1 p=on pid_before pid_after status
    [ "$live" = 1 ] || p=off
    set_live "$live"
    rm -f "$ORBIIL_LOG_FILE"
    daemon=$(start_daemon debug)
    check "$p: daemon started" [ -n "$daemon" ]
    check "$p: smbd runs" wait_for "running smbd" 15
    # The start-up's own MiniDLNA start comes before the first arrival.
    check "$p: MiniDLNA started" wait_for '[ "$(minidlna_starts)" -ge 1 ]' 15
    local starts
    starts=$(minidlna_starts)
    usbmgrctl plug --port 1-1 --device sda,sda1 --serial SER-A >/dev/null
    check "$p: disk A is shared" wait_for "has_share sda1" $((30 * scale))
    # The arrival's reload ends with MiniDLNA's start.
    check "$p: disk A's reload is done" wait_for '[ "$(minidlna_starts)" -gt '"$starts"' ]' $((30 * scale))
    rm -f /tmp/disk/sda1/a.bin

    # --- disk B plugged while a copy to disk A is under way
    pid_before=$(smbd_pid)
    slow_put sda1 a.bin >/dev/null
    check "$p: the copy to A is under way" wait_for "[ -s /tmp/disk/sda1/a.bin ]" $((10 * scale))
    starts=$(minidlna_starts)
    usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial SER-B >/dev/null
    check "$p: disk B is shared" wait_for "has_share sdb1" $((30 * scale))
    status=$(put_status a.bin) || status=timeout
    pid_after=$(smbd_pid || true)
    echo "# $p: copy to A ended with $status; smbd $pid_before then $pid_after"
    if [ "$live" = 1 ]; then
        check "$p: the copy to A completes" [ "$status" = 0 ]
        check "$p: the file on A equals its source" cmp -s "$work/source.bin" /tmp/disk/sda1/a.bin
        check "$p: smbd keeps its process id" [ "$pid_before" = "$pid_after" ]
        check "$p: smbd reloaded its configuration in place" log_has "run command : smbcontrol smbd reload-config"
        check "$p: Samba was not started again" [ "$(log_count 'run command : /bin/smbd')" -eq 1 ]
    else
        check "$p: the copy to A is cut by the restart" \
            bash -c "[ '$status' != 0 ] || ! cmp -s '$work/source.bin' /tmp/disk/sda1/a.bin"
        check "$p: smbd has a new process id" [ "$pid_before" != "$pid_after" ]
        check "$p: nothing is reloaded in place" bash -c "! grep -qF smbcontrol '$ORBIIL_LOG_FILE'"
    fi
    check "$p: disk B's reload is done" wait_for '[ "$(minidlna_starts)" -gt '"$starts"' ]' $((30 * scale))

    # --- disk A unplugged while a client writes on it and another on disk B
    rm -f /tmp/disk/sdb1/b.bin
    pid_before=$(smbd_pid)
    slow_put sda1 held.bin >/dev/null
    slow_put sdb1 b.bin >/dev/null
    check "$p: a file is open on A" wait_for "[ -s /tmp/disk/sda1/held.bin ]" $((10 * scale))
    check "$p: the copy to B is under way" wait_for "[ -s /tmp/disk/sdb1/b.bin ]" $((10 * scale))
    usbmgrctl unplug --port 1-1 --device sda,sda1 --serial SER-A >/dev/null
    check "$p: disk A is unmounted" wait_for "! mounted /tmp/disk/sda1" $((30 * scale))
    echo "# $p: A's unmount detached while busy: $(log_count "umount /tmp/disk/sda1 busy, detached") time(s)"
    status=$(put_status b.bin) || status=timeout
    echo "# $p: copy to B ended with $status, the client on A with $(put_status held.bin || echo timeout)"
    if [ "$live" = 1 ]; then
        check "$p: A's share was closed" log_has "run command : smbcontrol smbd close-share sda1"
        check "$p: the client on A lost its session" \
            bash -c "[ '$(put_status held.bin)' != 0 ] || grep -q NT_STATUS '$work/held.bin.out'"
        check "$p: the copy to B completes" [ "$status" = 0 ]
        check "$p: the file on B equals its source" cmp -s "$work/source.bin" /tmp/disk/sdb1/b.bin
        check "$p: smbd still keeps its process id" [ "$pid_before" = "$(smbd_pid)" ]
    else
        check "$p: the copy to B is cut by the stop" \
            bash -c "[ '$status' != 0 ] || ! cmp -s '$work/source.bin' /tmp/disk/sdb1/b.bin"
    fi
    check "$p: disk A's share goes" wait_for "! has_share sda1 && has_share sdb1" $((30 * scale))

    echo "# $p: the servers' commands:"
    grep -F "run command :" "$ORBIIL_LOG_FILE" | grep -E "smb|nmb|killall" | cut -d' ' -f2,7- | sed 's/^/#   /' || true
    stop_daemon 30
    local f
    for f in "${feeders[@]}"; do kill "$f" 2>/dev/null || true; done
    feeders=()
    # The daemon removes the disks' nodes and unmounts at its end: the nodes
    # come back for the next run, as the kernel would make them.
    make_disk_nodes sda >/dev/null 2>&1 || true
    make_disk_nodes sdb >/dev/null 2>&1 || true
}

run 1
run 0

cleanup
trap - EXIT
check "every loop device of the test is detached" [ ! -e /var/lib/sandbox/disks/sda -a ! -e /var/lib/sandbox/disks/sdb ]
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
