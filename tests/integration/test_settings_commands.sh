#!/bin/bash
# The settings and Samba user commands (2 to 12) against the real daemon and
# servers, with the factory settings (Samba and MiniDLNA enabled): command 5
# "port" moves minidlnad to the new port after the reload, "serial" is
# stored but never reaches minidlna.conf; command 6 "workgroup" changes the
# workgroup testparm reports, and change kind 2 is notified after the
# reload; a user added through command 10 is in Samba's password file and
# the user map and is read back by commands 8, 9 and 19; removed through 11
# it is gone from the settings and from Samba. All-0xff and random payloads
# for every command leave the daemon serving and the settings file one
# key=value a line. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/settings.XXXXXX)
settings=/var/config/usbmgr.conf
smb_conf=/etc/samba/smb.conf
smbpasswd=/var/samba/smbpasswd
monitor_pid=""

cleanup() { leave_sandbox 30; }
trap cleanup EXIT

running() { pgrep -x "$1" >/dev/null; }
answers() { usbmgrctl call 14 2>/dev/null | grep -qx 'code: 0 OK'; }
conf_setting() { sed -n "s/^$1=//p" "$settings"; }
minidlna_conf() { conf_setting USBMGR.MINIDLNA.CONF_DIR; }
desc_on() { curl -s --max-time 2 "http://127.0.0.1:$1/rootDesc.xml" | grep -q '<friendlyName>'; }
minidlna_starts() { grep -c 'run command : /sbin/minidlnad' "$ORBIIL_LOG_FILE" || true; }
smbd_starts() { grep -c 'run command : /bin/smbd' "$ORBIIL_LOG_FILE" || true; }
# The workgroup testparm reads from the generated file (-v: also when it is the default).
workgroup() { testparm -s -v "$smb_conf" 2>/dev/null | sed -n 's/^[[:space:]]*workgroup = //p'; }
# Every line of the settings file is one USBMGR key, "=" and its value.
settings_parseable() {
    [ -s "$settings" ] && [ "$(tail -c 1 "$settings" | od -An -c | tr -d ' ')" = '\n' ] &&
        ! grep -qvE '^USBMGR\.[A-Z0-9_.]+=' "$settings" &&
        [ "$(grep -c '^USBMGR.USB_SERIAL.ENABLE=' "$settings")" -eq 1 ]
}
# One reply field of a verb, as text ("  NAME = VALUE").
field_of() { sed -n "s/^  $1 = //p"; }


check "the factory settings enable Samba" [ "$(conf_setting USBMGR.SAMBA.ENABLE)" = 1 ]
check "the factory settings enable MiniDLNA" [ "$(conf_setting USBMGR.MINIDLNA.ENABLE)" = 1 ]
check "the factory settings serve MiniDLNA on 8200" [ "$(conf_setting USBMGR.MINIDLNA.PORT)" = 8200 ]
# The gateway account every Samba user maps to.
echo "1:root:root-pw" >/var/config/orbsm.users

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
check "start: smbd runs" wait_for "running smbd" 15
check "start: minidlnad runs" wait_for "running minidlnad" 15
check "start: minidlnad answers on 8200" wait_for "desc_on 8200" 20
start_monitor

# --- reads (2, 3, 4)
usbmgrctl minidlna >"$work/minidlna.out"
check "minidlna: the port is read back" [ "$(field_of port <"$work/minidlna.out")" = '"8200"' ]
check "minidlna: enable is read back" [ "$(field_of enable <"$work/minidlna.out")" = 1 ]
usbmgrctl samba --json >"$work/samba.json"
check "samba: the workgroup is read back as JSON" grep -qF '"workgroup":"WORKGROUP"' "$work/samba.json"
check "serial-login: the switch is read back" \
    bash -c "usbmgrctl serial-login | grep -qx '  enable = 0'"

