#!/bin/bash
# The daemon's footprint on the gateway, as a markdown table: the stripped
# size of usbmgrd (a stripped copy; the MIPS build's too when it and
# mips-linux-gnu-strip are there), and its unique set size (USS:
# Private_Clean + Private_Dirty of smaps_rollup) in the sandbox with Samba and
# MiniDLNA enabled, idle (no disk) and with 25 volumes mounted and shared
# (the device tables' limit: 5 disks of 5 partitions, every partition node
# made of one loop disk's partition). Then the private pages of the loaded
# daemon by mapping, largest first.
#
#   bench/footprint.sh [BUILD_DIR] [MIPS_BUILD_DIR]    (defaults: build, build-mips)
#
# Goals: at most 400 KiB stripped, 2 MiB USS idle, 3 MiB USS with 25
# volumes; exits non-zero when one is missed. Needs root; holds
# /tmp/usbmgr-sandbox.lock while the sandbox runs.
set -euo pipefail

script_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$script_dir/.." && pwd)

size_goal_bytes=$((400 * 1024))
idle_goal_kib=2048
loaded_goal_kib=3072

# "yes" or "NO" for FIGURE <= GOAL.
met() { if [ "$1" -le "$2" ]; then echo yes; else echo NO; fi; }

# ---------------------------------------------------------------------------
# Inside the sandbox: prints the USS rows, then the breakdown.
if [ "${1:-}" = --inner ]; then
    . "$source_dir/scripts/sandbox-lib.sh" || exit 1

    work=$(mktemp -d /tmp/footprint.XXXXXX)
    settings=/var/config/usbmgr.conf
    disks=(sda sdb sdc sdd sde)
    parts=5
    monitor_pid=""

    cleanup() {
        [ -z "$monitor_pid" ] || kill "$monitor_pid" 2>/dev/null || true
        stop_daemon 30 >/dev/null 2>&1 || true
        local d
        for d in "${disks[@]:1}"; do rm -f "/var/dev/$d" "/var/dev/$d"[0-9]*; done
        [ ! -e /var/lib/sandbox/disks/sda ] || detach_disk sda >/dev/null 2>&1 || true
    }
    trap cleanup EXIT
    fail() {
        echo "footprint: FAILED: $*" >&2
        tail -n 30 "$ORBIIL_LOG_FILE" >&2 || true
        exit 1
    }
    setting() { sed -n "s/^$1=//p" "$settings"; }
    mount_root=$(setting USBMGR.MOUNT_DISK_PATH)
    mounts() { awk -v root="$mount_root/" 'index($2, root) == 1' /proc/mounts | wc -l; }
    shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk"' | wc -l; }
    row() {
        local uss
        uss=$(proc_idle_uss_kib "$daemon")
        echo "| USS, $1 (RSS $(proc_rss_kib "$daemon") KiB, $(proc_fds "$daemon") descriptors, $(proc_threads "$daemon") threads) | $uss KiB | $2 KiB | $(met "$uss" "$2") |"
        [ "$uss" -le "$2" ] || bad=1
    }
    bad=0

    make_disk_image "$work/disk.img" 16 ext4 1
    attach_disk sda "$work/disk.img" >/dev/null
    for d in "${disks[@]}"; do alias_disk_nodes sda "$d" "$parts"; done

    # The gateway's log level (none given: ERROR).
    daemon=$(start_daemon "${FOOTPRINT_LOG_LEVEL:-error}") || fail "usbmgrd did not start"
    wait_for "pgrep -x smbd && pgrep -x nmbd && pgrep -x minidlnad" 20 || fail "the servers did not start"
    sleep 3
    row "idle, sharing on, no disk" "$idle_goal_kib"

    start_monitor || fail "the monitor did not subscribe"
    for i in "${!disks[@]}"; do
        d=${disks[$i]}
        list=$d
        for ((p = 1; p <= parts; p++)); do list+=",$d$p"; done
        usbmgrctl plug --port "1-$((i + 1))" --device "$list" --serial "FOOT-$d" --vendor ACME --product Stick >/dev/null
    done
    # The notifications follow the servers' reload.
    wait_for '[ "$(count_kind 0)" -ge '"${#disks[@]}"' ]' 120 || fail "no kind-0 notification for the five disks"
    wait_for '[ "$(shares)" -eq 25 ]' 60 || fail "Samba does not list 25 shares"
    wait_for "pgrep -x minidlnad" 30 || fail "minidlnad does not run"
    # The monitor is a bus client too: the library pages it touches would be
    # shared with it and drop out of the daemon's USS.
    kill "$monitor_pid" 2>/dev/null || true
    monitor_pid=""
    sleep 3
    [ "$(mounts)" -eq 25 ] || fail "$(mounts) volumes mounted, not 25"
    smb_conf=$(setting USBMGR.SAMBA.CONF_DIR)
    dlna_conf=$(setting USBMGR.MINIDLNA.CONF_DIR)
    sections=$(grep '^\[' "$smb_conf" | grep -vcx '\[global\]' || true)
    media=$(sed -n 's/^media_dir=//p' "$dlna_conf" | tr '\n' ' ')
    row "25 volumes mounted and shared" "$loaded_goal_kib"
    echo
    echo "With 25 volumes: $(mounts) mounts under $mount_root; $smb_conf has $sections share sections, smbclient lists $(shares) disk shares; $dlna_conf serves media_dir=${media% } ($(find "$mount_root" -mindepth 1 -maxdepth 1 -type d | wc -l) volume folders in it)."
    echo
    echo "Private pages of the daemon with 25 volumes, by mapping:"
    echo
    echo "| KiB | mapping |"
    echo "|---|---|"
    proc_private_by_mapping "$daemon" | awk '{ print "| " $1 " | " $2 " |" }'
    echo
    echo "Its nameless mappings with private pages ($(proc_threads "$daemon") threads: a thread's stack is one of"
    echo "the largest, reserved whole but private only where touched; a thread's malloc arena another):"
    echo
    echo "| size KiB | private KiB | permissions |"
    echo "|---|---|---|"
    awk '
        /^[0-9a-f]+-[0-9a-f]+ / { anon = ($6 == ""); perms = $2; next }
        anon && $1 == "Size:" { size = $2 }
        anon && $1 == "Private_Clean:" { clean = $2 }
        anon && $1 == "Private_Dirty:" { if (clean + $2 > 0) print size, clean + $2, perms }
    ' "/proc/$daemon/smaps" | sort -rn | awk '{ print "| " $1 " | " $2 " | " $3 " |" }'

    stop_daemon 30 || fail "usbmgrd did not stop"
    cleanup
    trap - EXIT
    rm -rf "$work"
    exit "$bad"
