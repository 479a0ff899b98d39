#!/bin/bash
# The sandbox helpers that the other sandbox tests stand on: disk images with
# partitions, their block nodes in /var/dev, ext4 and NTFS mounts, and loop
# devices given back on detach. Runs inside scripts/sandbox.sh.
set -uo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1


bus_answers() {
    busctl --address="$ORBIIL_BUS_ADDRESS" list --no-legend | grep -q '^org.freedesktop.DBus '
}

check "/bin/smbd and /bin/nmbd exist" [ -x /bin/smbd -a -x /bin/nmbd ]
check "orbcm_util is on the PATH" [ -x "$(command -v orbcm_util)" ]
check "the private bus answers" bus_answers

make_disk_image /tmp/two.img 64 ext4 2
check "two-partition ext4 image made" [ "$(partx -g -o NR /tmp/two.img | wc -l)" -eq 2 ]
attach_disk sdb /tmp/two.img >/dev/null
check "disk and partition nodes made" [ -b /var/dev/sdb -a -b /var/dev/sdb1 -a -b /var/dev/sdb2 ]
check "loop device recorded for cleanup" [ "$(wc -l <"$USBMGR_SANDBOX_LOOPS")" -eq 1 ]
mkdir -p /tmp/m1 /tmp/m2
mount -t auto /var/dev/sdb1 /tmp/m1 && mount -t auto /var/dev/sdb2 /tmp/m2
check "both partitions mount as ext4" [ "$(findmnt -rn -o FSTYPE /tmp/m1)$(findmnt -rn -o FSTYPE /tmp/m2)" = ext4ext4 ]

make_disk_image /tmp/ntfs.img 32 ntfs 1
attach_disk sdc /tmp/ntfs.img >/dev/null
mkdir -p /tmp/n1
/bin/ntfs-3g -o nosuid,nodev /var/dev/sdc1 /tmp/n1
check "NTFS partition mounts through ntfs-3g" [ "$(findmnt -rn -o FSTYPE /tmp/n1)" = fuseblk ]
check "NTFS volume is writable" bash -c 'echo data >/tmp/n1/file && [ "$(cat /tmp/n1/file)" = data ]'

make_disk_image /tmp/whole.img 16 ext4 0
attach_disk sdd /tmp/whole.img >/dev/null
check "whole-disk image has only the disk node" [ -b /var/dev/sdd -a ! -e /var/dev/sdd1 ]

detach_disk sdb
detach_disk sdc
check "detach unmounts what was left mounted" [ -z "$(findmnt -rn -o TARGET /tmp/m1)$(findmnt -rn -o TARGET /tmp/n1)" ]
check "detach removes the nodes" [ ! -e /var/dev/sdb -a ! -e /var/dev/sdb1 -a ! -e /var/dev/sdc1 ]
check "only the attached disk stays recorded" [ "$(wc -l <"$USBMGR_SANDBOX_LOOPS")" -eq 1 ]
# sdd stays attached: the sandbox detaches it on exit.

check "wait_for succeeds once its condition holds" wait_for "true" 1
wait_for "false" 0.2 2>/dev/null
check "wait_for gives up at its deadline" [ $? -eq 1 ]

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
