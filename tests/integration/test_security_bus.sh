#!/bin/bash
# Who gets in through the message bus. First on a bus that lets every user
# connect, own any name and send anything (so the bus library's own checks
# are all that stands in the way): an unprivileged peer's command is refused
# with AccessDenied and one log line; hot-plug events sent by a peer that does
# not own org.orbiil.DUSB_DMON mount, share and record nothing, and ten of
# them cannot push a real disk out of the ten-record history. Then on a
# system bus (Debian's system-bus configuration with the tree's
# org.orbiil.conf in its policy folder): root's call is answered and root's
# hot-plug events still work; uid 65534 can neither call the daemon nor own
# org.orbiil.DUSB_DMON, unless the policy's documented group block names a
# group it is in. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/security-bus.XXXXXX)
chmod 0755 "$work"
history=/var/config/tr140.conf
smb_conf=/etc/samba/smb.conf
policy="$USBMGR_SOURCE_DIR/etc/dbus-1/system.d/org.orbiil.conf"
open_bus_pid=""
# Deadlines stretch for sanitizer builds.
scale=${USBMGR_TIME_SCALE:-1}

cleanup() {
    leave_sandbox 30 sda
    [ -z "$open_bus_pid" ] || kill "$open_bus_pid" 2>/dev/null || true
    [ ! -f /run/dbus/pid ] || kill "$(cat /run/dbus/pid)" 2>/dev/null || true
}
trap cleanup EXIT

quiet() { "$@" >/dev/null 2>&1; }
nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
# Command 14 through dbus-send, so that an error shows its D-Bus name.
send_14() {
    "$@" dbus-send --bus="$ORBIIL_BUS_ADDRESS" --print-reply --dest=org.orbiil.USBMGR_DMON \
        /org/orbiil/USBMGR_DMON org.orbiil.Daemon.Command uint32:14 array:byte:0,0,0,0 2>&1 || true
}
# RequestName through dbus-send.
request_name() {
    "$@" dbus-send --bus="$ORBIIL_BUS_ADDRESS" --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.RequestName string:org.orbiil.DUSB_DMON uint32:0 2>&1 || true
}
denied() { grep -q 'org.freedesktop.DBus.Error.AccessDenied' <<<"$1"; }
recorded() { grep -qE "^USBMGR\.[0-9]+\.SERIAL_NUMBER=$1\$" "$history"; }
answers() { usbmgrctl call 14 2>/dev/null | grep -qx 'code: 0 OK'; }
lines_of() { grep -c -- "$1" "$ORBIIL_LOG_FILE" || true; }
mounted() { findmnt -rn --mountpoint "$1" >/dev/null 2>&1; }
shared() { grep -qF "path = $1" "$smb_conf" 2>/dev/null; }

