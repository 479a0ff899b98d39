#!/bin/bash
# Console logins on USB serial adapters with the real daemon: with serial
# logins on, a plugged adapter gets its character node and a getty at 115200
# baud, a new getty a second after one ends, and unplugging removes the
# node; ttyUSB3 gets a node but no login; an adapter listed in /tmp/usb gets
# a login at start-up even with serial logins off; with them off a plugged
# adapter gets only its node; SIGTERM ends every login.
#
# A getty stand-in, first on the daemon's PATH, appends one line a start
# ("TIME_NS PID ARGS") to its record and runs until its terminal node is
# gone or it is killed. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

# No servers here: nothing but the logins to wait for.
conf=/var/config/usbmgr.conf
set_serial_switch() {
    sed -i -e "s/^USBMGR\.USB_SERIAL\.ENABLE=.*/USBMGR.USB_SERIAL.ENABLE=$1/" "$conf"
}
sed -i -e 's/^USBMGR\.SAMBA\.ENABLE=.*/USBMGR.SAMBA.ENABLE=0/' \
    -e 's/^USBMGR\.MINIDLNA\.ENABLE=.*/USBMGR.MINIDLNA.ENABLE=0/' "$conf"

stand_in_dir=/var/lib/sandbox/getty-bin
record=/var/lib/sandbox/getty.record
mkdir -p "$stand_in_dir"
: >"$record"
cat >"$stand_in_dir/getty" <<EOF
#!/bin/sh
# getty stand-in: getty -L 115200 /var/dev/ttyUSBn
echo "\$(date +%s%N) \$\$ \$*" >>$record
for tty in "\$@"; do :; done
while [ -e "\$tty" ]; do sleep 0.05; done
EOF
chmod 755 "$stand_in_dir/getty"
export PATH="$stand_in_dir:$PATH"

cleanup() { leave_sandbox 15; }
trap cleanup EXIT

starts() { wc -l <"$record"; }
starts_of() { grep -c " -L 115200 /var/dev/$1\$" "$record" || true; }
# Field f (1 time, 2 pid) of the n-th start.
start_field() { sed -n "$1p" "$record" | cut -d' ' -f"$2"; }
char_node() { [ -c "/var/dev/$1" ] && [ "$(stat -c '%t:%T' "/var/dev/$1")" = "$2" ]; }
has_getty() { pgrep -x getty >/dev/null; }
no_getty() { ! has_getty; }
creates() { grep -c "Create USB Serial Login thread \.\.\." "$ORBIIL_LOG_FILE" || true; }

check "the getty stand-in is first on the PATH" [ "$(command -v getty)" = "$stand_in_dir/getty" ]

# --- serial logins on
set_serial_switch 1
daemon=$(start_daemon debug)
check "daemon started with serial logins on" [ -n "$daemon" ]

usbmgrctl serial-plug --port 1-2 --device ttyUSB0 >/dev/null
check "on: ttyUSB0 gets the character node 188,0" wait_for "char_node ttyUSB0 bc:0" 5
check "on: getty runs on /var/dev/ttyUSB0" wait_for '[ "$(starts_of ttyUSB0)" -ge 1 ]' 5
check "on: the stand-in got exactly -L 115200 /var/dev/ttyUSB0" \
    bash -c "sed -n 1p '$record' | cut -d' ' -f3- | grep -qxF -- '-L 115200 /var/dev/ttyUSB0'"
check "on: the log shows the arrival" log_has "EVENT - DUSB_EVT_NEW_USB_SERIAL_INTERFACE"
check "on: the log shows the node command" log_has "run command : mknod /var/dev/ttyUSB0 c 188 0"
check "on: the log shows the login thread" log_has "Create USB Serial Login thread ..."
check "on: the log shows the login service start" log_has "Start USB Serial login service .... $daemon"
check "on: the log shows the getty command" log_has "run command : getty -L 115200 /var/dev/ttyUSB0"

