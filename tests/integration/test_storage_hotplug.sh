#!/bin/bash
# Storage hot-plug end to end with loop-image disks: arrival mounts every
# partition and records the disk in the history file, the change
# notification follows after the deferral, NTFS goes through ntfs-3g, a
# burst of arrivals is notified together, removal undoes the mounts (and
# detaches a busy volume), folders made on a volume are notified, a
# restarted daemon finds the attached disk, and SIGTERM unmounts all.
# Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

# Samba and MiniDLNA have a sandbox test of their own. Off here, so that the
# deferred reload only rewrites their files and the notifications come
# within this test's deadlines.
sed -i -e 's/^USBMGR\.SAMBA\.ENABLE=.*/USBMGR.SAMBA.ENABLE=0/' \
    -e 's/^USBMGR\.MINIDLNA\.ENABLE=.*/USBMGR.MINIDLNA.ENABLE=0/' /var/config/usbmgr.conf


work=$(mktemp -d /tmp/hotplug.XXXXXX)
history=/var/config/tr140.conf
monitor_pid=""

cleanup() {
    exec 7<&- 2>/dev/null || true
    leave_sandbox 15 sda sdb
}
trap cleanup EXIT




mounted_as() { [ "$(findmnt -rn -o SOURCE,FSTYPE --mountpoint "$1" 2>/dev/null)" = "$2" ]; }
not_mounted() { ! findmnt -rn --mountpoint "$1" >/dev/null 2>&1; }
nothing_under_mount_root() { ! findmnt -rn -o TARGET | grep -q '^/tmp/disk'; }
saves() { grep -c 'cfg save' /var/log/orbcm_util.log 2>/dev/null || true; }

check "the NTFS mount helper is hidden" [ ! -e /sbin/mount.ntfs -a -x /bin/ntfs-3g ]

make_disk_image "$work/ext4.img" 64 ext4 2
make_disk_image "$work/ntfs.img" 32 ntfs 1
attach_disk sda "$work/ext4.img" >/dev/null
attach_disk sdb "$work/ntfs.img" >/dev/null

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
start_monitor

# --- an ext4 disk with two partitions
t0=$(now_us)
usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial SER-EXT4 --vendor ACME --product Stick >/dev/null
check "ext4: kind 0 notified" wait_for '[ "$(count_kind 0)" -ge 1 ]' 5
delay_us=$(($(kind_time 0 1) - t0))
echo "# ext4 arrival notified $((delay_us / 1000)) ms after the plug"
check "ext4: the notification waits for the deferral (>= 0.8 s)" [ "$delay_us" -ge 800000 ]
check "ext4: sda1 mounted on /tmp/disk/sda1" mounted_as /tmp/disk/sda1 "/var/dev/sda1 ext4"
check "ext4: sda2 mounted on /tmp/disk/sda2" mounted_as /tmp/disk/sda2 "/var/dev/sda2 ext4"
printf '%s\n' USBMGR.0.SERIAL_NUMBER=SER-EXT4 USBMGR.0.PNAME= USBMGR.0.NAME.0= USBMGR.0.ENABLE.0=1 \
    USBMGR.0.NAME.1= USBMGR.0.ENABLE.1=1 >"$work/history.expected"
check "ext4: the history file holds exactly the new record" cmp -s "$work/history.expected" "$history"
check "ext4: the log shows the arrival" log_has "EVENT - DUSB_EVT_NEW_STORAGE_INTERFACE"
check "ext4: the log shows the device list" log_has "   AttachDevice           = sda,sda1,sda2"
check "ext4: the log shows the serial" log_has "   SerialNumber           = SER-EXT4"
check "ext4: the log shows the vendor and product" bash -c "grep -qF '   Manufacturer           = ACME' '$ORBIIL_LOG_FILE' && grep -qF '   ProductClass           = Stick' '$ORBIIL_LOG_FILE'"
check "ext4: the configuration manager got a cfg save" [ "$(saves)" -ge 1 ]
# The rebuild after the arrival logs both device tables.
check "ext4: the disk table holds the disk" log_has "attach_device       = sda,sda1,sda2"
check "ext4: the disk table holds its serial and vendor" bash -c "grep -qF 'serial_number       = SER-EXT4' '$ORBIIL_LOG_FILE' && grep -qF 'vendor              = ACME' '$ORBIIL_LOG_FILE'"
check "ext4: the volume table holds sda1 and sda2" bash -c "grep -qF 'name                = sda1' '$ORBIIL_LOG_FILE' && grep -qF 'name                = sda2' '$ORBIIL_LOG_FILE'"

