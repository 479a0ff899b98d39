#!/bin/bash
# The whole story on a fresh Debian machine, as root: installs what is
# needed, builds, and runs a narrated scenario with the real daemon inside
# the namespace sandbox: a private bus, an ext4 disk with two partitions and
# an NTFS disk plugged in and out through the hot-plug stand-in, the change
# notifications, the history file, and the shutdown that unmounts all.
#
#   scripts/demo.sh [--build BUILD_DIR] [--skip-build]
#
# BUILD_DIR defaults to build/ in the source tree. Exits 0 when every step
# worked, non-zero at the first step that failed.
set -euo pipefail

script_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$script_dir/.." && pwd)

# ---------------------------------------------------------------------------
# Inside the sandbox: the scenario.
if [ "${1:-}" = --inner ]; then
    . "$script_dir/sandbox-lib.sh" || exit 1

    heading() { echo; echo "== $*"; }
    fail() {
        echo "demo: FAILED: $*" >&2
        exit 1
    }
    trap 'echo "demo: FAILED at: $BASH_COMMAND" >&2' ERR

    demo=/tmp/demo
    mkdir -p "$demo"
    count_kind() { grep -c " kind $1 " "$demo/monitor.out" || true; }

    heading "The private message bus"
    echo "ORBIIL_BUS_ADDRESS=$ORBIIL_BUS_ADDRESS"
    busctl --address="$ORBIIL_BUS_ADDRESS" list --no-legend | awk '{print $1}' | grep -v '^:' || true

    heading "Starting usbmgrd (log level debug)"
    pid=$(start_daemon debug) || fail "usbmgrd did not start"
    echo "usbmgrd runs as pid $pid and owns org.orbiil.USBMGR_DMON"

    heading "busctl introspect org.orbiil.USBMGR_DMON /org/orbiil/USBMGR_DMON"
    busctl --address="$ORBIIL_BUS_ADDRESS" introspect org.orbiil.USBMGR_DMON /org/orbiil/USBMGR_DMON

    heading "usbmgrctl call 14 (number of storage services)"
    usbmgrctl call 14

    heading "Watching the daemon's notifications (usbmgrctl monitor in the background)"
    usbmgrctl monitor >"$demo/monitor.out" 2>"$demo/monitor.err" &
    monitor=$!
    wait_for "grep -q monitoring '$demo/monitor.err'" 5 || fail "the monitor did not subscribe"
    cat "$demo/monitor.err"

    heading "Making disk images: ext4 with two partitions, NTFS with one"
    make_disk_image "$demo/ext4.img" 64 ext4 2
    make_disk_image "$demo/ntfs.img" 32 ntfs 1
    loop_a=$(attach_disk sda "$demo/ext4.img")
    loop_b=$(attach_disk sdb "$demo/ntfs.img")
    echo "sda is $loop_a, sdb is $loop_b; their nodes:"
    ls -l /var/dev

    heading "Plugging in the ext4 disk (serial DEMO-EXT4) and the NTFS disk (serial DEMO-NTFS)"
    usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial DEMO-EXT4 --vendor ACME --product "Demo Stick"
    usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial DEMO-NTFS --vendor ACME --product "Demo Drive"
    wait_for '[ "$(count_kind 0)" -ge 2 ]' 10 || fail "no arrival notifications"
    for m in /tmp/disk/sda1 /tmp/disk/sda2 /tmp/disk/sdb1; do
        findmnt -rn --mountpoint "$m" >/dev/null || fail "$m is not mounted"
    done

    heading "mount | grep /tmp/disk"
    mount | grep /tmp/disk

    heading "ls /var/dev"
    ls -l /var/dev

    heading "cat /var/config/tr140.conf (the history file)"
    cat /var/config/tr140.conf
    cp /var/config/tr140.conf "$demo/history.before"

    heading "Notifications so far (event 0, change kinds)"
    cat "$demo/monitor.out"

    heading "Unplugging the ext4 disk"
    usbmgrctl unplug --port 1-1 --device sda,sda1,sda2 --serial DEMO-EXT4
    wait_for '[ "$(count_kind 1)" -ge 1 ]' 10 || fail "no removal notification"
    for m in /tmp/disk/sda1 /tmp/disk/sda2; do
        ! findmnt -rn --mountpoint "$m" >/dev/null || fail "$m is still mounted"
    done

    heading "mount | grep /tmp/disk"
    mount | grep /tmp/disk

    heading "cat /var/config/tr140.conf (unchanged: the history outlives the removal)"
    cat /var/config/tr140.conf
    cmp -s "$demo/history.before" /var/config/tr140.conf || fail "the history file changed"

    heading "Notifications (the last one is the removal, kind 1)"
    cat "$demo/monitor.out"

    heading "Stopping usbmgrd with SIGTERM"
    stop_daemon 30 || fail "usbmgrd did not stop"
    echo "usbmgrd has ended"
    kill "$monitor" 2>/dev/null || true
    wait "$monitor" 2>/dev/null || true

    heading "mount | grep /tmp/disk (nothing stays mounted)"
    if mount | grep /tmp/disk; then
        fail "something stayed mounted"
    fi
    echo "(nothing mounted under /tmp/disk)"
    echo "/var/dev holds: $(ls -A /var/dev | tr '\n' ' ')"
    [ -z "$(ls -A /var/dev)" ] || fail "/var/dev is not empty"

    heading "The daemon's log, last 40 lines ($ORBIIL_LOG_FILE)"
    tail -n 40 "$ORBIIL_LOG_FILE"

    detach_disk sdb || true
    [ ! -e /var/lib/sandbox/disks/sda ] || detach_disk sda || true
    heading "Demo finished: every step worked"
    exit 0
fi

# ---------------------------------------------------------------------------
# On the host: dependencies, build, then the scenario in the sandbox.
build_dir="$source_dir/build"
skip_build=0
while [ $# -gt 0 ]; do
    case "$1" in
        --build)
            [ $# -ge 2 ] || { echo "usage: $0 [--build BUILD_DIR] [--skip-build]" >&2; exit 2; }
            build_dir=$2
            shift 2
            ;;
        --skip-build)
            skip_build=1
            shift
            ;;
        *)
            echo "usage: $0 [--build BUILD_DIR] [--skip-build]" >&2
            exit 2
            ;;
    esac
done

if [ "$(id -u)" -ne 0 ]; then
    echo "demo.sh: must run as root (it installs packages and mounts disks in a sandbox)" >&2
    exit 2
fi

cd "$source_dir"
echo "== Installing the packages the demo needs"
"$script_dir/install-deps.sh"

if [ "$skip_build" -eq 0 ]; then
    echo "== Configuring and building into $build_dir"
    cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build "$build_dir" -j2
fi

echo "== Running the scenario inside the sandbox"
"$script_dir/sandbox.sh" --build "$build_dir" -- bash "$script_dir/demo.sh" --inner
