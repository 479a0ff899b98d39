#!/bin/bash
# The storage service reads end to end: with an ext4 disk plugged, a Samba
# user in the settings and automatic user access on, commands 15 to 23
# answer services 0, 1 and 2 field for field (names, counts, file system,
# folders, user access, status words -1 to -6), and "usbmgrctl tree" prints
# the whole tree. Runs inside scripts/sandbox.sh.
set -uo pipefail
. "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh" || exit 1

work=$(mktemp -d /tmp/modelreads.XXXXXX)

cleanup() { leave_sandbox 15 sda; }
trap cleanup EXIT


ok='"code":0,"code_name":"OK"'
status_only() { echo "{$ok,\"reply\":{$1\"status\":$2}}"; }

# A Samba user and user access made for it when a disk is first seen.
sed -i 's/^USBMGR.AUTO_CREATE_USER_ACCESS=.*/USBMGR.AUTO_CREATE_USER_ACCESS=1/' /var/config/usbmgr.conf
printf '%s\n' USBMGR.SAMBA.USER_NAME.0=alice USBMGR.SAMBA.USER_PASSWORD.0=secret USBMGR.SAMBA.USER_ENABLE.0=1 \
    >>/var/config/usbmgr.conf

make_disk_image "$work/ext4.img" 64 ext4 1
attach_disk sda "$work/ext4.img" >/dev/null

daemon=$(start_daemon debug)
check "daemon started" [ -n "$daemon" ]
usbmgrctl plug --port 1-1 --device sda,sda1 --serial SER-MODEL --vendor ACME --product Stick >/dev/null
check "the volume is in the model" wait_for "usbmgrctl volume 0 0 | grep -q 'status = 0 '" 10
mkdir /tmp/disk/sda1/Music
check "the new folder is in the model" wait_for "usbmgrctl folder 0 0 2 | grep -q 'status = 0 '" 10

total=$(df -m /tmp/disk/sda1 | awk 'NR == 2 { print $2 }')
used=$(df -m /tmp/disk/sda1 | awk 'NR == 2 { print $3 }')
echo "# sda1: $total MB, $used MB used"

# --- service 0
expect "15: service 0 counts one disk, one volume, one user" \
    "{$ok,\"reply\":{\"Enable\":1,\"PhysicalMediumNumberOfEntries\":1,\"LogicalVolumeNumberOfEntries\":1,\"UserAccountNumberOfEntries\":1,\"status\":0}}" \
    usbmgrctl service 0 --json
expect "16: service 0 capabilities" \
    "{$ok,\"reply\":{\"FTPCapable\":0,\"SFTPCapable\":0,\"HTTPCapable\":0,\"HTTPSCapable\":0,\"HTTPWritable\":0,\"SupportedNetworkProtocols\":\"SMB\",\"SupportedFileSystemTypes\":\"FAT16,FAT32,NTFS,ext2,ext3,ext4\",\"VolumeEncryptionCapable\":0,\"status\":0}}" \
    usbmgrctl capabilities 0 --json
expect "17: service 0 net info is empty" \
    "$(status_only '"HostName":"","DomainName":"",' 0)" usbmgrctl netinfo 0 --json
expect "18: service 0 shares by SMB with user authentication" \
    "$(status_only '"word1":0,"AFPEnable":0,"NFSEnable":0,"SMBEnable":1,"NetworkProtocolAuthReq":1,' 0)" \
    usbmgrctl network-server 0 --json
expect "19: user 0 from the settings" \
    "$(status_only '"Enable":1,"Name":"alice","Password":"secret",' 0)" usbmgrctl user 0 0 --json
expect "19: a user number without a name is -5" \
    "$(status_only '"Enable":0,"Name":"","Password":"",' -5)" usbmgrctl user 0 5 --json
expect "20: the disk in slot 0" \
    "$(status_only "\"Name\":\"sda\",\"Vendor\":\"ACME\",\"Model\":\"Stick\",\"SerialNumber\":\"SER-MODEL\",\"FirmwareVersion\":\"0\",\"ConnectionType\":\"USB 2.0\",\"Removable\":1,\"Capacity\":$total,\"Status\":\"Online\",\"SMARTCapable\":0,\"HotSwappable\":0," 0)" \
    usbmgrctl disk 0 0 --json
expect "21: the volume in slot 0 has lost+found and Music" \
    "$(status_only "\"Name\":\"sda1\",\"Status\":\"Online\",\"Enable\":1,\"PhysicalReference\":\"StorageService.0.PhysicalMedium.{0}.\",\"FileSystem\":\"ext4\",\"Capacity\":$total,\"UsedSpace\":$used,\"Encrypted\":0,\"FolderNumberOfEntries\":3," 0)" \
    usbmgrctl volume 0 0 --json
