#!/bin/bash
# The sharing servers end to end with the factory settings (Samba and
# MiniDLNA enabled): both start with the daemon; after an ext4 disk with two
# partitions (one disabled in the history file, one named there) and an NTFS
# disk are plugged, the generated smb.conf passes testparm, smbclient lists
# one share per enabled volume under its stored name (the device name when
# there is none) and none for the disabled volume; a stored Samba user reads
# a share through the gateway account's map; unplugging a disk removes its
# share after the reload; minidlnad serves its description with the
# configured friendly name. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/sharing.XXXXXX)
smb_conf=/etc/samba/smb.conf
history=/var/config/tr140.conf

cleanup() { leave_sandbox 30 sda sdb; }
trap cleanup EXIT

running() { pgrep -x "$1" >/dev/null; }
# The share names smbclient lists anonymously, one a line.
shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }'; }
has_share() { shares | grep -qxF -- "$1"; }
lacks_share() { ! has_share "$1"; }
conf_setting() { sed -n "s/^$1=//p" /var/config/usbmgr.conf; }
friendly_name=$(conf_setting USBMGR.MINIDLNA.FRIENDLY_NAME)
port=$(conf_setting USBMGR.MINIDLNA.PORT)
root_desc() { curl -s --max-time 2 "http://127.0.0.1:$port/rootDesc.xml"; }

check "the factory settings enable Samba" [ "$(conf_setting USBMGR.SAMBA.ENABLE)" = 1 ]
check "the factory settings enable MiniDLNA" [ "$(conf_setting USBMGR.MINIDLNA.ENABLE)" = 1 ]
check "the factory settings write smb.conf where Samba reads it" [ "$(conf_setting USBMGR.SAMBA.CONF_DIR)" = "$smb_conf" ]

make_disk_image "$work/ext4.img" 64 ext4 2
make_disk_image "$work/ntfs.img" 32 ntfs 1
attach_disk sda "$work/ext4.img" >/dev/null
attach_disk sdb "$work/ntfs.img" >/dev/null

# The ext4 disk is known already: its first volume switched off, its second named.
printf '%s\n' USBMGR.0.SERIAL_NUMBER=SER-SHARE USBMGR.0.PNAME= USBMGR.0.NAME.0= USBMGR.0.ENABLE.0=0 \
    USBMGR.0.NAME.1=Photos USBMGR.0.ENABLE.1=1 >"$history"

# A gateway account that the Samba users map to, and one stored Samba user.
echo "1:root:root-pw" >/var/config/orbsm.users
printf '%s\n' USBMGR.SAMBA.USER_NAME.0=alice USBMGR.SAMBA.USER_PASSWORD.0=alice-pw USBMGR.SAMBA.USER_ENABLE.0=1 \
    >>/var/config/usbmgr.conf

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]

# --- at start
check "start: smbd runs" wait_for "running smbd" 15
check "start: nmbd runs" wait_for "running nmbd" 15
check "start: minidlnad runs" wait_for "running minidlnad" 15
check "start: the log shows the Samba start" log_has "Start Samba"
check "start: the log shows the MiniDLNA start" log_has "Start minidlna"
check "start: smb.conf is the global section alone" [ "$(grep -c '^\[' "$smb_conf")" -eq 1 ]
check "start: minidlna.conf names the media folder" grep -qx "media_dir=$(conf_setting USBMGR.MINIDLNA.MEDIA_DIR)" \
    "$(conf_setting USBMGR.MINIDLNA.CONF_DIR)"
check "start: minidlnad serves its description" wait_for "root_desc | grep -q '<friendlyName>'" 20
check "start: the description carries the configured friendly name" \
    bash -c "curl -s --max-time 2 http://127.0.0.1:$port/rootDesc.xml | grep -qF '<friendlyName>$friendly_name'"

