#!/bin/bash
# Inputs an attacker on the bus or on a USB disk chooses, against the real
# daemon and servers with the factory settings (Samba and MiniDLNA
# enabled), one named case each: commands 10 and 12 taking the gateway
# account's name root; commands 5 and 6 pointing the MiniDLNA database
# folder (which a restart deletes) at a folder under /var, the media and log
# folders at /etc and Samba's log file into /etc/profile.d; volume names
# that Samba would expand (%h%v) or that it reserves (IPC$); last, a restart
# of the daemon while minidlnad runs, with the database folder under /var in
# the settings file. Each is refused or made plain, and nothing of the
# gateway changes. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/security.XXXXXX)
settings=/var/config/usbmgr.conf
smbpasswd=/var/samba/smbpasswd
history=/var/config/tr140.conf

cleanup() { leave_sandbox 30 sda; }
trap cleanup EXIT

running() { pgrep -x "$1" >/dev/null; }
# Disk shares as smbclient lists them anonymously: "name|comment", one a line.
# An smbd restarting meanwhile lists nothing, which is no error here.
disk_shares() { { smbclient -L 127.0.0.1 -N -g 2>/dev/null || true; } | awk -F'|' '$1 == "Disk" { print $2 "|" $3 }'; }
root_entry() { grep '^root:' "$smbpasswd" || true; }
result_of() { sed -n 's/^  result = \(-\{0,1\}[0-9]*\).*/\1/p'; }

# The disk is known already: its first volume named %h%v, its second IPC$.
make_disk_image "$work/disk.img" 32 ext4 2
attach_disk sda "$work/disk.img" >/dev/null
printf '%s\n' USBMGR.0.SERIAL_NUMBER=SER-SEC USBMGR.0.PNAME= 'USBMGR.0.NAME.0=%h%v' USBMGR.0.ENABLE.0=1 \
    'USBMGR.0.NAME.1=IPC$' USBMGR.0.ENABLE.1=1 >"$history"
# The gateway account every Samba user maps to (the factory map target).
echo "1:root:root-pw" >/var/config/orbsm.users

# Samba's version, read before anything else runs (smbd -V reads smb.conf).
version=$(smbd -V 2>/dev/null | sed 's/^Version //') || true
[ -n "$version" ] || version="no version read"
daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
check "start: smbd runs" wait_for "running smbd" 15
check "start: the gateway account is known to Samba" wait_for '[ -n "$(root_entry)" ]' 15
root_before=$(root_entry)

# --- commands 10 and 12 taking the name root
result=$(usbmgrctl user-add root attacker-pw 1 | result_of)
check "add root: command 10 answers -1" [ "$result" = -1 ]
check "add root: no slot holds root" bash -c "! grep -qi '^USBMGR.SAMBA.USER_NAME.[0-9]*=root$' $settings"
result=$(usbmgrctl user-modify root attacker-pw 1 | result_of)
check "modify root: command 12 answers -1" [ "$result" = -1 ]
check "add and modify root: the refusals are logged" \
    [ "$(grep -c "refusing samba user name 'root'" "$ORBIIL_LOG_FILE")" -eq 2 ]
check "add and modify root: root's Samba password is the gateway's still" [ "$(root_entry)" = "$root_before" ]
check "add and modify root: the attacker's password does not log in" \
    bash -c "! smbclient -L 127.0.0.1 -U 'root%attacker-pw' >/dev/null 2>&1"