# A 282-byte arrival record (event 0) for device list $1 and serial $2, as
# the decimal bytes busctl takes: Index 0, ArrivedOrLeft 1, a mass-storage
# class triple, the texts NUL-padded to their fields.
record() {
    local -a b
    local i
    for ((i = 0; i < 282; i++)); do b[i]=0; done
    b[1]=1 b[6]=8 b[7]=6 b[8]=80
    put() {
        local at=$1 text=$2 j
        for ((j = 0; j < ${#text}; j++)); do b[at + j]=$(printf '%d' "'${text:j:1}"); done
    }
    put 9 "$1"
    put 73 "2.00"
    put 84 "Forger"
    put 148 "Forged"
    put 212 "$2"
    echo "${b[*]}"
}
# Event 0 from the hot-plug daemon's object path, sent by uid 65534, which
# owns no name: anyone may send a signal from any path.
forge_arrival() {
    # shellcheck disable=SC2046
    nobody busctl --address="$ORBIIL_BUS_ADDRESS" emit /org/orbiil/DUSB_DMON org.orbiil.Daemon Event \
        uay 0 282 $(record "$1" "$2")
}

make_disk_image "$work/disk.img" 16 ext4 1
attach_disk sda "$work/disk.img" >/dev/null
# sdb is made of sda's blocks: a forged arrival could mount it, and nothing
# forged can ever name a node the kernel gave another disk.
alias_disk_nodes sda sdb 1

# --- a bus that lets everyone in
cat >"$work/open-bus.conf" <<EOF
<busconfig>
  <type>session</type>
  <listen>unix:path=/run/orbiil-open-bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
EOF
address=$(dbus-daemon --config-file="$work/open-bus.conf" --fork --print-address=1 --print-pid=3 \
    </dev/null 3>"$work/open-bus.pid")
open_bus_pid=$(cat "$work/open-bus.pid")
export ORBIIL_BUS_ADDRESS=${address%%$'\n'*}
export DBUS_SESSION_BUS_ADDRESS=$ORBIIL_BUS_ADDRESS

daemon=$(start_daemon debug)
check "open bus: daemon started" [ -n "$daemon" ]
check "open bus: uid 65534 is let onto this bus" quiet nobody busctl --address="$ORBIIL_BUS_ADDRESS" list

# --- any unprivileged peer answered on the bus
check "unprivileged peer: root's command 14 is answered" answers
entries=$(lines_of 'cmd - ')
refusals=$(lines_of 'refusing command 14 of')
out=$(send_14 nobody)
echo "# $out" | head -n 1
check "unprivileged peer: uid 65534 gets AccessDenied" denied "$out"
check "unprivileged peer: no handler ran" [ "$(lines_of 'cmd - ')" -eq "$entries" ]
check "unprivileged peer: one log line says why" \
    [ "$(lines_of 'refusing command 14 of')" -eq $((refusals + 1)) -a "$(lines_of 'uid 65534 is not root')" -ge 1 ]

# --- a forged arrival event got a disk mounted, shared and recorded
forge_arrival sdb,sdb1 FORGED-0
# The real hot-plug daemon's arrival after it: once that is in, the forged
# one before it was handled too.
usbmgrctl plug --port 1-1 --device sda,sda1 --serial REAL-1 >/dev/null
check "forged arrival: the owner's arrival is mounted" wait_for "mounted /tmp/disk/sda1" $((10 * scale))
check "forged arrival: the owner's arrival is recorded" wait_for "recorded REAL-1" $((5 * scale))
check "forged arrival: the owner's arrival is shared" wait_for "shared /tmp/disk/sda1" $((15 * scale))
check "forged arrival: dropped with one log line" [ "$(lines_of 'dropping event 0 of DUSB_DMON from')" -eq 1 ]
check "forged arrival: not mounted" bash -c "! findmnt -rn --mountpoint /tmp/disk/sdb1"
check "forged arrival: not shared" bash -c "! grep -qF 'path = /tmp/disk/sdb1' $smb_conf"
check "forged arrival: not recorded" bash -c "! grep -q FORGED $history"

# --- ten forged serials pushing real disks out of the history
for i in $(seq 1 10); do forge_arrival sdb,sdb1 "FORGED-$i"; done
usbmgrctl unplug --port 1-1 --device sda,sda1 >/dev/null
check "ten forged serials: the owner's removal is done" wait_for "! mounted /tmp/disk/sda1" $((10 * scale))
check "ten forged serials: all ten dropped" [ "$(lines_of 'dropping event 0 of DUSB_DMON from')" -eq 11 ]
check "ten forged serials: the real disk's record is kept" recorded REAL-1
check "ten forged serials: no forged record" bash -c "! grep -q FORGED $history"
stop_daemon 30

# --- a system bus with the tree's policy
install -D -m 0644 "$policy" /etc/dbus-1/system.d/org.orbiil.conf
mkdir -p /run/dbus
dbus-daemon --system --fork
export ORBIIL_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket
export DBUS_SESSION_BUS_ADDRESS=$ORBIIL_BUS_ADDRESS
check "system bus: it runs" wait_for "busctl --address=$ORBIIL_BUS_ADDRESS list --no-legend" $((10 * scale))
# The group the documented block would let call, as ORBIIL_CALLER_GROUP does in the library.
export ORBIIL_CALLER_GROUP=users
daemon=$(start_daemon debug)
check "system bus: root may own org.orbiil.USBMGR_DMON (daemon started)" [ -n "$daemon" ]
check "system bus: root's command 14 is answered" answers
make_disk_nodes sda
usbmgrctl plug --port 1-1 --device sda,sda1 --serial REAL-1 >/dev/null
check "system bus: root may own org.orbiil.DUSB_DMON, and its arrival is mounted" \
    wait_for "mounted /tmp/disk/sda1" $((10 * scale))

refusals=$(lines_of 'refusing command 14 of')
out=$(send_14 nobody)
echo "# $out" | head -n 1
check "system bus: uid 65534 may not call org.orbiil.USBMGR_DMON" denied "$out"
check "system bus: the bus refused it before the daemon saw it" \
    [ "$(lines_of 'refusing command 14 of')" -eq "$refusals" ]
out=$(request_name nobody)
echo "# $out" | head -n 1
check "system bus: uid 65534 may not own org.orbiil.DUSB_DMON" denied "$out"
check "system bus: usbmgrctl plug as uid 65534 cannot join as DUSB_DMON" \
    bash -c "! setpriv --reuid=65534 --regid=65534 --clear-groups usbmgrctl plug --device sdb,sdb1 --serial X"

# The commented group block, filled in with the group's name, lets the
# group's members call; owning stays root's.
{
    echo '<busconfig>'
    sed -n '/<policy group="GROUP">/,/<\/policy>/p' "$policy" | sed 's/GROUP/users/'
    echo '</busconfig>'
} >/etc/dbus-1/system.d/org.orbiil-group.conf
check "group block: present in the policy file" grep -q '<policy group="users">' /etc/dbus-1/system.d/org.orbiil-group.conf
busctl --address="$ORBIIL_BUS_ADDRESS" call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus \
    ReloadConfig >/dev/null
users_gid=$(getent group users | cut -d: -f3)
as_member() { setpriv --reuid=65534 --regid=65534 --groups="$users_gid" "$@"; }
out=$(send_14 as_member)
check "group block: a member of the group is answered" grep -q 'uint32 0' <<<"$out"
check "group block: a member of the group may still not own org.orbiil.DUSB_DMON" denied "$(request_name as_member)"
check "group block: uid 65534 outside the group still may not call" denied "$(send_14 nobody)"

usbmgrctl unplug --port 1-1 --device sda,sda1 >/dev/null
check "system bus: unplugged" wait_for "! mounted /tmp/disk/sda1" $((10 * scale))
leave_sandbox 30 sda
trap - EXIT
kill "$open_bus_pid" 2>/dev/null || true
kill "$(cat /run/dbus/pid)" 2>/dev/null || true
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