# --- plug both disks
usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial SER-SHARE --vendor ACME --product Stick >/dev/null
usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial SER-NTFS >/dev/null
check "plug: the named volume is shared" wait_for "has_share Photos" 30
check "plug: the unnamed NTFS volume is shared under its device name" wait_for "has_share sdb1" 30
check "plug: the disabled volume has no share" lacks_share sda1
check "plug: nothing else is shared" [ "$(shares | sort | tr '\n' ' ')" = "Photos sdb1 " ]
check "plug: the history file kept the stored names" grep -qx USBMGR.0.NAME.1=Photos "$history"
# testparm warns about the gateway's older parameters (password level,
# display charset); what counts is that it loads the file and the sections
# it parsed are the global one and the two shares.
check "plug: smb.conf passes testparm" bash -c "testparm -s '$smb_conf' >'$work/testparm.out' 2>'$work/testparm.err'"
check "plug: testparm loaded the file" grep -qF "Loaded services file OK." "$work/testparm.err"
sections=$(grep '^\[' "$work/testparm.out" | LC_ALL=C sort | tr '\n' ' ')
echo "# testparm sections: $sections"
check "plug: testparm sees the global section and the two shares" [ "$sections" = "[Photos] [global] [sdb1] " ]
check "plug: smb.conf shares the named volume from its folder" grep -qx '   path = /tmp/disk/sda2' "$smb_conf"
check "plug: smb.conf names it in the comment" grep -qx '   comment = Photos (sda2) shared disk' "$smb_conf"
echo hello >/tmp/disk/sda2/hello.txt
check "users: Samba knows the gateway account and the stored user" \
    bash -c "pdbedit -L 2>/dev/null | cut -d: -f1 | sort | tr '\n' ' ' | grep -qx 'alice root '"
check "users: the user map sends the stored user to the gateway account" \
    grep -qx 'root = alice' "$(conf_setting USBMGR.SAMBA.USERNAME_MAP_DIR)"
check "users: Samba's password file holds the gateway account and the stored user" \
    bash -c "cut -d: -f1 /var/samba/smbpasswd | sort | tr '\n' ' ' | grep -qx 'alice root '"
# The map sends every stored user to the gateway account, whose password
# Samba then checks (Samba's behaviour with security = user).
check "users: alice reads the share with the mapped account's password" \
    bash -c "smbclient //127.0.0.1/Photos -U 'alice%root-pw' -c 'get hello.txt -' 2>/dev/null | grep -qx hello"
check "users: a wrong password is refused" \
    bash -c "! smbclient //127.0.0.1/Photos -U 'alice%wrong' -c ls >/dev/null 2>&1"
check "users: no anonymous access to a share that is not public" \
    bash -c "! smbclient //127.0.0.1/Photos -N -c ls >/dev/null 2>&1"
check "plug: smbd still runs after the reload" running smbd
check "plug: minidlnad runs again after the reload" wait_for "running minidlnad" 15
check "plug: minidlnad still serves its description" wait_for "root_desc | grep -qF '<friendlyName>$friendly_name'" 20

# --- unplug the NTFS disk
minidlna_starts() { grep -c 'run command : /sbin/minidlnad' "$ORBIIL_LOG_FILE" || true; }
starts_before=$(minidlna_starts)
usbmgrctl unplug --port 1-2 --device sdb,sdb1 >/dev/null
check "unplug: the share goes after the reload" wait_for "lacks_share sdb1 && has_share Photos" 30
# The reload restarts MiniDLNA after Samba; the shutdown below takes no
# lock, so it waits for the reload to end first.
check "unplug: MiniDLNA is started again after the reload" wait_for '[ "$(minidlna_starts)" -gt "$starts_before" ]' 30
check "unplug: smb.conf has no section for it" bash -c "! grep -qx '\\[sdb1\\]' '$smb_conf'"
check "unplug: smb.conf still passes testparm" testparm -s "$smb_conf" >/dev/null 2>&1

stop_daemon 30
check "SIGTERM: smbd is stopped" bash -c "! pgrep -x smbd"
check "SIGTERM: nmbd is stopped" bash -c "! pgrep -x nmbd"
check "SIGTERM: minidlnad is stopped" bash -c "! pgrep -x minidlnad"

detach_disk sda
detach_disk sdb 2>/dev/null || true
trap - EXIT
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
