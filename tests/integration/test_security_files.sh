#!/bin/bash
# Files and mounts an unprivileged local user could turn against the daemon:
# links planted where the daemon writes or mounts, and what a mounted disk
# may bring. Each case is named after the attack it stops. Runs inside
# scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/security.XXXXXX)
settings=/var/config/usbmgr.conf
smbpasswd=/var/samba/smbpasswd
smb_conf=/etc/samba/smb.conf
root=/tmp/disk

cleanup() { leave_sandbox 30 sda sdb; }
trap cleanup EXIT

conf_setting() { sed -n "s/^$1=//p" "$settings"; }
mode_of() { stat -c %a "$1"; }
shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }'; }
mount_options() { findmnt -rn -o OPTIONS --mountpoint "$1"; }
has_options() { mount_options "$1" | tr ',' '\n' | grep -qx nosuid && mount_options "$1" | tr ',' '\n' | grep -qx nodev; }

# Another root-only file, and the fixed temporary names of the settings and
# history rewrites planted as links to it.
victim=/var/lib/victim
mkdir -p /var/lib
echo "root only" >"$victim"
chmod 0600 "$victim"
ln -s "$victim" /tmp/usbmgr.temp
ln -s "$victim" /tmp/tr140.temp
chmod 0644 "$settings"
echo "1:root:root-pw" >/var/config/orbsm.users

make_disk_image "$work/ext4.img" 64 ext4 2
make_disk_image "$work/ntfs.img" 32 ntfs 1
attach_disk sda "$work/ext4.img" >/dev/null
attach_disk sdb "$work/ntfs.img" >/dev/null

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
check "the mount root is made at start" bash -c "[ -d $root ] && [ ! -L $root ]"

# --- a symlink planted as /tmp/usbmgr.temp made the daemon overwrite another root-only file with the settings
usbmgrctl user-add alice alice-pw >"$work/add.out"
check "usbmgr.temp link: the user was added" grep -qx '  result = 0 (success)' "$work/add.out"
check "usbmgr.temp link: a setting is saved" \
    bash -c "usbmgrctl minidlna-set friendly_name SecureBox | grep -qx 'code: 0 OK'"
check "usbmgr.temp link: the settings hold the new value" [ "$(conf_setting USBMGR.MINIDLNA.FRIENDLY_NAME)" = SecureBox ]
check "usbmgr.temp link: the settings hold the user" [ "$(conf_setting USBMGR.SAMBA.USER_NAME.0)" = alice ]
check "usbmgr.temp link: the root-only file is untouched" [ "$(cat "$victim")" = "root only" ]
check "usbmgr.temp link: the planted links are left as they were" bash -c "[ -L /tmp/usbmgr.temp ] && [ -L /tmp/tr140.temp ]"
check "usbmgr.temp link: no new file is left beside the settings" \
    bash -c "[ -z \"\$(find /var/config -maxdepth 1 -name 'usbmgr.conf.*')\" ]"

# --- the settings file was 0644
check "settings mode: the settings file is 0600" [ "$(mode_of "$settings")" = 600 ]
check "settings mode: Samba's password file is 0600" [ "$(mode_of "$smbpasswd")" = 600 ]

# --- a symlink sda1 in the mount root pointing elsewhere got the disk mounted over that folder
mkdir -p /var/lib/elsewhere
echo kept >/var/lib/elsewhere/file
ln -s /var/lib/elsewhere "$root/sda1"
# --- a symlink to / in the mount root became a share
ln -s / "$root/sdc1"
usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial SER-SEC-1 >/dev/null
usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial SER-SEC-2 >/dev/null
check "plug: the good partitions mount" wait_for "mountpoint -q $root/sda2 && mountpoint -q $root/sdb1" 30
check "sda1 link: nothing is mounted over the folder it points at" bash -c "! mountpoint -q /var/lib/elsewhere"
check "sda1 link: the folder it points at keeps its file" [ "$(cat /var/lib/elsewhere/file)" = kept ]
check "sda1 link: the link stays a link" [ -L "$root/sda1" ]
check "sda1 link: the refusal is logged" log_has "refusing folder $root/sda1: a link"
check "share: the good volumes are shared" wait_for "[ \"\$(shares | sort | tr '\n' ' ')\" = 'sda2 sdb1 ' ]" 30
check "root link: the link to / is not shared" bash -c "! grep -qF 'path = $root/sdc1' '$smb_conf'"
check "root link: the link to sda1's target is not shared" bash -c "! grep -qF 'path = $root/sda1' '$smb_conf'"
check "root link: the refusal is logged" log_has "refusing folder $root/sdc1: a link"
check "history: the disks are recorded" grep -qx USBMGR.1.SERIAL_NUMBER=SER-SEC-2 /var/config/tr140.conf
check "history: the root-only file is untouched" [ "$(cat "$victim")" = "root only" ]

# --- mounts lacked nosuid,nodev
check "nosuid,nodev: the ext4 volume is mounted with both" has_options "$root/sda2"
check "nosuid,nodev: the NTFS volume is mounted with both" has_options "$root/sdb1"
# A set-user-id copy of a shell on the disk does not raise whoever runs it.
cp /bin/sh "$root/sda2/rootshell"
chmod 4755 "$root/sda2/rootshell"
check "nosuid,nodev: a set-user-id program on the disk runs without root" \
    bash -c "[ \"\$(setpriv --reuid=65534 --regid=65534 --clear-groups $root/sda2/rootshell -p -c 'id -u')\" = 65534 ]"

stop_daemon 30
trap - EXIT
detach_disk sda
detach_disk sdb 2>/dev/null || true
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