# --- an NTFS disk
usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial SER-NTFS >/dev/null
check "ntfs: kind 0 notified" wait_for '[ "$(count_kind 0)" -ge 2 ]' 5
check "ntfs: sdb1 mounted through ntfs-3g (fuseblk)" mounted_as /tmp/disk/sdb1 "/var/dev/sdb1 fuseblk"
check "ntfs: the log names the NTFS mount" log_has "mount /var/dev/sdb1 NTFS /tmp/disk/sdb1 success"
check "ntfs: the history file learns the serial" grep -qx 'USBMGR.1.SERIAL_NUMBER=SER-NTFS' "$history"

# --- folders at the top of a volume
mkdir /tmp/disk/sda1/.cache
rc=0
usbmgrctl monitor --count 1 --timeout 6 >"$work/quiet.out" 2>/dev/null || rc=$?
check "folder .cache: no notification within 6 s" [ "$rc" -eq 1 -a ! -s "$work/quiet.out" ]
mkdir /tmp/disk/sda1/Music
check "folder Music: kind 10 notified" wait_for '[ "$(count_kind 10)" -ge 1 ]' 6
check "folder Music: the watcher logged it" log_has "event->name = Music"
check "folder .cache: the watcher ignored it" bash -c "! grep -q 'event->name = .cache' '$ORBIIL_LOG_FILE'"

# --- removal
cp "$history" "$work/history.before"
saves_before=$(saves)
usbmgrctl unplug --port 1-1 --device sda,sda1,sda2 >/dev/null
check "unplug: kind 1 notified" wait_for '[ "$(count_kind 1)" -ge 1 ]' 5
check "unplug: sda1 and sda2 unmounted" bash -c "! findmnt -rn --mountpoint /tmp/disk/sda1 && ! findmnt -rn --mountpoint /tmp/disk/sda2"
check "unplug: mount folders removed" [ ! -e /tmp/disk/sda1 -a ! -e /tmp/disk/sda2 ]
check "unplug: nodes /var/dev/sda* removed" [ -z "$(ls /var/dev | grep '^sda' || true)" ]
check "unplug: history file unchanged" cmp -s "$work/history.before" "$history"
check "unplug: no cfg save" [ "$(saves)" -eq "$saves_before" ]
check "unplug: the other disk stays mounted" mounted_as /tmp/disk/sdb1 "/var/dev/sdb1 fuseblk"

# --- the same disk again, then removal while a file is held open
detach_disk sda
attach_disk sda "$work/ext4.img" >/dev/null
usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial SER-EXT4 --vendor ACME --product Stick >/dev/null
check "replug: kind 0 notified" wait_for '[ "$(count_kind 0)" -ge 3 ]' 5
check "replug: mounted again" mounted_as /tmp/disk/sda1 "/var/dev/sda1 ext4"
check "replug: same disk, history file unchanged" cmp -s "$work/history.before" "$history"
check "replug: same disk, no cfg save" [ "$(saves)" -eq "$saves_before" ]
echo data >/tmp/disk/sda1/file
exec 7</tmp/disk/sda1/file
usbmgrctl unplug --port 1-1 --device sda,sda1,sda2 >/dev/null
check "busy: a pulled disk in use is detached" wait_log "umount /tmp/disk/sda1 busy, detached" 6
check "busy: no longer mounted while the file is open" not_mounted /tmp/disk/sda1
check "busy: the open file still reads" [ "$(cat <&7)" = data ]
exec 7<&-
check "busy: both folders gone" wait_for "[ ! -e /tmp/disk/sda1 -a ! -e /tmp/disk/sda2 ]" 6
check "busy: kind 1 notified" wait_for '[ "$(count_kind 1)" -ge 2 ]' 5

