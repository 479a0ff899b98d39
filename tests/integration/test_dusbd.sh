#!/bin/bash
# dusbd end to end: it reads the kernel's uevents from a FIFO, in the
# kernel's order, over a fake sysfs tree (DUSB_SYSFS_ROOT) whose USB disk
# is a loop-image disk; usbmgrd then mounts and shares it as it does for
# `usbmgrctl plug`. An internal disk's and a loop device's uevents are left
# alone; a ttyUSB adapter gets its node; the removal unmounts and removes
# the port file; the end of the FIFO ends dusbd. Runs inside scripts/sandbox.sh.
set -euo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

# Samba shares the disk; MiniDLNA has its own test.
sed -i -e 's/^USBMGR\.MINIDLNA\.ENABLE=.*/USBMGR.MINIDLNA.ENABLE=0/' /var/config/usbmgr.conf

work=$(mktemp -d /tmp/dusbd.XXXXXX)
monitor_pid=""
dusbd_pid=""
cleanup() {
    exec 3>&- 2>/dev/null || true
    [ -z "$dusbd_pid" ] || kill "$dusbd_pid" 2>/dev/null || true
    leave_sandbox 30 sdb
}
trap cleanup EXIT

mounted_as() { [ "$(findmnt -rn -o SOURCE,FSTYPE --mountpoint "$1" 2>/dev/null)" = "$2" ]; }
shares() { smbclient -L 127.0.0.1 -N -g 2>/dev/null | awk -F'|' '$1 == "Disk" { print $2 }'; }
has_share() { shares | grep -qxF -- "$1"; }
lacks_share() { ! has_share "$1"; }

# --- the fake sysfs: a stick on port 1-2, an internal SATA disk, a loop
# device and a serial adapter on port 1-3, shaped as the kernel's.
sys="$work/sys"
hub=/devices/pci0000:00/0000:00:14.0/usb1
usb=$hub/1-2
scsi=$usb/1-2:1.0/host6/target6:0:0/6:0:0:0
disk=$scsi/block/sdb
sata=/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/block/sda
serial=$hub/1-3
tty=$serial/1-3:1.0/ttyUSB0/tty/ttyUSB0
put() { mkdir -p "$sys$1" && printf '%s\n' "$3" >"$sys$1/$2"; }
put "$usb" idVendor 0781
put "$usb" idProduct 5567
put "$usb" bDeviceClass 00
put "$usb" bDeviceSubClass 00
put "$usb" bDeviceProtocol 00
put "$usb" version " 2.10"
put "$usb" bcdDevice 0100
put "$usb" manufacturer SanDisk
put "$usb" product "Cruzer Blade"
put "$usb" serial 4C530001230518117223
put "$disk" size 131072
put "$disk/sdb1" partition 1
put "$disk/sdb2" partition 2
put "$sata" size 976773168
put "$sata/sda1" partition 1
put /devices/virtual/block/loop0 size 131072
put "$serial" idVendor 0403
put "$serial" idProduct 6001
put "$serial" serial A50285BI
put "$tty" dev 188:0

make_disk_image "$work/ext4.img" 64 ext4 2
attach_disk sdb "$work/ext4.img" >/dev/null

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
check "smbd runs" wait_for "pgrep -x smbd" 15
start_monitor

mkfifo "$work/uevents"
DUSB_SYSFS_ROOT="$sys" setsid dusbd --uevents "$work/uevents" --settle-ms 300 --log-level 4 </dev/null \
    >>/var/log/dusbd.out 2>&1 &
dusbd_pid=$!
exec 3>"$work/uevents"
check "dusbd owns DUSB_DMON" wait_for "bus_has_name DUSB_DMON" 10

# uevent ACTION DEVPATH SUBSYSTEM [DEVTYPE [DEVNAME]]: one block as
# `udevadm monitor --kernel --property` prints it.
seq=4000
uevent() {
    seq=$((seq + 1))
    {
        printf 'KERNEL[%d.000000] %-8s %s (%s)\n' "$seq" "$1" "$2" "$3"
        printf 'ACTION=%s\nDEVPATH=%s\nSUBSYSTEM=%s\n' "$1" "$2" "$3"
        [ -z "${5:-}" ] || printf 'DEVNAME=%s\n' "$5"
        [ -z "${4:-}" ] || printf 'DEVTYPE=%s\n' "$4"
        printf 'SEQNUM=%d\n\n' "$seq"
    } >&3
}

# --- an internal disk and a loop device: nothing happens
uevent add "$sata" block disk sda
uevent add "$sata/sda1" block partition sda1
uevent add /devices/virtual/block/loop0 block disk loop0

