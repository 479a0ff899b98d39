#!/bin/bash
# Hostile hot-plug records against the real daemon: shell syntax in the
# device list and in the texts, short records, an unterminated device list
# and line breaks meant to forge history lines. Nothing may run, nothing may
# be mounted for a refused record, the history file keeps one line a value,
# and the daemon goes on serving. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1


work=$(mktemp -d /tmp/hostile.XXXXXX)
history=/var/config/tr140.conf

cleanup() { leave_sandbox 15 sda; }
trap cleanup EXIT

answers() { usbmgrctl call 14 2>/dev/null | grep -qx 'code: 0 OK'; }
no_pwned() { [ -z "$(ls -d /tmp/pwned* 2>/dev/null || true)" ]; }
not_mounted() { ! findmnt -rn --mountpoint "$1" >/dev/null 2>&1; }
nothing_under_mount_root() { ! findmnt -rn -o TARGET | grep -q '^/tmp/disk'; }
# Every log line is one message: it starts with its time stamp.
log_lines_intact() { ! grep -qvE '^[0-9]{4}-[0-9]{2}-[0-9]{2} ' "$ORBIIL_LOG_FILE"; }
lines_of() { grep -c -- "$1" "$ORBIIL_LOG_FILE" || true; }

make_disk_image "$work/disk.img" 16 ext4 1
attach_disk sda "$work/disk.img" >/dev/null
daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]

# --- a device list with a shell command in it
before=$(lines_of refusing)
usbmgrctl plug --port 1-1 --device 'sda,sda1;touch /tmp/pwned' --serial SER-LIST >/dev/null
check "list: the refusal is logged" wait_for "[ \$(lines_of refusing) -gt $before ]" 5
grep -F refusing "$ORBIIL_LOG_FILE" | sed 's/^.*\(ERROR\|DEBUG\) /# /' | tail -n 2
check "list: nothing ran" no_pwned
check "list: nothing mounted" nothing_under_mount_root
check "list: no history record" [ ! -s "$history" ]
check "list: the daemon still answers command 14" answers

# --- a record shorter than 282 bytes
usbmgrctl plug --port 1-1 --raw-hex 0001 >/dev/null
check "short record: logged and ignored" wait_log "device record of 2 bytes ignored" 5
check "short record: the daemon still answers command 14" answers

# --- an AttachDevice that fills its 64 bytes without an end: a valid list
# (sda,sda1) padded with commas, so that reading past the field would mount
hex=0001$(printf '00%.0s' $(seq 1 7))7364612c73646131$(printf '2c%.0s' $(seq 1 56))$(printf '00%.0s' $(seq 1 209))
check "unterminated: the raw record is 282 bytes" [ "${#hex}" -eq 564 ]
usbmgrctl plug --port 1-1 --raw-hex "$hex" >/dev/null
check "unterminated: refused in the log" wait_log "AttachDevice not terminated, record ignored" 5
check "unterminated: nothing mounted" nothing_under_mount_root
check "unterminated: the daemon still answers command 14" answers

# --- shell syntax in serial, vendor and product, with a valid list
usbmgrctl plug --port 1-1 --device sda,sda1 --serial '$(touch /tmp/pwned2)' \
    --vendor '`touch /tmp/pwned3`' --product "\$(touch /tmp/pwned4);touch /tmp/pwned5" >/dev/null
check "texts: the valid list is mounted" wait_for "findmnt -rn --mountpoint /tmp/disk/sda1" 5
check "texts: the history keeps the serial as text" wait_for "grep -qxF 'USBMGR.0.SERIAL_NUMBER=\$(touch /tmp/pwned2)' '$history'" 5
check "texts: nothing ran" no_pwned
check "texts: the daemon still answers command 14" answers
usbmgrctl unplug --port 1-1 --device sda,sda1 >/dev/null
check "texts: unplugged" wait_for "not_mounted /tmp/disk/sda1 && [ ! -e /tmp/disk/sda1 ]" 10

# --- a serial with a line break and '=' meant to forge a history line: the
# line break becomes '_', the '=' stays (a value runs to the end of its line)
detach_disk sda
attach_disk sda "$work/disk.img" >/dev/null
cp "$history" "$work/history.before"
usbmgrctl plug --port 1-1 --device sda,sda1 --serial $'x\nUSBMGR.9.PNAME=evil\r' \
    --vendor $'v\tv' --product $'p\033[2Jp' >/dev/null
check "forged line: the disk is mounted" wait_for "findmnt -rn --mountpoint /tmp/disk/sda1" 5
check "forged line: a new record came" wait_for "[ \$(wc -l <'$history') -gt \$(wc -l <'$work/history.before') ]" 5
check "forged line: the serial stands on one line, its '=' kept" grep -qxF 'USBMGR.1.SERIAL_NUMBER=x_USBMGR.9.PNAME=evil_' "$history"
check "forged line: no line USBMGR.9.PNAME" bash -c "! grep -q '^USBMGR\.9\.PNAME' '$history'"
check "forged line: every history line is a key=value of a record" bash -c "! grep -qvE '^USBMGR\.[01]\.(SERIAL_NUMBER|PNAME|NAME\.0|ENABLE\.0)=' '$history'"
check "forged line: no control character in the history file" bash -c "! LC_ALL=C grep -q '[[:cntrl:]]' '$history'"
check "forged line: every log line is one message" log_lines_intact
check "forged line: nothing ran" no_pwned
check "forged line: the daemon still answers command 14" answers

stop_daemon 15
check "SIGTERM: nothing stays mounted" nothing_under_mount_root
check "nothing ran at all" no_pwned
detach_disk sda
trap - EXIT
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