fi

# ---------------------------------------------------------------------------
# On the host.
[ $# -le 2 ] || {
    echo "usage: $0 [BUILD_DIR] [MIPS_BUILD_DIR]" >&2
    exit 2
}
build_dir=${1:-$source_dir/build}
mips_dir=${2:-$source_dir/build-mips}
[ -x "$build_dir/usbmgrd" ] || {
    echo "footprint.sh: no $build_dir/usbmgrd" >&2
    exit 2
}
if [ "$(id -u)" -ne 0 ]; then
    echo "footprint.sh: must run as root (loop disks and a namespace sandbox)" >&2
    exit 2
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
bad=0
# size_row WHAT BINARY STRIP
size_row() {
    cp "$2" "$tmp/usbmgrd"
    "$3" "$tmp/usbmgrd"
    local bytes
    bytes=$(stat -c %s "$tmp/usbmgrd")
    echo "| usbmgrd stripped, $1 | $bytes bytes ($((bytes / 1024)) KiB) | 400 KiB | $(met "$bytes" "$size_goal_bytes") |"
    [ "$bytes" -le "$size_goal_bytes" ] || bad=1
}

echo "Footprint of usbmgrd, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo "| what | figure | goal | met |"
echo "|---|---|---|---|"
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$build_dir/CMakeCache.txt" 2>/dev/null || true)
size_row "host $(uname -m) (${build_type:-?})" "$build_dir/usbmgrd" strip
if [ -x "$mips_dir/usbmgrd" ] && command -v mips-linux-gnu-strip >/dev/null; then
    build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$mips_dir/CMakeCache.txt" 2>/dev/null || true)
    size_row "MIPS32 big-endian (${build_type:-?})" "$mips_dir/usbmgrd" mips-linux-gnu-strip
fi
rc=0
flock -o /tmp/usbmgr-sandbox.lock \
    "$source_dir/scripts/sandbox.sh" --build "$build_dir" -- bash "$script_dir/footprint.sh" --inner || rc=$?
[ "$bad" -eq 0 ] || rc=1
exit "$rc"