expect "22: folder 0 is the volume root with one user access" \
    "$(status_only '"Name":"/disk/sda1","Enable":1,"UserAccountAccess":3,"UserAccessNumberOfEntries":1,' 0)" \
    usbmgrctl folder 0 0 0 --json
folders=$( (usbmgrctl folder 0 0 1 --json; usbmgrctl folder 0 0 2 --json) | grep -o '"Name":"[^"]*"' | sort | tr '\n' ' ')
check "22: folders 1 and 2 are lost+found and Music" [ "$folders" = '"Name":"/disk/sda1/Music" "Name":"/disk/sda1/lost+found" ' ]
expect "23: user access 0 was made for account 0 with empty permissions" \
    "$(status_only '"tr140_index":0,"UserReference":"StorageService.0.UserAccess.0","Permissions":4294967295,' 0)" \
    usbmgrctl user-access 0 0 0 --json

# --- refusals of service 0
for cmd in "disk 0 1" "disk 0 25" "disk 0 -1"; do
    check "20: $cmd is -2" bash -c "usbmgrctl $cmd --json | grep -q '\"status\":-2}}\$'"
done
for cmd in "volume 0 1" "volume 0 25" "volume 0 -1" "folder 0 25 0" "user-access 0 25 0"; do
    check "$cmd is -3" bash -c "usbmgrctl $cmd --json | grep -q '\"status\":-3}}\$'"
done
check "22: folder 3 of a volume of 3 folders is -4" bash -c "usbmgrctl folder 0 0 3 --json | grep -q '\"status\":-4}}\$'"
check "23: user access 7 is -6" bash -c "usbmgrctl user-access 0 0 7 --json | grep -q '\"status\":-6}}\$'"

# --- service 1: all zero, no entries
expect "15: service 1 is all zero" \
    "$(status_only '"Enable":0,"PhysicalMediumNumberOfEntries":0,"LogicalVolumeNumberOfEntries":0,"UserAccountNumberOfEntries":0,' 0)" \
    usbmgrctl service 1 --json
expect "16: service 1 capabilities are all zero" \
    "$(status_only '"FTPCapable":0,"SFTPCapable":0,"HTTPCapable":0,"HTTPSCapable":0,"HTTPWritable":0,"SupportedNetworkProtocols":"","SupportedFileSystemTypes":"","VolumeEncryptionCapable":0,' 0)" \
    usbmgrctl capabilities 1 --json
expect "18: service 1 network server is all zero" \
    "$(status_only '"word1":0,"AFPEnable":0,"NFSEnable":0,"SMBEnable":0,"NetworkProtocolAuthReq":0,' 0)" \
    usbmgrctl network-server 1 --json
check "19: service 1 user is -1" bash -c "usbmgrctl user 1 0 --json | grep -q '\"status\":-1}}\$'"
check "20: service 1 disk is -2" bash -c "usbmgrctl disk 1 0 --json | grep -q '\"status\":-2}}\$'"
for cmd in "volume 1 0" "folder 1 0 0" "user-access 1 0 0"; do
    check "$cmd is -3" bash -c "usbmgrctl $cmd --json | grep -q '\"status\":-3}}\$'"
done

# --- service 2 and negative: -1 from every command
for s in 2 -1; do
    for cmd in "service $s" "capabilities $s" "netinfo $s" "network-server $s" "user $s 0" "disk $s 0" \
        "volume $s 0" "folder $s 0 0" "user-access $s 0 0"; do
        check "$cmd is -1" bash -c "usbmgrctl $cmd --json | grep -q '\"status\":-1}}\$'"
    done
done

check "the entry line of command 15 is logged" log_has "cmd - usbmgr_cmd_get_storage_service"
check "the model print shows the volume" log_has "FileSystem              = ext4"

# --- the whole tree
usbmgrctl tree >"$work/tree.txt" 2>&1
check "tree: exit status 0" [ $? -eq 0 ]
for line in "StorageService.0" "  PhysicalMedium.0" '    Name = "sda"' "  LogicalVolume.0" '      Name = "/disk/sda1/Music"' \
    "      UserAccess.0" '        UserReference = "StorageService.0.UserAccess.0"' "  UserAccount.0" '    Name = "alice"'; do
    check "tree shows: $line" grep -qxF "$line" "$work/tree.txt"
done
sed 's/^/# /' "$work/tree.txt" | head -80
check "tree --json is valid JSON" bash -c "usbmgrctl tree --json | python3 -m json.tool >/dev/null"
check "tree of service 2 shows its status" bash -c "usbmgrctl tree --service 2 | grep -qxF '  status = -1 (service number out of range)'"

stop_daemon 15
trap - EXIT
detach_disk sda >/dev/null 2>&1 || true
rm -rf "$work"
echo "# $passed passed, $failed failed"
[ "$failed" -eq 0 ]