# --- command 5: port and serial
starts=$(minidlna_starts)
check "port: command 5 answers" bash -c "usbmgrctl minidlna-set port 8201 | grep -qx 'code: 0 OK'"
check "port: stored in the settings file at once" [ "$(conf_setting USBMGR.MINIDLNA.PORT)" = 8201 ]
check "port: minidlnad is started again after the reload" wait_for '[ "$(minidlna_starts)" -gt "$starts" ]' 30
check "port: minidlnad answers on 8201" wait_for "desc_on 8201" 30
check "port: minidlna.conf has the new port" grep -qx 'port=8201' "$(minidlna_conf)"
check "port: nothing answers on 8200 any more" bash -c "! curl -s --max-time 2 http://127.0.0.1:8200/rootDesc.xml >/dev/null"
check "port: read back by command 2" bash -c "usbmgrctl minidlna | grep -qx '  port = \"8201\"'"

starts=$(minidlna_starts)
usbmgrctl minidlna-set serial SANDBOX-SN-77 >/dev/null
check "serial: stored in the settings file" [ "$(conf_setting USBMGR.MINIDLNA.SERIAL)" = SANDBOX-SN-77 ]
check "serial: the reload follows" wait_for '[ "$(minidlna_starts)" -gt "$starts" ]' 30
check "serial: never reaches minidlna.conf" bash -c "! grep -q SANDBOX-SN-77 '$(minidlna_conf)'"
check "serial: minidlna.conf has no serial line" bash -c "! grep -q '^serial=' '$(minidlna_conf)'"
check "serial: minidlnad answers again" wait_for "desc_on 8201" 30

# --- command 6: workgroup, kind 2 after the reload
check "workgroup: the factory one at first" [ "$(workgroup)" = WORKGROUP ]
kinds_before=$(count_kind 2)
smbd_before=$(smbd_starts)
t0=$(now_us)
check "workgroup: command 6 answers" bash -c "usbmgrctl samba-set workgroup SANDBOXNET | grep -qx 'code: 0 OK'"
check "workgroup: stored in the settings file at once" [ "$(conf_setting USBMGR.SAMBA.WORKGROUP)" = SANDBOXNET ]
check "workgroup: no notification before the reload" [ "$(count_kind 2)" -eq "$kinds_before" ]
check "workgroup: kind 2 is notified" wait_for '[ "$(count_kind 2)" -gt "$kinds_before" ]' 30
check "workgroup: Samba was restarted before it" [ "$(smbd_starts)" -gt "$smbd_before" ]
delay_us=$(($(kind_time 2 $((kinds_before + 1))) - t0))
echo "# kind 2 notified $((delay_us / 1000)) ms after the command"
check "workgroup: kind 2 came at least 900 ms after the command" [ "$delay_us" -ge 900000 ]
check "workgroup: testparm reports the new workgroup" [ "$(workgroup)" = SANDBOXNET ]
check "workgroup: smbd runs after the reload" wait_for "running smbd" 15
check "workgroup: read back by command 3" bash -c "usbmgrctl samba | grep -qx '  workgroup = \"SANDBOXNET\"'"

# --- commands 10, 8, 9, 19, 11: one user
check "users: none at first" bash -c "usbmgrctl user-count | grep -qx '  number = 0'"
usbmgrctl user-add sbuser sb-pw-1 >"$work/add.out"
check "add: result 0" grep -qx '  result = 0 (success)' "$work/add.out"
check "add: stored in slot 0" [ "$(conf_setting USBMGR.SAMBA.USER_NAME.0)" = sbuser ]
check "add: in Samba's password file" grep -q '^sbuser:' "$smbpasswd"
check "add: in the user map" bash -c "grep -qE '^root = (.* )?sbuser( |\$)' '$(conf_setting USBMGR.SAMBA.USERNAME_MAP_DIR)'"
check "add: a second add of the name is refused" \
    bash -c "usbmgrctl user-add sbuser other | grep -qx '  result = -1 (refused (name taken, no free slot, or name or password not accepted))'"
check "add: command 8 counts one user" bash -c "usbmgrctl user-count | grep -qx '  number = 1'"
usbmgrctl user-slot 0 >"$work/slot.out"
check "add: command 9 reads slot 0" grep -qx '  name = "sbuser"' "$work/slot.out"
check "add: command 9 reads the password" grep -qx '  password = "sb-pw-1"' "$work/slot.out"
check "add: command 9 reads the enable" grep -qx '  enable = 1' "$work/slot.out"
check "add: command 9 answers 0" grep -qx '  result = 0 (success)' "$work/slot.out"
usbmgrctl user 0 0 >"$work/user19.out"
check "add: command 19 reads the user from the model" grep -qx '  Name = "sbuser"' "$work/user19.out"
check "add: command 19 answers 0" grep -qE '^  status = 0' "$work/user19.out"
check "add: smbclient takes the user with the mapped account's password" \
    bash -c "smbclient -L 127.0.0.1 -U 'sbuser%root-pw' >/dev/null 2>&1"

