#!/bin/bash
# A burst of disk arrivals with the factory settings (Samba and MiniDLNA
# enabled): ten disks plugged within 5 s are all mounted and shared after
# exactly one Samba and one MiniDLNA reload. The ring of change kinds holds
# at most nine pending kinds, and the tenth write leaves it empty (the
# daemon's overflow rule, kept on purpose): the ten arrivals send no kind-0
# notification, and the ten removals after them no kind-1 either. A burst of
# nine sends its nine kind-0 notifications, again after one reload of each
# server. Runs inside scripts/sandbox.sh.
#
# Loop devices are few: the ten disks are one small image on one loop
# device, the nodes of sdb..sdj pointing at the same blocks as sda's, so
# that each "disk" is mounted (the same ext4 file system at ten folders).
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/burst.XXXXXX)
disks=(sda sdb sdc sdd sde sdf sdg sdh sdi sdj)
monitor=""

cleanup() {
    [ -z "$monitor" ] || kill "$monitor" 2>/dev/null || true
    stop_daemon 30 >/dev/null 2>&1 || true
    local d
    for d in "${disks[@]:1}"; do rm -f "/var/dev/$d" "/var/dev/${d}1"; done
    # detach_disk unmounts whatever still uses the loop device's blocks.
    [ ! -e /var/lib/sandbox/disks/sda ] || detach_disk sda >/dev/null 2>&1 || true
}
trap cleanup EXIT

log_count() { grep -cF -- "$1" "$ORBIIL_LOG_FILE" || true; }
# A Samba reload: smbd started again, or reloaded in place (the factory
# settings' live reload).
samba_starts() { echo $(($(log_count "run command : /bin/smbd") + $(log_count "run command : smbcontrol smbd reload-config"))); }
minidlna_starts() { log_count "run command : /sbin/minidlnad"; }
kinds() { grep -c " kind $1 " "$work/monitor.out" || true; }
shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }'; }
now_ms() { echo $(($(date +%s%N) / 1000000)); }

# plug FIRST COUNT / unplug FIRST COUNT: events for disks[FIRST..FIRST+COUNT-1].
plug() {
    local i d
    for ((i = $1; i < $1 + $2; i++)); do
        d=${disks[$i]}
        usbmgrctl plug --port "1-$((i + 1))" --device "$d,${d}1" --serial "BURST-$d" --vendor ACME --product Stick >/dev/null
    done
}
unplug() {
    local i d
    for ((i = $1; i < $1 + $2; i++)); do
        d=${disks[$i]}
        usbmgrctl unplug --port "1-$((i + 1))" --device "$d,${d}1" --serial "BURST-$d" >/dev/null
    done
}
mounted() { awk -v m="$1" '$2 == m { found = 1 } END { exit !found }' /proc/mounts; }
all_mounted() {
    local i
    for ((i = $1; i < $1 + $2; i++)); do mounted "/tmp/disk/${disks[$i]}1" || return 1; done
}
# On a failed mount check: what the daemon logged about the first disk missing.
explain_mounts() {
    local i d
    for ((i = $1; i < $1 + $2; i++)); do
        d=${disks[$i]}
        mounted "/tmp/disk/${d}1" && continue
        echo "# ${d}1 is not mounted; the daemon's log about it:"
        grep -F -e "${d}1" -e "$d," "$ORBIIL_LOG_FILE" | grep -v "EVT BUFFER" | tail -n 25 | sed 's/^/#   /'
        return
    done
}
mount_points() { awk '$2 ~ "^/tmp/disk/" { print $2 }' /proc/mounts | LC_ALL=C sort | tr '\n' ' '; }
none_mounted() { ! awk '{ print $2 }' /proc/mounts | grep -q '^/tmp/disk/'; }

# Waits for the reload that follows a burst (MiniDLNA started again, the
# reload's last step), then 3 s more, in which no further reload may come.
# Prints how many Samba and MiniDLNA starts the burst caused.
reloads_since() {
    local samba0=$1 minidlna0=$2
    wait_for '[ "$(minidlna_starts)" -gt '"$minidlna0"' ]' 60 || return 1
    sleep 3
    echo "$(($(samba_starts) - samba0)) $(($(minidlna_starts) - minidlna0))"
}

