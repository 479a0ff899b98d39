#!/bin/bash
# usbmgrctl on its own, with no daemon: bus codes and exit statuses of
# calls, usage errors, and the hot-plug stand-in seen through the monitor.
# Runs inside scripts/sandbox.sh.
set -uo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1


work=$(mktemp -d /tmp/ctl.XXXXXX)

# --- a call with nobody serving USBMGR_DMON
out=$(usbmgrctl call 14)
rc=$?
check "call without daemon exits 1" [ "$rc" -eq 1 ]
check "call without daemon prints UNKNOWN_DST_ID" grep -qx "code: 9 UNKNOWN_DST_ID" <<<"$out"

out=$(usbmgrctl call 14 --json)
check "json form of the failed call" [ "$out" = '{"code":9,"code_name":"UNKNOWN_DST_ID","reply":{}}' ]

# --- usage errors exit 2 and send nothing
usbmgrctl call 20 service=0 nosuchfield=1 2>/dev/null
check "unknown field is a usage error" [ $? -eq 2 ]
usbmgrctl call 20 slot=abc 2>/dev/null
check "non-number is a usage error" [ $? -eq 2 ]
usbmgrctl call 14 abc 2>/dev/null
check "odd hex is a usage error" [ $? -eq 2 ]
long=$(printf 'x%.0s' $(seq 1 64))
usbmgrctl call 5 name="$long" 2>/dev/null
check "text longer than its field is a usage error" [ $? -eq 2 ]
usbmgrctl plug --port ../x --device sdb 2>/dev/null
check "port name with a slash is refused" [ $? -eq 2 ]
usbmgrctl frobnicate 2>/dev/null
check "unknown subcommand is a usage error" [ $? -eq 2 ]
usbmgrctl fields 20 | grep -q "SerialNumber .*offset 264  string of 64"
check "field table of command 20 lists SerialNumber at 264" [ $? -eq 0 ]

# --- the hot-plug stand-in, watched by the monitor
usbmgrctl monitor --source DUSB_DMON --count 4 --timeout 10 >"$work/mon.out" 2>"$work/mon.err" &
monitor=$!
check "monitor subscribes" wait_for "grep -q monitoring '$work/mon.err'" 5

usbmgrctl plug --port 1-1 --device sdb,sdb1 --serial SN42 --vendor Acme --product Stick >/dev/null
check "plug exits 0" [ $? -eq 0 ]
check "plug writes the port file with CR LF" [ "$(od -An -c /tmp/usb/1-1 | tr -s ' ')" = " s d b , s d b 1 \r \n" ]

usbmgrctl serial-plug --port 1-2 --device ttyUSB0 >/dev/null
check "serial-plug writes its port file" grep -q "^ttyUSB0" /tmp/usb/1-2

usbmgrctl unplug --port 1-1 --device sdb,sdb1 --serial SN42 >/dev/null
check "unplug removes the port file" [ ! -e /tmp/usb/1-1 ]

usbmgrctl serial-unplug --port 1-2 --device ttyUSB0 --raw-hex 00010203 >/dev/null
check "a short raw record is sent" [ $? -eq 0 ]

wait "$monitor"
check "monitor ends after its count" [ $? -eq 0 ]
check "arrival record seen" grep -qx 'event 0 device "sdb,sdb1" arrived 1 serial "SN42"' "$work/mon.out"
check "serial arrival record seen" grep -qx 'event 6 device "ttyUSB0" arrived 1 serial ""' "$work/mon.out"
check "removal record seen" grep -qx 'event 7 device "sdb,sdb1" arrived 0 serial "SN42"' "$work/mon.out"
check "short raw payload seen as is" grep -qx 'event 13 len 4 hex 00010203' "$work/mon.out"

# --- a monitor that gets fewer events than asked for fails at its timeout
usbmgrctl monitor --count 1 --timeout 1 >/dev/null 2>&1
check "monitor timeout without events exits 1" [ $? -eq 1 ]

rm -rf "$work"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
