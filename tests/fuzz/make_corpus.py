#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into tests/fuzz/corpus/.

The seeds are the unit tests' inputs and the inputs that once showed real
defects, in each target's input layout (see the comment at the top of each
target). Run it again after changing a layout; libFuzzer adds its own finds
to the same folders when a run is given them.
"""
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")


def u16(n):
    return struct.pack("<H", n)


def i32(n):
    return struct.pack("<i", n)


def text8(b):
    assert len(b) < 0xF0
    return bytes([len(b)]) + b


def text16(b):
    return u16(len(b)) + b


def record(attach, serial=b"SN0001", manufacturer=b"Vendor", product=b"Disk", version=b"2.00",
           release=256, index=1, arrived=1):
    """The 282-byte hot-plug device record."""
    rec = struct.pack("<BBHHBBB64s7si64s64s64sbbbBBB", index, arrived, 0x1234, 0x0781, 8, 6, 0x50,
                      attach, version, release, manufacturer, product, serial, 0, 1, 1, 1, 1, 1)
    assert len(rec) == 282
    return rec


def write(target, name, data):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def factory_settings():
    with open(os.path.join(HERE, "..", "..", "etc", "usbmgr.conf"), "rb") as f:
        return f.read()


HISTORY_TWO = (b"USBMGR.0.SERIAL_NUMBER=S\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=\nUSBMGR.0.ENABLE.0=1\n"
               b"USBMGR.0.NAME.1=\nUSBMGR.0.ENABLE.1=1\n"
               b"USBMGR.1.SERIAL_NUMBER=T\nUSBMGR.1.PNAME=Backup\nUSBMGR.1.NAME.0=Photos\nUSBMGR.1.ENABLE.0=0\n")
HISTORY_NO_NEWLINE = b"USBMGR.0.SERIAL_NUMBER=S\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=\nUSBMGR.0.ENABLE.0=1"
HISTORY_NUL = b"USBMGR.0.SERIAL_NUMBER=S\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=ab\x00cd\nUSBMGR.0.ENABLE.0=1\n"
HISTORY_EXTREME_IDS = (b"USBMGR.-2147483648.SERIAL_NUMBER=LOW\nUSBMGR.-2147483648.PNAME=\n"
                       b"USBMGR.2147483647.SERIAL_NUMBER=HIGH\nUSBMGR.2147483647.PNAME=\n")
HISTORY_USER_ACCESS = (b"USBMGR.0.SERIAL_NUMBER=S\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=\nUSBMGR.0.ENABLE.0=1\n"
                       b"USBMGR.0.USER_ACCESS.0.USERREFERENCE.1=StorageService.0.UserAccess.3\n"
                       b"USBMGR.0.USER_ACCESS.0.PERMISSIONS.1=2\n")
LONG_LINE = b"USBMGR.0.PNAME=" + b"x" * 300 + b"=tail\n"


def config_file():
    t = "fuzz_config_file"
    write(t, "factory_settings", factory_settings())
    write(t, "history_two_records", HISTORY_TWO)
    write(t, "empty_value_first_line", b"USBMGR.MOUNT_DISK_PATH=\nUSBMGR.NUMBER_OF_HISTORY=\n")
    write(t, "number_then_letters", b"USBMGR.NUMBER_OF_HISTORY=12abc\n")
    write(t, "key_twice", b"USBMGR.SAMBA.USER_NAME.1=a\nUSBMGR.SAMBA.USER_NAME.10=b\nUSBMGR.SAMBA.USER_NAME.1=c\n")
    write(t, "line_of_300", LONG_LINE)
    write(t, "value_over_127", b"USBMGR.MINIDLNA.SERIAL=" + b"v" * 200 + b"\n")
    write(t, "blank_around_equals", b"USBMGR.MINIDLNA.PORT = 8200\n")
    write(t, "no_equals", b"USBMGR.MINIDLNA.PORT\nUSBMGR.MINIDLNA.PORT=1\n")
    write(t, "last_line_without_newline", HISTORY_NO_NEWLINE)
    write(t, "line_with_nul", HISTORY_NUL)
    write(t, "extreme_ids", HISTORY_EXTREME_IDS)
    write(t, "huge_number", b"USBMGR.NUMBER_OF_HISTORY=99999999999999999999\nUSBMGR.X=-99999999999999999999\n")


def settings_input(content, changes=b""):
    return text16(content) + changes


def settings():
    t = "fuzz_settings"
    factory = factory_settings()
    write(t, "factory", settings_input(factory))
    write(t, "empty_file", settings_input(b""))
    write(t, "without_max_log_size",
          settings_input(b"".join(l + b"\n" for l in factory.split(b"\n") if l and b"MAX_LOG_SIZE" not in l)))
    write(t, "without_history_count",
          settings_input(b"".join(l + b"\n" for l in factory.split(b"\n") if l and b"NUMBER_OF_HISTORY" not in l)))
    write(t, "with_accounts", settings_input(
        factory + b"USBMGR.SAMBA.USER_NAME.0=root\nUSBMGR.SAMBA.USER_PASSWORD.0=x\nUSBMGR.SAMBA.USER_ENABLE.0=1\n"
        b"USBMGR.SAMBA.USER_NAME.3=alice\nUSBMGR.SAMBA.USER_NAME.24=bob\nUSBMGR.SAMBA.USER_NAME.25=carol\n"))
    write(t, "value_too_long_for_field",
          settings_input(factory.replace(b"MINIDLNA.PORT=8200", b"MINIDLNA.PORT=" + b"8" * 40)))
    # A value holding a newline, as a set command may leave it in a record
    # (field 8: the MiniDLNA friendly name).
    write(t, "value_with_newline", settings_input(factory, bytes([8]) + text8(b"name\nUSBMGR.EVIL=1")))
    write(t, "numbers_changed", settings_input(factory, bytes([32]) + i32(-1) + bytes([35]) + i32(2147483647)))


def history_input(capacity, flags, content, ops):
    return bytes([(capacity + 1) % 18, flags]) + text16(content) + ops


def serial_of(n):
    return bytes([0xF0 + n])


def history():
    t = "fuzz_history"
    rec_s2 = bytes([0]) + text8(b"S") + bytes([2])
    write(t, "first_disk", history_input(10, 2, b"", rec_s2))
    write(t, "same_disk_again", history_input(10, 0, HISTORY_TWO, rec_s2))
    write(t, "disk_returns_with_three", history_input(10, 0, HISTORY_TWO, bytes([0]) + serial_of(0) + bytes([3])))
    write(t, "capacity_reached", history_input(2, 0, HISTORY_TWO, bytes([0]) + text8(b"NEW") + bytes([1])))
    write(t, "set_names", history_input(10, 0, HISTORY_TWO,
                                        bytes([1]) + serial_of(1) + text8(b"sda1") + bytes([0]) + text8(b"Music") +
                                        bytes([2]) + serial_of(0) + text8(b"My disk") +
                                        bytes([6]) + text8(b"sda1") + serial_of(1) +
                                        bytes([7]) + serial_of(0) + bytes([8]) + text8(b"sda1") + serial_of(1)))
    write(t, "delete_and_find", history_input(10, 0, HISTORY_TWO,
                                              bytes([3]) + i32(0) + bytes([4]) + text8(b"T") + bytes([5]) +
                                              text8(b"T") + bytes([9]) + i32(1) + bytes([10])))
    write(t, "last_line_without_newline", history_input(10, 0, HISTORY_NO_NEWLINE,
                                                        bytes([0]) + text8(b"NEXT") + bytes([1]) +
                                                        bytes([2]) + serial_of(0) + text8(b"x")))
    write(t, "line_with_nul", history_input(10, 0, HISTORY_NUL,
                                            bytes([2]) + serial_of(0) + text8(b"renamed") +
                                            bytes([0]) + text8(b"NEXT") + bytes([1])))
    write(t, "extreme_ids", history_input(10, 0, HISTORY_EXTREME_IDS,
                                          bytes([5]) + text8(b"NONE") + bytes([0]) + text8(b"NEXT") + bytes([1])))
    write(t, "ids_near_both_ends", history_input(
        10, 0, b"USBMGR.-2147483647.SERIAL_NUMBER=LOW\nUSBMGR.2147483647.SERIAL_NUMBER=HIGH\n",
        bytes([5]) + text8(b"NONE")))
    write(t, "name_with_newline", history_input(10, 0, HISTORY_TWO,
                                                bytes([2]) + serial_of(0) + text8(b"a\nUSBMGR.9.PNAME=b")))
    write(t, "line_of_300", history_input(10, 0, b"USBMGR.0.SERIAL_NUMBER=S\n" + LONG_LINE,
                                          bytes([2]) + serial_of(0) + text8(b"short")))
    write(t, "user_access_lines", history_input(10, 1, HISTORY_USER_ACCESS,
                                                bytes([0]) + text8(b"NEW") + bytes([2])))


def event(row, payload):
    return bytes([row]) + text16(payload)


def hotplug():
    t = "fuzz_hotplug"
    cap10 = bytes([10])
    arrive = lambda attach, serial=b"SN0001": event(0, record(attach, serial))
    leave = lambda attach, serial=b"SN0001": event(2, record(attach, serial, arrived=0))
    write(t, "arrive_leave_arrive", cap10 + arrive(b"sda,sda1,sda2") + leave(b"sda,sda1,sda2") +
          bytes([4]) + bytes([7]))
    write(t, "disk_without_partitions", cap10 + arrive(b"sdb") + leave(b"sdb"))
    write(t, "partition_ten_before_one", cap10 + arrive(b"sda,sda10,sda1") + leave(b"sda,sda10,sda1"))
    write(t, "partition_one_before_ten", cap10 + arrive(b"sda,sda1,sda10") + leave(b"sda,sda1,sda10"))
    write(t, "partition_named_like_a_disk", cap10 + arrive(b"sda,sda1") + arrive(b"sdb,sd", b"SN0002") +
          leave(b"sdb,sd", b"SN0002"))
    write(t, "huge_partition_number", cap10 + arrive(b"sdz,sdz2147483647") + leave(b"sdz,sdz2147483647"))
    write(t, "upper_case_disk", cap10 + arrive(b"sdA") + leave(b"sdA"))
    write(t, "digit_disk", cap10 + arrive(b"sd1") + leave(b"sd1"))
    write(t, "busy_disk", cap10 + arrive(b"sda,sda1") + bytes([5]) + text16(b"\x03\x00\x03\x00\x03\x00") +
          leave(b"sda,sda1"))
    write(t, "ntfs_disk", cap10 + bytes([5]) + text16(b"\x00\x00\x01") + arrive(b"sdb,sdb1") + bytes([7]))
    write(t, "short_record", cap10 + event(0, record(b"sda,sda1")[:200]))
    write(t, "long_record", cap10 + event(0, record(b"sda,sda1") + b"\x00" * 40))
    write(t, "serial_with_newline", cap10 + arrive(b"sda,sda1", b"AB\nUSBMGR.9.PNAME=x"))
    write(t, "serial_adapter", cap10 + event(1, record(b"ttyUSB0")) + event(3, record(b"ttyUSB0")))
    write(t, "unknown_removal", cap10 + leave(b"sdc,sdc1"))
    write(t, "port_line_cut_at_19", cap10 + bytes([6]) + text8(b"sda,sda1,sda2,sda3,\r\n"))
    write(t, "port_line_serial", cap10 + bytes([6]) + text8(b"ttyUSB0\r\n"))
    write(t, "long_mount_root", bytes([10 | 0x40]) + arrive(b"sda,sda1") + leave(b"sda,sda1"))
    write(t, "mount_root_with_blank", bytes([10 | 0x60]) + arrive(b"sda,sda1") + leave(b"sda,sda1"))
    write(t, "history_full", bytes([2]) + arrive(b"sda,sda1", b"A") + arrive(b"sdb,sdb1", b"B") +
          arrive(b"sdc,sdc1", b"C"))


def dispatch():
    t = "fuzz_dispatch"

    def cmd(cid, payload=b""):
        return bytes([cid]) + text16(payload)

    write(t, "number_of_services", bytes([0]) + cmd(14))
    write(t, "every_command_empty", bytes([7]) + b"".join(cmd(i) for i in range(2, 18)))
    write(t, "every_command_empty_2", bytes([7]) + b"".join(cmd(i) for i in range(18, 37)))
    write(t, "unknown_and_too_long", bytes([1]) + cmd(13, b"\x00" * 4) + cmd(99) + cmd(14, b"\x00" * 5))
    write(t, "set_minidlna_name", bytes([0]) + cmd(5, b"FRIENDLY_NAME".ljust(64, b"\x00") + b"box\nX=1"))
    write(t, "set_samba_value", bytes([2]) + cmd(6, b"WORKGROUP".ljust(64, b"\x00") + b"HOME".ljust(128, b"\x00")))
    write(t, "serial_enable", bytes([0]) + cmd(7, i32(1) + i32(0)) + cmd(4))
    write(t, "samba_users", bytes([2]) + cmd(8) + cmd(9, i32(3)) +
          cmd(10, b"bob".ljust(64, b"\x00") + b"pw".ljust(64, b"\x00") + i32(1)))
    write(t, "storage_reads", bytes([5]) + b"".join(cmd(i, i32(0) + i32(0) + i32(0)) for i in range(15, 24)))
    write(t, "storage_writes", bytes([5]) + b"".join(cmd(i, i32(0) + i32(0) + b"name") for i in range(24, 37)))



def samba_users():
    t = "fuzz_samba_users"
    users = (b"USBMGR.SAMBA.USERNAME_MAP=admin\n"
             b"USBMGR.SAMBA.USER_NAME.0=alice\nUSBMGR.SAMBA.USER_PASSWORD.0=a\nUSBMGR.SAMBA.USER_ENABLE.0=1\n"
             b"USBMGR.SAMBA.USER_NAME.1=bob\nUSBMGR.SAMBA.USER_PASSWORD.1=b\nUSBMGR.SAMBA.USER_ENABLE.1=0\n"
             b"USBMGR.SAMBA.WORKGROUP=HOME\n"
             b"USBMGR.SAMBA.USER_NAME.3=dave\nUSBMGR.SAMBA.USER_PASSWORD.3=d\nUSBMGR.SAMBA.USER_ENABLE.3=1\n")
    add = lambda name, pw, enable: bytes([0]) + text8(name) + text8(pw) + i32(enable)
    write(t, "add_to_empty", text16(factory_settings()) + add(b"alice", b"secret", 1))
    write(t, "add_into_gap", text16(users) + add(b"carol", b"c=d e", 0) + bytes([3, 1]))
    write(t, "add_after_cut_line", text16(b"USBMGR.SAMBA.USERNAME_MAP=admin") + add(b"alice", b"a", 1))
    write(t, "add_over_leftover_password", text16(b"USBMGR.SAMBA.USER_PASSWORD.0=old\n") + add(b"alice", b"new", 1))
    write(t, "refused_texts", text16(users) + add(b"ev\nil", b"x", 1) + add(b"eve", b"p:w", 1) + add(b"", b"x", 1))
    write(t, "remove_and_modify", text16(users) + bytes([1, 0xF0]) + bytes([2]) + bytes([0xF1]) + text8(b"new") +
          i32(1))
    write(t, "slot_24_in_use", text16(users + b"USBMGR.SAMBA.USER_NAME.24=zed\n") + bytes([1]) + text8(b"nobody"))
    write(t, "line_of_300", text16(LONG_LINE + users) + add(b"carol", b"c", 1))


def user_access():
    t = "fuzz_user_access"
    # add: op 0, device, volume (sdaN), entry choice (1: the free one), user, permissions
    add_free = bytes([0, 0, 1, 1, 3]) + i32(2)
    write(t, "add_for_account_three", text16(HISTORY_TWO) + bytes([0x0F]) + add_free)
    write(t, "add_to_existing", text16(HISTORY_USER_ACCESS) + bytes([0x1F]) + add_free + bytes([3, 0, 1, 4, 0, 1]))
    write(t, "add_unknown_with_slot_24", text16(HISTORY_TWO) + bytes([0x21]) +
          bytes([0, 0, 1, 1, 0xF0 + 6]) + b"nobody" + i32(1))
    write(t, "add_without_enable_line", text16(HISTORY_TWO) + bytes([0x0F]) + bytes([0, 0, 3, 1, 3]) + i32(2))
    write(t, "remove_one", text16(HISTORY_USER_ACCESS) + bytes([0x0F]) + bytes([1, 0, 1, 1]))
    write(t, "remove_by_name", text16(HISTORY_USER_ACCESS) + bytes([0x0F]) + bytes([2, 3]))
    write(t, "cut_last_line", text16(HISTORY_NO_NEWLINE) + bytes([0x0F]) + add_free)
    write(t, "line_with_nul", text16(HISTORY_NUL) + bytes([0x0F]) + add_free + bytes([2, 3]))


def factory_value(key):
    for line in factory_settings().splitlines():
        if line.startswith(key + b"="):
            return line[len(key) + 1:]
    return b""


SAMBA_FIELDS = [b"CONF_DIR", b"LOG_FILE", b"MAX_LOG_SIZE", b"LOG_LEVEL", b"LOAD_PRINTERS", b"PRINTCAP_NAME",
                b"PRINTING", b"SECURITY", b"WORKGROUP", b"DISABLE_NETBIOS", b"NETBIOS_NAME", b"SERVER_STRING",
                b"USERSHARE_ALLOW_GUESTS", b"GUEST_ACCOUNT", b"INTERFACES", b"BIND_INTERFACES_ONLY", b"USERNAME_MAP",
                b"USERNAME_MAP_DIR"]
MINIDLNA_FIELDS = [b"CONF_DIR", b"DB_DIR", b"LOG_DIR", b"MEDIA_DIR", b"LOG_LEVEL", b"ROOT_CONTAINER", b"PORT",
                   b"FRIENDLY_NAME", b"SERIAL", b"MODEL_NAME", b"MODEL_NUMBER", b"INOTIFY", b"NOTIFY_INTERVAL"]


def samba_input(changes=None, root=b"/tmp/disk", shares=()):
    changes = changes or {}
    out = b""
    for f in SAMBA_FIELDS:
        out += text8(changes.get(f, factory_value(b"USBMGR.SAMBA." + f)))
    out += text8(root)
    for folder, name in shares:
        out += text8(folder) + text8(name)
    return out


def samba_conf():
    t = "fuzz_samba_conf"
    write(t, "factory_no_disks", samba_input())
    write(t, "named_and_unnamed", samba_input(shares=[(b"sda1", b"Music"), (b"sdb1", b"")]))
    write(t, "security_share", samba_input({b"SECURITY": b"share"}, shares=[(b"sda1", b"")]))
    write(t, "name_with_brackets", samba_input(shares=[(b"sda1", b"x]\n[evil]\n   path = /etc")]))
    write(t, "reserved_names", samba_input(shares=[(b"sda1", b"global"), (b"sda2", b" Ho Mes "), (b"sda3", b"PRINTERS")]))
    write(t, "blank_name", samba_input(shares=[(b"sda1", b"   ")]))
    write(t, "trailing_backslash", samba_input({b"WORKGROUP": b"HOME\\  "}, shares=[(b"sda1\\", b"")]))
    write(t, "long_folder", samba_input(root=b"/" + b"r" * 98, shares=[(b"f" * 200, b"n" * 63)]))
    write(t, "unterminated_fields", samba_input({f: b"w" * 70 for f in SAMBA_FIELDS}))


def minidlna_conf():
    t = "fuzz_minidlna_conf"
    write(t, "factory", b"".join(text8(factory_value(b"USBMGR.MINIDLNA." + f)) for f in MINIDLNA_FIELDS))
    write(t, "empty", b"")
    write(t, "newline_in_name", b"".join(
        text8(b"tv\nport=1" if f == b"FRIENDLY_NAME" else factory_value(b"USBMGR.MINIDLNA." + f)) for f in MINIDLNA_FIELDS))
    write(t, "unterminated_fields", b"".join(text8(b"a" * 130) for f in MINIDLNA_FIELDS))


USB_DISK = b"/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host6/target6:0:0/6:0:0:0/block/sdb"


def uevent_block(action, devpath, subsystem, devtype=b"", devname=b""):
    lines = [b"KERNEL[4711.123456] " + action + b"      " + devpath + b" (" + subsystem + b")",
             b"ACTION=" + action, b"DEVPATH=" + devpath, b"SUBSYSTEM=" + subsystem]
    if devname:
        lines.append(b"DEVNAME=" + devname)
    if devtype:
        lines.append(b"DEVTYPE=" + devtype)
    lines.append(b"SEQNUM=4021")
    return b"\n".join(lines) + b"\n\n"


def uevent():
    t = "fuzz_uevent"
    write(t, "stick_stream", b"\x07" + uevent_block(b"add", USB_DISK, b"block", b"disk", b"sdb") +
          uevent_block(b"add", USB_DISK + b"/sdb1", b"block", b"partition", b"sdb1") +
          uevent_block(b"remove", USB_DISK + b"/sdb1", b"block", b"partition", b"sdb1") +
          uevent_block(b"remove", USB_DISK, b"block", b"disk", b"sdb"))
    write(t, "kernel_message", b"\x00" + b"\0".join([b"add@" + USB_DISK, b"ACTION=add", b"DEVPATH=" + USB_DISK,
                                                     b"SUBSYSTEM=block", b"DEVNAME=sdb", b"DEVTYPE=disk",
                                                     b"SEQNUM=4021"]) + b"\0")
    tty = b"/devices/pci0000:00/0000:00:14.0/usb1/1-3/1-3:1.0/ttyUSB0/tty/ttyUSB0"
    write(t, "tty_crlf", b"\x02" + uevent_block(b"add", tty, b"tty", b"", b"ttyUSB0").replace(b"\n", b"\r\n"))
    write(t, "climbing_path", b"\x01" + uevent_block(b"add", b"/devices/../../etc", b"block", b"disk", b"sdb"))


def main():
    for f in (config_file, settings, history, hotplug, dispatch, samba_users, user_access, samba_conf,
              minidlna_conf, uevent):
        f()
    return 0


if __name__ == "__main__":
    sys.exit(main())