make_disk_image "$work/disk.img" 16 ext4 1
attach_disk sda "$work/disk.img" >/dev/null
major=$((16#$(stat -c %t /var/dev/sda1)))
minor=$((16#$(stat -c %T /var/dev/sda1)))
dmajor=$((16#$(stat -c %t /var/dev/sda)))
dminor=$((16#$(stat -c %T /var/dev/sda)))
# The daemon removes a disk's nodes when it leaves: they are made again
# before each burst, as the kernel would for a disk plugged again.
make_nodes() {
    local d
    for d in "${disks[@]}"; do
        rm -f "/var/dev/$d" "/var/dev/${d}1"
        mknod -m 0660 "/var/dev/$d" b "$dmajor" "$dminor"
        mknod -m 0660 "/var/dev/${d}1" b "$major" "$minor"
    done
}
make_nodes

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
check "start: smbd runs" wait_for "pgrep -x smbd" 15
check "start: minidlnad runs" wait_for "pgrep -x minidlnad" 15
# The start-up's own server starts are done before the first burst.
check "start: MiniDLNA started once" wait_for '[ "$(minidlna_starts)" -ge 1 ]' 15
sleep 1

usbmgrctl monitor >"$work/monitor.out" 2>"$work/monitor.err" &
monitor=$!
check "monitor subscribed" wait_for "grep -q monitoring '$work/monitor.err'" 5

# --- ten arrivals
samba0=$(samba_starts)
minidlna0=$(minidlna_starts)
t0=$(now_ms)
plug 0 10
elapsed=$(($(now_ms) - t0))
echo "# ten arrivals sent in $elapsed ms"
check "ten: the ten arrivals were sent within 5 s" [ "$elapsed" -lt 5000 ]
check "ten: all ten volumes are mounted" wait_for "all_mounted 0 10" 120
all_mounted 0 10 || explain_mounts 0 10
echo "# mounted: $(mount_points)"
counts=$(reloads_since "$samba0" "$minidlna0") || counts="? ?"
echo "# ten arrivals: Samba started $(echo "$counts" | cut -d' ' -f1) times, MiniDLNA $(echo "$counts" | cut -d' ' -f2) times"
check "ten: exactly one Samba reload" [ "$(echo "$counts" | cut -d' ' -f1)" = 1 ]
check "ten: exactly one MiniDLNA reload" [ "$(echo "$counts" | cut -d' ' -f2)" = 1 ]
check "ten: smbd runs after the reload" bash -c "pgrep -x smbd >/dev/null"
check "ten: minidlnad runs after the reload" bash -c "pgrep -x minidlnad >/dev/null"
listed=$(shares | LC_ALL=C sort | tr '\n' ' ')
echo "# shares: $listed"
check "ten: the ten volumes are shared" [ "$listed" = "sda1 sdb1 sdc1 sdd1 sde1 sdf1 sdg1 sdh1 sdi1 sdj1 " ]
echo "# kind-0 notifications for the ten arrivals: $(kinds 0)"
check "ten: the tenth pending kind empties the ring: no kind-0 notification" [ "$(kinds 0)" -eq 0 ]

# --- ten removals
samba0=$(samba_starts)
minidlna0=$(minidlna_starts)
unplug 0 10
check "ten removals: nothing stays mounted" wait_for none_mounted 120
counts=$(reloads_since "$samba0" "$minidlna0") || counts="? ?"
echo "# ten removals: Samba started $(echo "$counts" | cut -d' ' -f1) times, MiniDLNA $(echo "$counts" | cut -d' ' -f2) times"
check "ten removals: exactly one Samba reload" [ "$(echo "$counts" | cut -d' ' -f1)" = 1 ]
check "ten removals: exactly one MiniDLNA reload" [ "$(echo "$counts" | cut -d' ' -f2)" = 1 ]
check "ten removals: no share is left" [ -z "$(shares)" ]
echo "# kind-1 notifications for the ten removals: $(kinds 1)"
check "ten removals: no kind-1 notification either" [ "$(kinds 1)" -eq 0 ]

# --- nine arrivals
make_nodes
samba0=$(samba_starts)
minidlna0=$(minidlna_starts)
plug 0 9
check "nine: all nine volumes are mounted" wait_for "all_mounted 0 9" 120
all_mounted 0 9 || explain_mounts 0 9
echo "# mounted: $(mount_points)"
check "nine: nine kind-0 notifications" wait_for '[ "$(kinds 0)" -ge 9 ]' 60
counts=$(reloads_since "$samba0" "$minidlna0") || counts="? ?"
echo "# nine arrivals: Samba started $(echo "$counts" | cut -d' ' -f1) times, MiniDLNA $(echo "$counts" | cut -d' ' -f2) times"
check "nine: exactly one Samba reload" [ "$(echo "$counts" | cut -d' ' -f1)" = 1 ]
check "nine: exactly one MiniDLNA reload" [ "$(echo "$counts" | cut -d' ' -f2)" = 1 ]
check "nine: no more than nine kind-0 notifications" [ "$(kinds 0)" -eq 9 ]
check "nine: nothing but kind 0 was sent" [ "$(grep -c ' kind ' "$work/monitor.out" || true)" -eq 9 ]
check "nine: the nine volumes are shared" [ "$(shares | wc -l)" -eq 9 ]

kill "$monitor" 2>/dev/null || true
monitor=""
stop_daemon 30
check "SIGTERM: nothing stays mounted" none_mounted
cleanup
trap - EXIT
check "every loop device of the test is detached" [ ! -e /var/lib/sandbox/disks/sda ]
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
