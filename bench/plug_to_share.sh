#!/bin/bash
# Plug to share: the time from a disk's arrival event (`usbmgrctl plug`)
# until `smbclient -L` lists its share, with the real daemon and smbd in the
# sandbox, once with USBMGR.SAMBA.LIVE_RELOAD=1 (smbd reloaded in place) and
# once with 0 (the full restart), ROUNDS plugs each, in one run. Prints the
# median of each and their ratio (goal: on / off at most 0.5).
#
#   bench/plug_to_share.sh [BUILD_DIR] [ROUNDS]      (defaults: build, 5)
#
# Needs root; holds /tmp/usbmgr-sandbox.lock for the whole run.
set -euo pipefail

script_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$script_dir/.." && pwd)

# ---------------------------------------------------------------------------
# Inside the sandbox.
if [ "${1:-}" = --inner ]; then
    rounds=$2
    . "$source_dir/scripts/sandbox-lib.sh" || exit 1
    work=$(mktemp -d /tmp/plug.XXXXXX)
    cleanup() { leave_sandbox 30 sda; }
    trap cleanup EXIT

    shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }'; }
    has_share() { shares | grep -qxF -- "$1"; }
    log_count() { grep -cF -- "$1" "$ORBIIL_LOG_FILE" || true; }
    # Waits until no reload has started for 2 s (the deferral is 900 ms),
    # a minute at most.
    settle() {
        local n tries
        for ((tries = 0; tries < 30; tries++)); do
            n=$(log_count "run command : /sbin/minidlnad")
            sleep 2
            [ "$(log_count "run command : /sbin/minidlnad")" -ne "$n" ] || return 0
        done
        echo "plug_to_share.sh: the reloads did not settle within a minute" >&2
        return 1
    }
    median() { LC_ALL=C sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

    make_disk_image "$work/disk.img" 16 ext4 1
    attach_disk sda "$work/disk.img" >/dev/null

    # measure LIVE: prints the ROUNDS plug-to-share times in ms, one a line.
    measure() {
        sed -i "s/^USBMGR\.SAMBA\.LIVE_RELOAD=.*/USBMGR.SAMBA.LIVE_RELOAD=$1/" /var/config/usbmgr.conf
        start_daemon >/dev/null
        wait_for "pgrep -x smbd" 15 >/dev/null
        wait_for "shares >/dev/null" 15 >/dev/null
        settle
        local i t0 polls starts listed_at
        for ((i = 0; i < rounds; i++)); do
            starts=$(log_count "run command : /sbin/minidlnad")
            t0=$(now_us)
            usbmgrctl plug --port 1-1 --device sda,sda1 --serial BENCH-1 >/dev/null
            # smbd rereads a changed file for a new connection by itself, so
            # the old smbd of a restart may list the share for a moment
            # before it is killed. What counts is the listing that lasts: from
            # the first poll of the run of polls that list it up to the end
            # of the reload (MiniDLNA's start, which follows Samba's).
            # Polled every 20 ms, for 30 s at most.
            listed_at=
            for ((polls = 0; polls < 1500; polls++)); do
                if has_share sda1; then
                    [ -n "$listed_at" ] || listed_at=$(now_us)
                    [ "$(log_count "run command : /sbin/minidlnad")" -le "$starts" ] || break
                else
                    listed_at=
                fi
                sleep 0.02
            done
            [ "$polls" -lt 1500 ] || {
                echo "plug_to_share.sh: sda1 not served for good 30 s after its arrival" >&2
                return 1
            }
            echo $(((listed_at - t0) / 1000))
            settle
            usbmgrctl unplug --port 1-1 --device sda,sda1 --serial BENCH-1 >/dev/null
            wait_for "! has_share sda1" 30 >/dev/null
            settle
            make_disk_nodes sda >/dev/null
        done
        stop_daemon 30 >/dev/null
        make_disk_nodes sda >/dev/null 2>&1 || true
    }

    measure 1 >"$work/on"
    measure 0 >"$work/off"
    on=$(median <"$work/on")
    off=$(median <"$work/off")
    echo "live reload on : $(tr '\n' ' ' <"$work/on")ms, median $on ms"
    echo "live reload off: $(tr '\n' ' ' <"$work/off")ms, median $off ms"
    awk -v a="$on" -v b="$off" 'BEGIN { printf "ratio on/off: %.2f (goal at most 0.50)\n", a / b }'
    rm -rf "$work"
    exit 0
fi

# ---------------------------------------------------------------------------
# On the host.
usage() {
    echo "usage: $0 [BUILD_DIR] [ROUNDS]" >&2
    exit 2
}
[ $# -le 2 ] || usage
build_dir=${1:-$source_dir/build}
rounds=${2:-5}
[[ $rounds =~ ^[1-9][0-9]*$ ]] || usage
if [ "$(id -u)" -ne 0 ]; then
    echo "plug_to_share.sh: must run as root (loop disks and a namespace sandbox)" >&2
    exit 2
fi
# -o: the lock stays with flock itself, not with the daemon and servers.
exec flock -o /tmp/usbmgr-sandbox.lock \
    "$source_dir/scripts/sandbox.sh" --build "$build_dir" -- bash "$script_dir/plug_to_share.sh" --inner "$rounds"