# --- commands 5 and 6 pointing settings at folders of the system
mkdir -p /var/lib/precious && echo keep >/var/lib/precious/data
usbmgrctl minidlna-set db_dir /var/lib/precious >/dev/null
usbmgrctl minidlna-set media_dir /etc >/dev/null
usbmgrctl minidlna-set log_dir /etc >/dev/null
usbmgrctl samba-set log_file /etc/profile.d/usbmgr.sh >/dev/null
for refused in "/var/lib/precious' of USBMGR.MINIDLNA.DB_DIR" "/etc' of USBMGR.MINIDLNA.MEDIA_DIR" \
    "/etc' of USBMGR.MINIDLNA.LOG_DIR" "/etc/profile.d/usbmgr.sh' of USBMGR.SAMBA.LOG_FILE"; do
    check "settings: refused with one line: '$refused" [ "$(grep -cF -- "refusing value '$refused" "$ORBIIL_LOG_FILE")" -eq 1 ]
done
check "settings: the file keeps the factory folders" bash -c "grep -qx 'USBMGR.MINIDLNA.DB_DIR=/var/cache/minidlna' $settings &&
    grep -qx 'USBMGR.MINIDLNA.MEDIA_DIR=/tmp/disk' $settings && grep -qx 'USBMGR.MINIDLNA.LOG_DIR=/var/log' $settings &&
    grep -qx 'USBMGR.SAMBA.LOG_FILE=/var/samba/log.%m' $settings"

# --- volume names Samba expands or reserves
usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial SER-SEC --vendor ACME --product Stick >/dev/null
# One listing holding both shares: a plug may restart smbd more than once,
# and a listing taken meanwhile is empty.
both_listed() { disk_shares >"$work/shares" && grep -q '^_h_v|' "$work/shares" && grep -q '^sda2|' "$work/shares"; }
listed() { cut -d'|' -f1 "$work/shares" | grep -qxF -- "$1"; }
check "shares: both volumes are shared after the reload" wait_for both_listed 30
sed 's/^/# share: /' "$work/shares"
check "a volume named %h%v: shared as _h_v" listed _h_v
check "a volume named %h%v: the listing shows no host name" bash -c "! grep -qiF -- '$(hostname)' '$work/shares'"
check "a volume named %h%v: the listing shows no Samba version" bash -c "! grep -qF -- '$version' '$work/shares'"
check "a volume named IPC\$: shared under its device name sda2" listed sda2
check "Samba log file in /etc/profile.d: smb.conf keeps the factory log file" \
    grep -qx '   log file = /var/samba/log.%m' /etc/samba/smb.conf
check "Samba log file in /etc/profile.d: root's smbd created no file there" [ ! -e /etc/profile.d/usbmgr.sh ]
check "a volume named IPC\$: no share of that name" bash -c "! grep -q '^\[IPC\\$\]' /etc/samba/smb.conf"

# A MiniDLNA restart is where the database folder goes: a daemon that
# starts while minidlnad runs kills it and deletes the folder. The settings
# file holds the folder as a daemon without the check saved it.
stop_daemon 60
detach_disk sda >/dev/null 2>&1 || true
sed -i 's|^USBMGR.MINIDLNA.DB_DIR=.*|USBMGR.MINIDLNA.DB_DIR=/var/lib/precious|' "$settings"
/sbin/minidlnad -f /var/minidlna.conf -R
check "db_dir under /var: a minidlnad runs before the restart" wait_for "running minidlnad" 15
daemon=$(start_daemon debug)
check "db_dir under /var: the daemon restarted" [ -n "$daemon" ]
check "db_dir under /var: MiniDLNA restarted" wait_log "run command : rm -rf /var/cache/minidlna" 30
check "db_dir under /var: the loaded folder is refused" \
    [ "$(grep -cF -- "refusing value '/var/lib/precious' of USBMGR.MINIDLNA.DB_DIR" "$ORBIIL_LOG_FILE")" -eq 2 ]
check "db_dir under /var: minidlnad runs again" wait_for "running minidlnad" 15
check "db_dir under /var: the folder is not deleted" [ -f /var/lib/precious/data ]
check "db_dir under /var: no rm -rf of it" bash -c "! grep -qF 'rm -rf /var/lib/precious' '$ORBIIL_LOG_FILE'"
check "media_dir and log_dir /etc: minidlna.conf as the restart wrote it names neither" \
    bash -c "! grep -q '=/etc' /var/minidlna.conf"

stop_daemon 60
check "SIGTERM: the daemon ended" no_daemon
trap - EXIT
detach_disk sda >/dev/null 2>&1 || true
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
