#!/bin/bash
# The whole story on a fresh Debian machine, as root: installs what is
# needed, builds, and runs a narrated scenario with the real daemon inside
# the namespace sandbox: a private bus, Samba and MiniDLNA enabled as in the
# factory settings, an ext4 disk with two partitions and an NTFS disk plugged
# in and out through the hot-plug stand-in, the change notifications, the
# history file, the storage service tree read over the bus, the Samba shares
# listed and a file read through Samba, and the shutdown that unmounts all.
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
    setting() { sed -n "s/^$1=//p" /var/config/usbmgr.conf; }
    # The share names smbclient lists anonymously, one a line.
    shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }' | LC_ALL=C sort; }
    shares_are() { [ "$(shares | tr '\n' ' ')" = "$1" ]; }
    minidlna_starts() { grep -cF "run command : /sbin/minidlnad" "$ORBIIL_LOG_FILE" || true; }
    # read_share SHARE USER%PASS FILE EXPECTED: shows the command and the file
    # read through Samba, and fails unless the file is EXPECTED.
    read_share() {
        local got
        echo "\$ smbclient //127.0.0.1/$1 -U '$2' -c 'get $3 -'"
        got=$(smbclient "//127.0.0.1/$1" -U "$2" -c "get $3 -" 2>/dev/null) || fail "reading $1 through Samba failed"
        echo "$got"
        echo "$got" | grep -qx "$4" || fail "$1's file did not come back through Samba"
    }

    heading "Factory settings: Samba and MiniDLNA enabled (/var/config/usbmgr.conf)"
    grep -E '^USBMGR\.(SAMBA|MINIDLNA)\.(ENABLE|CONF_DIR|FRIENDLY_NAME|PORT|USERNAME_MAP)=' /var/config/usbmgr.conf
    [ "$(setting USBMGR.SAMBA.ENABLE)" = 1 ] || fail "the factory settings do not enable Samba"
    [ "$(setting USBMGR.MINIDLNA.ENABLE)" = 1 ] || fail "the factory settings do not enable MiniDLNA"

    heading "A gateway account and a stored Samba user"
    # The gateway's account file (flag:name:password) and one Samba user in
    # the settings; the daemon maps every stored Samba user to the gateway
    # account named by USBMGR.SAMBA.USERNAME_MAP, whose password Samba checks.
    echo "1:root:demo-pw" >/var/config/orbsm.users
    printf '%s\n' USBMGR.SAMBA.USER_NAME.0=alice USBMGR.SAMBA.USER_PASSWORD.0=alice-pw \
        USBMGR.SAMBA.USER_ENABLE.0=1 >>/var/config/usbmgr.conf
    echo "/var/config/orbsm.users: 1:root:demo-pw"
    grep '^USBMGR\.SAMBA\.USER_' /var/config/usbmgr.conf

    heading "The private message bus"
    echo "ORBIIL_BUS_ADDRESS=$ORBIIL_BUS_ADDRESS"
    busctl --address="$ORBIIL_BUS_ADDRESS" list --no-legend | awk '{print $1}' | grep -v '^:' || true

    heading "Starting usbmgrd (log level debug)"
    pid=$(start_daemon debug) || fail "usbmgrd did not start"
    echo "usbmgrd runs as pid $pid and owns org.orbiil.USBMGR_DMON"

    heading "The sharing servers started with the daemon"
    wait_for "pgrep -x smbd && pgrep -x nmbd && pgrep -x minidlnad" 20 || fail "smbd, nmbd or minidlnad did not start"
    for p in smbd nmbd minidlnad; do echo "$p runs as pid $(pgrep -o -x "$p")"; done

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
    minidlna_before=$(minidlna_starts)
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

    heading "usbmgrctl tree (the StorageService model, read over the bus with commands 14 to 23)"
    usbmgrctl tree

    heading "The servers reload once, about 900 ms after the last arrival"
    wait_for "shares_are 'sda1 sda2 sdb1 '" 30 || fail "the shares sda1, sda2 and sdb1 did not appear"
    wait_for '[ "$(minidlna_starts)" -gt '"$minidlna_before"' ]' 30 || fail "MiniDLNA was not started again"
    echo "Samba shares one folder per enabled volume; MiniDLNA serves $(setting USBMGR.MINIDLNA.MEDIA_DIR)"
    echo "smb.conf ($(setting USBMGR.SAMBA.CONF_DIR)), the share sections:"
    awk '/^\[/ && $0 != "[global]" { shown = 1 } shown' "$(setting USBMGR.SAMBA.CONF_DIR)"

    heading "Samba's users and the user map"
    map=$(setting USBMGR.SAMBA.USERNAME_MAP_DIR)
    echo "Samba's password file /var/samba/smbpasswd knows: $(cut -d: -f1 /var/samba/smbpasswd | LC_ALL=C sort | tr '\n' ' ')"
    echo "the user map $map: $(cat "$map")"
    grep -qx "root = alice" "$map" || fail "the user map does not send alice to root"

    heading "smbclient -L 127.0.0.1 -N (the share listing)"
    smbclient -L 127.0.0.1 -N 2>/dev/null | sed -n '/Sharename/,/^$/p'

    heading "A file read through Samba"
    echo "Hello from the ext4 disk" >/tmp/disk/sda1/hello.txt
    echo "Hello from the NTFS disk" >/tmp/disk/sdb1/hello.txt
    echo "(alice is mapped to the gateway account root, so she logs in with root's password)"
    read_share sda1 'alice%demo-pw' hello.txt "Hello from the ext4 disk"
    read_share sdb1 'alice%demo-pw' hello.txt "Hello from the NTFS disk"
    echo "\$ smbclient //127.0.0.1/sda1 -U 'alice%wrong' -c 'get hello.txt -'"
    if smbclient //127.0.0.1/sda1 -U 'alice%wrong' -c 'get hello.txt -' >"$demo/wrong.out" 2>&1; then
        fail "a wrong password was accepted"
    fi
    grep -o 'NT_STATUS_[A-Z_]*' "$demo/wrong.out" | head -n 1 || echo "(refused)"

    heading "MiniDLNA's description (http://127.0.0.1:$(setting USBMGR.MINIDLNA.PORT)/rootDesc.xml)"
    wait_for "curl -s --max-time 2 http://127.0.0.1:$(setting USBMGR.MINIDLNA.PORT)/rootDesc.xml | grep -q friendlyName" 20 ||
        fail "minidlnad does not answer"
    curl -s --max-time 2 "http://127.0.0.1:$(setting USBMGR.MINIDLNA.PORT)/rootDesc.xml" | grep -o '<friendlyName>[^<]*</friendlyName>'

    # Table slots of a volume or a disk by the name the model shows.
    volume_slot() {
        local s
        for s in $(seq 0 24); do
            usbmgrctl volume 0 "$s" --json | grep -q "\"Name\":\"$1\"" && { echo "$s"; return 0; }
        done
        return 1
    }
    disk_slot() {
        local s
        for s in $(seq 0 24); do
            usbmgrctl disk 0 "$s" --json | grep -q "\"SerialNumber\":\"$1\"" && { echo "$s"; return 0; }
        done
        return 1
    }
    samba_reloads() { grep -cF "run command : /bin/smbd" "$ORBIIL_LOG_FILE" || true; }

    heading "Changing the storage service over the bus: the shares before"
    shares | sed 's/^/  /'

    slot=$(volume_slot sda2) || fail "sda2 has no table slot"
    heading "Renaming volume sda2 (table slot $slot) to Photos: usbmgrctl volume-set 0 $slot 1 Photos (command 31)"
    reloads=$(samba_reloads)
    usbmgrctl volume-set 0 "$slot" 1 Photos
    wait_for '[ "$(count_kind 9)" -ge 1 ]' 10 || fail "no volume change notification (kind 9)"
    echo "kind 9 (USBMGR_TR140_LOGICAL_VOLUME_CHANGE) was sent after the Samba reload"
    [ "$(samba_reloads)" -gt "$reloads" ] || fail "Samba was not reloaded"
    grep -F "USBMGR.0.NAME.1=" /var/config/tr140.conf

    heading "Adding a Samba user over the bus: usbmgrctl account-add bob bob-pw 1 (command 27)"
    usbmgrctl account-add bob bob-pw 1
    wait_for '[ "$(count_kind 5)" -ge 1 ]' 10 || fail "no user notification (kind 5)"
    echo "kind 5 (USBMGR_TR140_ADD_USER) was sent at once"
    grep '^USBMGR\.SAMBA\.USER_' /var/config/usbmgr.conf
    echo "Samba's password file knows: $(cut -d: -f1 /var/samba/smbpasswd | LC_ALL=C sort | tr '\n' ' ')"
    echo "the user map $map: $(cat "$map")"
    grep -q '^bob:' /var/samba/smbpasswd || fail "bob is not in Samba's password file"
    echo "\$ usbmgrctl user 0 1 (command 19 reads the settings)"
    usbmgrctl user 0 1

    heading "The shares after (the volume is shared as Photos)"
    wait_for "shares_are 'Photos sda1 sdb1 '" 30 || fail "the share was not renamed"
    smbclient -L 127.0.0.1 -N 2>/dev/null | sed -n '/Sharename/,/^$/p'
    echo "Holiday photo" >/tmp/disk/sda2/photo.txt
    echo "(bob is mapped to the gateway account root too, so he logs in with root's password)"
    read_share Photos 'bob%demo-pw' photo.txt "Holiday photo"

    slot=$(disk_slot DEMO-NTFS) || fail "the NTFS disk has no table slot"
    heading "Safe removal of the NTFS disk (table slot $slot): usbmgrctl safe-remove 0 $slot (command 36)"
    usbmgrctl safe-remove 0 "$slot"
    echo "(the answer comes at once; a worker thread stops the servers, unmounts and forgets the disk)"
    wait_for '[ "$(count_kind 14)" -ge 1 ]' 30 || fail "no safe removal notification (kind 14)"
    echo "kind 14 (USBMGR_TR140_STORAGE_SAFE_REMOVE) was sent"
    ! findmnt -rn --mountpoint /tmp/disk/sdb1 >/dev/null || fail "/tmp/disk/sdb1 is still mounted"
    echo "/tmp/disk/sdb1 is unmounted; mounted now:"
    mount | grep /tmp/disk
    wait_for "shares_are 'Photos sda1 '" 30 || fail "the NTFS disk's share did not go"
    echo "the shares now: $(shares | tr '\n' ' ')"
    grep -q "SERIAL_NUMBER=DEMO-NTFS" /var/config/tr140.conf || fail "the history forgot the NTFS disk"
    echo "the history file still remembers DEMO-NTFS"

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

    heading "mount | grep /tmp/disk (nothing left)"
    mount | grep /tmp/disk || echo "(nothing mounted under /tmp/disk)"

    heading "cat /var/config/tr140.conf (unchanged: the history outlives the removal)"
    cat /var/config/tr140.conf
    cmp -s "$demo/history.before" /var/config/tr140.conf || fail "the history file changed"

    heading "Notifications (the last one is the removal, kind 1)"
    cat "$demo/monitor.out"

    heading "smbclient -L 127.0.0.1 -N after the reload (the ext4 disk's shares are gone)"
    wait_for "shares_are ''" 30 || fail "the ext4 disk's shares did not go"
    smbclient -L 127.0.0.1 -N 2>/dev/null | sed -n '/Sharename/,/^$/p'

    heading "usbmgrctl service 0 (command 15: no disk and no volume left)"
    usbmgrctl service 0

    heading "Stopping usbmgrd with SIGTERM"
    stop_daemon 30 || fail "usbmgrd did not stop"
    echo "usbmgrd has ended"
    for p in smbd nmbd minidlnad; do
        ! pgrep -x "$p" >/dev/null || fail "$p still runs"
    done
    echo "smbd, nmbd and minidlnad have ended with it"
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
"$script_dir/install-deps.sh" demo

if [ "$skip_build" -eq 0 ]; then
    # Only what the scenario runs: the daemon, the client, and the host
    # platform (its libraries follow as the programs' dependencies).
    echo "== Configuring and building into $build_dir"
    cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DUSBMGR_TESTS=OFF -DUSBMGR_BENCH=OFF
    cmake --build "$build_dir" -j2 --target usbmgrd usbmgrctl orbcm_util
fi

echo "== Running the scenario inside the sandbox"
"$script_dir/sandbox.sh" --build "$build_dir" -- bash "$script_dir/demo.sh" --inner