# --- the stick, in the kernel's order
uevent add "$usb" usb usb_device bus/usb/001/005
uevent add "$usb/1-2:1.0" usb usb_interface
uevent add "$usb/1-2:1.0/host6" scsi scsi_host
uevent bind "$usb" usb usb_device bus/usb/001/005
uevent add "$usb/1-2:1.0/host6/target6:0:0" scsi scsi_target
uevent add "$scsi" scsi scsi_device
uevent add "$scsi/scsi_generic/sg1" scsi_generic "" sg1
uevent add /devices/virtual/bdi/8:16 bdi
uevent add "$disk" block disk sdb
uevent add "$disk/sdb1" block partition sdb1
uevent add "$disk/sdb2" block partition sdb2

check "stick: the port file holds the disk and its partitions" \
    wait_for "[ \"\$(cat /tmp/usb/1-2 2>/dev/null)\" = \$'sdb,sdb1,sdb2\r' ]" 5
check "stick: kind 0 notified" wait_for '[ "$(count_kind 0)" -ge 1 ]' 5
check "stick: sdb1 mounted" mounted_as /tmp/disk/sdb1 "/var/dev/sdb1 ext4"
check "stick: sdb2 mounted" mounted_as /tmp/disk/sdb2 "/var/dev/sdb2 ext4"
check "stick: the log shows the device list" log_has "   AttachDevice           = sdb,sdb1,sdb2"
check "stick: the log shows the serial from sysfs" log_has "   SerialNumber           = 4C530001230518117223"
check "stick: the log shows the vendor id" log_has "   VendorID               = 0x0781"
check "stick: the log shows the USB version trimmed" log_has "   USBVersion             = 2.10"
check "stick: the log shows the release number" log_has "   DeviceVersion          = 256"
check "stick: the history file learns the serial" grep -qx 'USBMGR.0.SERIAL_NUMBER=4C530001230518117223' \
    /var/config/tr140.conf
check "stick: Samba shares sdb1" wait_for "has_share sdb1" 15
check "stick: Samba shares sdb2" has_share sdb2
check "internal disk and loop device: no port file, one arrival" \
    [ "$(ls /tmp/usb)" = 1-2 -a "$(grep -c 'EVENT - DUSB_EVT_NEW_STORAGE_INTERFACE' "$ORBIIL_LOG_FILE")" -eq 1 ]

# --- a serial adapter
uevent add "$serial" usb usb_device bus/usb/001/006
uevent add "$serial/1-3:1.0" usb usb_interface
uevent add "$serial/1-3:1.0/ttyUSB0" usb-serial
uevent add "$tty" tty "" ttyUSB0
check "serial: the daemon got event 6" wait_log "EVENT - DUSB_EVT_NEW_USB_SERIAL_INTERFACE" 5
check "serial: its node is made" wait_for "[ -c /var/dev/ttyUSB0 ]" 5
check "serial: the port file names it" [ "$(cat /tmp/usb/1-3)" = $'ttyUSB0\r' ]
uevent remove "$tty" tty "" ttyUSB0
uevent remove "$serial" usb usb_device bus/usb/001/006
check "serial: the node goes with event 13" wait_for "[ ! -e /var/dev/ttyUSB0 ]" 5
check "serial: the port file goes" [ ! -e /tmp/usb/1-3 ]

# --- the stick goes, in the kernel's order
rm -rf "${sys:?}$usb"
uevent remove "$disk/sdb1" block partition sdb1
uevent remove "$disk/sdb2" block partition sdb2
uevent remove /devices/virtual/bdi/8:16 bdi
uevent remove "$disk" block disk sdb
uevent remove "$scsi" scsi scsi_device
uevent remove "$usb/1-2:1.0/host6/target6:0:0" scsi scsi_target
uevent remove "$usb/1-2:1.0/host6" scsi scsi_host
uevent remove "$usb/1-2:1.0" usb usb_interface
uevent remove "$usb" usb usb_device bus/usb/001/005
check "removal: kind 1 notified" wait_for '[ "$(count_kind 1)" -ge 1 ]' 10
check "removal: the port file is gone" [ ! -e /tmp/usb/1-2 ]
check "removal: sdb1 and sdb2 unmounted" bash -c "! findmnt -rn --mountpoint /tmp/disk/sdb1 && ! findmnt -rn --mountpoint /tmp/disk/sdb2"
check "removal: the log shows the removal" log_has "EVENT - DUSB_EVT_REMOVE_STORAGE_INTERFACE"
check "removal: Samba no longer shares sdb1" wait_for "lacks_share sdb1" 15

# --- the end of the FIFO ends dusbd
exec 3>&-
check "dusbd ends at the end of its input" wait_for "! kill -0 $dusbd_pid 2>/dev/null" 5
rc=0
wait "$dusbd_pid" || rc=$?
dusbd_pid=""
check "dusbd ended with status 0" [ "$rc" -eq 0 ]

kill "$monitor_pid" 2>/dev/null || true
monitor_pid=""
stop_daemon 30
detach_disk sdb
trap - EXIT
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