# --- two disks 0.5 s apart
usbmgrctl unplug --port 1-2 --device sdb,sdb1 >/dev/null
check "sdb unplugged" wait_for '[ "$(count_kind 1)" -ge 3 ]' 5
detach_disk sda
detach_disk sdb
attach_disk sda "$work/ext4.img" >/dev/null
attach_disk sdb "$work/ntfs.img" >/dev/null
before=$(count_kind 0)
usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial SER-EXT4 >/dev/null
sleep 0.5 # the gap between the two arrivals, not a wait for a result
t_second=$(now_us)
usbmgrctl plug --port 1-2 --device sdb,sdb1 --serial SER-NTFS >/dev/null
check "burst: two kind 0 notifications" wait_for "[ \$(count_kind 0) -ge $((before + 2)) ]" 5
first=$(kind_time 0 $((before + 1)))
second=$(kind_time 0 $((before + 2)))
echo "# burst: notifications $(((first - t_second) / 1000)) ms and $(((second - t_second) / 1000)) ms after the second plug"
check "burst: both after the deferral of the second plug" [ $((first - t_second)) -ge 800000 -a $((second - t_second)) -ge 800000 ]
check "burst: both arrive together (within 0.3 s)" [ $((second - first)) -le 300000 ]
check "burst: both disks mounted" bash -c "findmnt -rn --mountpoint /tmp/disk/sda1 >/dev/null && findmnt -rn --mountpoint /tmp/disk/sdb1 >/dev/null"

# --- SIGTERM unmounts all
stop_daemon 15
check "SIGTERM: the daemon ended" no_daemon
check "SIGTERM: nothing stays mounted under /tmp/disk" nothing_under_mount_root
check "SIGTERM: /var/dev is empty" [ -z "$(ls -A /var/dev)" ]

# --- a restarted daemon finds the attached disk
detach_disk sda
detach_disk sdb
attach_disk sda "$work/ext4.img" >/dev/null
rm -f /tmp/usb/*
printf 'sda,sda1,sda2\r\n' >/tmp/usb/1-1
sysfs="$work/sysfs"
mkdir -p "$sysfs/1-1"
printf '1\n' >"$sysfs/1-1/busnum"
printf '2\n' >"$sysfs/1-1/devnum"
printf ' 2.00\n' >"$sysfs/1-1/version"
printf '0100\n' >"$sysfs/1-1/bcdDevice"
printf 'Fake Vendor\n' >"$sysfs/1-1/manufacturer"
printf 'Fake Model\n' >"$sysfs/1-1/product"
printf 'SYSFS-SER-1\n' >"$sysfs/1-1/serial"
: >"$ORBIIL_LOG_FILE"
daemon=$(DUSB_SYSFS_ROOT="$sysfs" start_daemon debug)
check "restart: daemon started" [ -n "$daemon" ]
check "restart: the start-up mount looked for disks" log_has "Check Exist Disk ..."
# Readiness comes right after the bus connection, before the start-up work:
# wait for the table print that ends it.
wait_log "serial_number       = SYSFS-SER-1" 10 || true
check "restart: sda1 mounted at start-up" mounted_as /tmp/disk/sda1 "/var/dev/sda1 ext4"
check "restart: sda2 mounted at start-up" mounted_as /tmp/disk/sda2 "/var/dev/sda2 ext4"
check "restart: table print shows the device list" log_has "attach_device       = sda,sda1,sda2"
check "restart: table print shows the vendor" log_has "vendor              = Fake Vendor"
check "restart: table print shows the model" log_has "model               = Fake Model"
check "restart: table print shows the serial" log_has "serial_number       = SYSFS-SER-1"
grep -E '(usb_version|firmware_version) ' "$ORBIIL_LOG_FILE" | sed 's/^.*DEBUG [^ ]* /# /' || true
check "restart: the history file gets the serial" grep -q '^USBMGR\.[0-9]*\.SERIAL_NUMBER=SYSFS-SER-1$' "$history"
check "restart: both volumes in the table" bash -c "grep -q 'name                = sda1' '$ORBIIL_LOG_FILE' && grep -q 'name                = sda2' '$ORBIIL_LOG_FILE'"

stop_daemon 15
check "final SIGTERM: nothing stays mounted under /tmp/disk" nothing_under_mount_root
check "final SIGTERM: /var/dev is empty" [ -z "$(ls -A /var/dev)" ]

kill "$monitor_pid" 2>/dev/null || true
monitor_pid=""
detach_disk sda
trap - EXIT
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
