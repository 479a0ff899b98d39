#!/bin/bash
# Nothing is lost, with Samba on and real loop disks: a volume that nothing
# can mount leaves no folder and no share; an exFAT stick mounts through
# FUSE, is shared, and a file written through Samba reads back after an
# unplug and a replug; a program whose name merely contains "smbd" stalls
# no reload; a busy disk pulled out is detached and its removal finishes; a
# safe removal of a busy disk leaves the commands answered and gives up,
# leaving the disk mounted and shared; the shutdown deletes nothing on a
# busy disk and kills no shell it did not start. Runs inside
# scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

# MiniDLNA has its own test; off here so that reloads are Samba's alone.
sed -i -e 's/^USBMGR\.MINIDLNA\.ENABLE=.*/USBMGR.MINIDLNA.ENABLE=0/' /var/config/usbmgr.conf

work=$(mktemp -d /tmp/lost.XXXXXX)
helpers=()

cleanup() {
    exec 7<&- 2>/dev/null || true
    local p
    for p in "${helpers[@]}"; do kill -9 "$p" 2>/dev/null || true; done
    umount "$work/mnt" 2>/dev/null || true
    leave_sandbox 30 sda sdb sdc
}
trap cleanup EXIT

running() { pgrep -x "$1" >/dev/null; }
shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }'; }
has_share() { shares | grep -qxF -- "$1"; }
lacks_share() { ! has_share "$1"; }
mounted_as() { [ "$(findmnt -rn -o SOURCE,FSTYPE --mountpoint "$1" 2>/dev/null)" = "$2" ]; }
not_mounted() { ! findmnt -rn --mountpoint "$1" >/dev/null 2>&1; }
smb() { smbclient "//127.0.0.1/$1" -U 'root%root-pw' -c "$2" >/dev/null 2>&1; }
# A command is answered in its usual time: within 3 s.
answers() { timeout 3 usbmgrctl service 0 --json >/dev/null; }

echo "1:root:root-pw" >/var/config/orbsm.users

make_disk_image "$work/blank.img" 16 none 1
make_disk_image "$work/exfat.img" 32 exfat 1
make_disk_image "$work/ext4.img" 32 ext4 1
attach_disk sda "$work/blank.img" >/dev/null
attach_disk sdb "$work/exfat.img" >/dev/null
attach_disk sdc "$work/ext4.img" >/dev/null

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
check "smbd runs" wait_for "running smbd" 15
start_monitor

# --- a volume that nothing could mount
usbmgrctl plug --port 1-1 --device sda,sda1 --serial SER-BLANK >/dev/null
check "unmountable volume: the mount is logged as failed" wait_log "mount /var/dev/sda1 fail" 15
check "unmountable volume: no NTFS success is logged" bash -c "! grep -qF 'mount /var/dev/sda1 NTFS' '$ORBIIL_LOG_FILE'"
check "unmountable volume: no folder is left behind" [ ! -e /tmp/disk/sda1 ]
check "unmountable volume: its table row stays" log_has "attach_device       = sda,sda1"

# --- exFAT through FUSE
usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial SER-EXFAT >/dev/null
check "exFAT volume: mounted through FUSE" wait_for "mounted_as /tmp/disk/sdb1 '/var/dev/sdb1 fuseblk'" 15
check "exFAT volume: the log names the exFAT mount" log_has "mount /var/dev/sdb1 exFAT /tmp/disk/sdb1 success"
check "exFAT volume: shared" wait_for "has_share sdb1" 30
check "unmountable volume: never shared" lacks_share sda1
check "unmountable volume: no share path in smb.conf" bash -c "! grep -qF 'path = /tmp/disk/sda1' /etc/samba/smb.conf"
head -c 200000 /dev/urandom >"$work/payload"
check "exFAT volume: a file is written through Samba" smb sdb1 "put $work/payload payload.bin"
usbmgrctl unplug --port 1-2 --device sdb,sdb1 >/dev/null
check "exFAT volume: unplugged" wait_for "not_mounted /tmp/disk/sdb1" 15
detach_disk sdb
attach_disk sdb "$work/exfat.img" >/dev/null
usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial SER-EXFAT >/dev/null
check "exFAT volume: shared again after the replug" wait_for "has_share sdb1" 30
rm -f "$work/back"
smb sdb1 "get payload.bin $work/back" || true
check "exFAT volume: the file reads back after an unplug and a replug" cmp -s "$work/payload" "$work/back"