check "modify: command 12 disables the user" bash -c "usbmgrctl user-modify sbuser sb-pw-2 0 | grep -qx '  result = 0 (success)'"
check "modify: gone from Samba" bash -c "! grep -q '^sbuser:' '$smbpasswd'"
check "modify: the slot keeps the new password" [ "$(conf_setting USBMGR.SAMBA.USER_PASSWORD.0)" = sb-pw-2 ]

usbmgrctl user-remove sbuser >"$work/remove.out"
check "remove: result 0" grep -qx '  result = 0 (success)' "$work/remove.out"
check "remove: gone from the settings" bash -c "! grep -q 'USBMGR.SAMBA.USER_.*\\.0=' '$settings'"
check "remove: gone from Samba" bash -c "! grep -q '^sbuser:' '$smbpasswd'"
check "remove: command 8 counts none" bash -c "usbmgrctl user-count | grep -qx '  number = 0'"
check "remove: command 9 finds the slot empty" bash -c "usbmgrctl user-slot 0 | grep -qx '  result = -1 (a key of the slot is missing)'"
check "remove: command 19 finds no user" bash -c "! usbmgrctl user 0 0 | grep -qx '  status = 0 (success)'"
check "remove: a second remove answers -1" bash -c "usbmgrctl user-remove sbuser | grep -qx '  result = -1 (no such user)'"

# --- command 7
check "serial-login-set: answers" bash -c "usbmgrctl serial-login-set 1 | grep -qx '  enable = 1'"
check "serial-login-set: stored with its dotted key" [ "$(conf_setting USBMGR.USB_SERIAL.ENABLE)" = 1 ]
check "serial-login-set: read back by command 4" bash -c "usbmgrctl serial-login | grep -qx '  enable = 1'"
usbmgrctl serial-login-set 0 >/dev/null

# --- hostile payloads for every command
declare -A size=([2]=868 [3]=748 [4]=4 [5]=192 [6]=192 [7]=8 [8]=4 [9]=140 [10]=136 [11]=136 [12]=136)
for id in 2 3 4 5 6 7 8 9 10 11 12; do
    ff=$(head -c "${size[$id]}" /dev/zero | tr '\0' '\377' | od -An -v -tx1 | tr -d ' \n')
    rc=0
    usbmgrctl call "$id" "$ff" >"$work/ff.$id" 2>&1 || rc=$?
    check "0xff $id: answered with code 0" [ "$rc" -eq 0 ]
    check "0xff $id: the daemon still serves" answers
    check "0xff $id: the settings file stays one key=value a line" settings_parseable
    for round in 1 2 3; do
        rnd=$(head -c "${size[$id]}" /dev/urandom | od -An -v -tx1 | tr -d ' \n')
        usbmgrctl call "$id" "$rnd" >"$work/rnd.$id.$round" 2>&1 || true
    done
    check "random $id: the daemon still serves" answers
    check "random $id: the settings file stays one key=value a line" settings_parseable
done
check "hostile: the daemon is the one started" [ "$(pgrep -o -x usbmgrd)" = "$daemon" ]
check "hostile: the settings file still loads (every key present)" \
    [ "$(grep -cE '^USBMGR\.(MINIDLNA|SAMBA)\.[A-Z_]+=' "$settings")" -ge 33 ]

# The shutdown takes no lock: let the reloads the payloads asked for end first.
log_quiet() {
    local before
    before=$(wc -c <"$ORBIIL_LOG_FILE")
    sleep 3
    [ "$(wc -c <"$ORBIIL_LOG_FILE")" = "$before" ]
}
check "hostile: the reloads end" wait_for log_quiet 90
stop_daemon 60
check "SIGTERM: the daemon ended" no_daemon

kill "$monitor_pid" 2>/dev/null || true
monitor_pid=""
trap - EXIT
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