# --- a login that ends is followed by a new one a second later
first_pid=$(start_field 1 2)
first_end=$(date +%s%N)
kill "$first_pid"
check "restart: a new getty starts after the first ends" wait_for '[ "$(starts_of ttyUSB0)" -ge 2 ]' 5
gap_ms=$((($(start_field 2 1) - first_end) / 1000000))
echo "# the next getty started $gap_ms ms after the first ended"
# Sanitizer builds run slower: USBMGR_TIME_SCALE stretches the upper limit there.
check "restart: it waits about a second (0.9 to 2.5 s)" [ "$gap_ms" -ge 900 -a "$gap_ms" -le $((2500 * ${USBMGR_TIME_SCALE:-1})) ]
check "restart: on the same node" [ "$(start_field 2 3-)" = "-L 115200 /var/dev/ttyUSB0" ]

# --- unplugging: the node goes, its getty ends with it, no new one starts
usbmgrctl serial-unplug --port 1-2 --device ttyUSB0 >/dev/null
check "unplug: /var/dev/ttyUSB0 is removed" wait_for "[ ! -e /var/dev/ttyUSB0 ]" 5
check "unplug: the log shows the removal" wait_log "Delete USB Serial Login thread ..." 5
check "unplug: the getty ends with its terminal" wait_for no_getty 5
n=$(starts)
sleep 2
check "unplug: no getty is started again" [ "$(starts)" -eq "$n" ]

# --- plugged again: a fresh login
usbmgrctl serial-plug --port 1-2 --device ttyUSB0 >/dev/null
check "re-plug: the node is back" wait_for "char_node ttyUSB0 bc:0" 5
check "re-plug: a fresh getty runs" wait_for '[ "$(starts)" -gt '"$n"' ]' 5

# --- ttyUSB3: a node, never a login
c=$(creates)
n=$(starts)
usbmgrctl serial-plug --port 1-4 --device ttyUSB3 >/dev/null
check "ttyUSB3: the character node 188,3" wait_for "char_node ttyUSB3 bc:3" 5
sleep 1.5
check "ttyUSB3: no getty" [ "$(starts_of ttyUSB3)" -eq 0 ]
check "ttyUSB3: no login thread" [ "$(creates)" -eq "$c" ]
usbmgrctl serial-unplug --port 1-4 --device ttyUSB3 >/dev/null
check "ttyUSB3: unplugging removes the node" wait_for "[ ! -e /var/dev/ttyUSB3 ]" 5

# --- a name that is not an adapter: no node, no login
usbmgrctl serial-plug --port 1-5 --device ttyS0 >/dev/null
check "ttyS0: refused" wait_log "refusing device name 'ttyS0'" 5
check "ttyS0: no node" [ ! -e /var/dev/ttyS0 ]
usbmgrctl serial-unplug --port 1-5 --device ttyS0 >/dev/null

# --- SIGTERM ends the logins (ttyUSB0 is still plugged in and logged in)
check "sigterm: a getty runs before" has_getty
stop_daemon 15
check "sigterm: the daemon is gone" no_daemon
check "sigterm: no getty is left" wait_for no_getty 5
check "sigterm: /var/dev is emptied" [ -z "$(ls -A /var/dev)" ]

# --- start-up: ttyUSB0 is still listed in /tmp/usb; serial logins off
set_serial_switch 0
n=$(starts)
daemon=$(start_daemon debug)
check "start-up: daemon started with serial logins off" [ -n "$daemon" ]
check "start-up: the listed adapter gets its node" wait_for "char_node ttyUSB0 bc:0" 5
check "start-up: and a login although serial logins are off" wait_for '[ "$(starts)" -gt '"$n"' ]' 5
check "start-up: the log shows the listing" log_has "Get USB Serial Name ... ttyUSB0"
usbmgrctl serial-unplug --port 1-2 --device ttyUSB0 >/dev/null
check "start-up: unplugging removes the node" wait_for "[ ! -e /var/dev/ttyUSB0 ]" 5
check "start-up: and its getty ends" wait_for no_getty 5

# --- serial logins off: only the node
n=$(starts)
c=$(creates)
usbmgrctl serial-plug --port 1-3 --device ttyUSB1 >/dev/null
check "off: ttyUSB1 gets the character node 188,1" wait_for "char_node ttyUSB1 bc:1" 5
sleep 1.5
check "off: no getty" [ "$(starts)" -eq "$n" ]
check "off: no login thread" [ "$(creates)" -eq "$c" ]
usbmgrctl serial-unplug --port 1-3 --device ttyUSB1 >/dev/null

stop_daemon 15
check "end: no getty is left" no_getty

echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