# --- a program whose name merely contains smbd
cp /bin/sleep "$work/smbdx"
"$work/smbdx" 600 &
helpers+=($!)
usbmgrctl plug --port 1-3 --device sdc,sdc1 --serial SER-EXT4 >/dev/null
check "smbdx running: the reload still ends and shares the new disk" wait_for "has_share sdc1" 30
check "smbdx running: commands are answered" answers
check "smbdx running: it was not killed" kill -0 "${helpers[-1]}"

# --- surprise removal of a busy disk
echo data >/tmp/disk/sdc1/file
exec 7</tmp/disk/sdc1/file
usbmgrctl unplug --port 1-3 --device sdc,sdc1 >/dev/null
check "busy disk pulled out: detached" wait_log "umount /tmp/disk/sdc1 busy, detached" 10
check "busy disk pulled out: commands are answered" answers
check "busy disk pulled out: no longer mounted" not_mounted /tmp/disk/sdc1
check "busy disk pulled out: the removal finishes" wait_for '[ "$(count_kind 1)" -ge 2 ]' 10
exec 7<&-

# --- safe removal of a busy disk
detach_disk sdc
attach_disk sdc "$work/ext4.img" >/dev/null
usbmgrctl plug --port 1-3 --device sdc,sdc1 --serial SER-EXT4 >/dev/null
check "busy safe removal: the disk is shared" wait_for "has_share sdc1" 30
exec 7</tmp/disk/sdc1/file
slot=$(usbmgrctl service 0 --json | grep -o '"PhysicalMediumNumberOfEntries":[0-9]*' | cut -d: -f2)
usbmgrctl safe-remove 0 $((slot - 1)) >/dev/null
check "busy safe removal: the worker tries the unmount" wait_log "try to umount /tmp/disk/sdc1 , count = 1" 10
sleep 1 # inside the worker's wait between two tries, not a wait for a result
check "busy safe removal: commands are answered meanwhile" answers
check "busy safe removal: gives up with one log line" wait_log "safe remove sdc,sdc1 gave up: disk busy" 40
check "busy safe removal: the disk stays mounted" mounted_as /tmp/disk/sdc1 "/var/dev/sdc1 ext4"
check "busy safe removal: the disk is shared again" wait_for "has_share sdc1" 30
exec 7<&-

# --- shutdown with a busy disk and a shell the daemon did not start
mkdir -p /tmp/disk/sdc1/Photos
echo keep >/tmp/disk/sdc1/Photos/keep.txt
(cd /tmp/disk/sdc1/Photos && exec sleep 600) &
helpers+=($!)
cp /bin/sleep "$work/sh"
"$work/sh" 600 &
helpers+=($!)
foreign_sh=$!
stop_daemon 15
check "shutdown: a shell the daemon did not start survives" kill -0 "$foreign_sh"
check "shutdown: nothing stays mounted under the mount root" bash -c "! findmnt -rn -o TARGET | grep -q '^/tmp/disk/'"
check "shutdown: the busy disk's folder is gone" [ ! -e /tmp/disk/sdc1 ]
for p in "${helpers[@]}"; do kill -9 "$p" 2>/dev/null || true; done
helpers=()
make_disk_nodes sdc
mkdir -p "$work/mnt"
mount /var/dev/sdc1 "$work/mnt"
check "shutdown: the busy disk keeps its files" grep -qx keep "$work/mnt/Photos/keep.txt"
umount "$work/mnt"
