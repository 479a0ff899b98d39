// Hot-plug intake of USB storage: arrival and removal of a disk, and the
// checks on device records from outside, seen through the command runner,
// the clock and the bus double.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/str.h"
#include "fixture.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::arrive;
using testing_support::file_exists;
using testing_support::kDeferral;
using testing_support::leave;
using testing_support::make_record;
using testing_support::pending_kinds;
using testing_support::print_lines_of_default_record;
using testing_support::read_file;
using testing_support::read_lines;
using Lines = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

namespace {

// The commands that concern the disk itself (nodes, mounts, the history
// hand-off); server control and model queries are other modules' business.
Lines disk_commands(const testing_support::FakeRunner& runner) {
    static const char* const kPrefixes[] = {"orbcm_util", "ls /var/dev", "mknod ", "mount -v ",
                                            "mount | grep /tmp/disk/", "/bin/ntfs-3g", "umount ", "rm -f /var/dev"};
    Lines out;
    for (const auto& t : runner.texts())
        for (const char* p : kPrefixes)
            if (t.rfind(p, 0) == 0) {
                out.push_back(t);
                break;
            }
    return out;
}

// Log lines starting at the first one equal to first, count of them.
Lines log_from(const std::string& first, std::size_t count) {
    Lines all = fake::log_texts();
    for (std::size_t i = 0; i < all.size(); ++i)
        if (all[i] == first) {
            std::size_t end = std::min(all.size(), i + count);
            return Lines(all.begin() + static_cast<long>(i), all.begin() + static_cast<long>(end));
        }
    return {};
}

Lines mount_commands_of_sda_with_two_partitions() {
    return {
        "ls /var/dev | grep sda 2>&1",
        "mknod /var/dev/sda b 8 0",
        "ls /var/dev | grep sda1 2>&1",
        "mknod /var/dev/sda1 b 8 1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "mount -v -t auto -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "ls /var/dev | grep sda2 2>&1",
        "mknod /var/dev/sda2 b 8 2",
        "mount | grep /tmp/disk/sda2 2>&1",
        "mount -v -t auto -o nosuid,nodev /var/dev/sda2 /tmp/disk/sda2",
        "mount | grep /tmp/disk/sda2 2>&1",
    };
}

class IntakeTest : public testing_support::DaemonTest {
protected:
    IntakeTest() { testing_support::use_storage_settings(); }
};
using StorageArrival = IntakeTest;
using StorageRemoval = IntakeTest;
using DeviceRecordInput = IntakeTest;

}  // namespace

// ---------------------------------------------------------------------------
// Storage arrival

TEST_F(StorageArrival, DiskWithTwoPartitionsIsLoggedRecordedMountedAndQueuedButNotYetSent) {
    use_mount_table();
    DusbDeviceRecord rec = make_record("sda,sda1,sda2");
    EXPECT_EQ(arrive(rec), 0);

    Lines expected_log = {"EVENT - DUSB_EVT_NEW_STORAGE_INTERFACE"};
    for (const auto& l : print_lines_of_default_record("sda,sda1,sda2", "4C530001230517115223"))
        expected_log.push_back(l);
    EXPECT_EQ(log_from("EVENT - DUSB_EVT_NEW_STORAGE_INTERFACE", expected_log.size()), expected_log);
    EXPECT_EQ(fake::log_texts().front(), "EVENT - DUSB_EVT_NEW_STORAGE_INTERFACE");

    const UsbPhysicalInfo& disk = usb_physical_info[0];
    EXPECT_EQ(disk.index, 0);
    EXPECT_STREQ(disk.attach_device, "sda,sda1,sda2");
    EXPECT_STREQ(disk.vendor, "SanDisk");
    EXPECT_STREQ(disk.model, "Ultra");
    EXPECT_STREQ(disk.serial_number, "4C530001230517115223");
    EXPECT_STREQ(disk.firmware_version, "256");
    EXPECT_STREQ(disk.usb_version, "2.1");
    EXPECT_STREQ(usb_physical_info[1].attach_device, "");

    EXPECT_EQ(usb_volume_info[0].index, 0);
    EXPECT_STREQ(usb_volume_info[0].name, "sda1");
    EXPECT_EQ(usb_volume_info[1].index, 1);
    EXPECT_STREQ(usb_volume_info[1].name, "sda2");
    EXPECT_STREQ(usb_volume_info[2].name, "");

    EXPECT_EQ(read_lines(TR140_CONF_PATH), (Lines{
                                               "USBMGR.0.SERIAL_NUMBER=4C530001230517115223",
                                               "USBMGR.0.PNAME=",
                                               "USBMGR.0.NAME.0=",
                                               "USBMGR.0.ENABLE.0=1",
                                               "USBMGR.0.NAME.1=",
                                               "USBMGR.0.ENABLE.1=1",
                                           }));

    // The history is handed off before the disk is mounted.
    Lines expected_cmds = {"orbcm_util cfg save"};
    for (const auto& c : mount_commands_of_sda_with_two_partitions()) expected_cmds.push_back(c);
    EXPECT_EQ(disk_commands(seams.runner), expected_cmds);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "mount /var/dev/sda1 auto /tmp/disk/sda1 success"));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "mount /var/dev/sda2 auto /tmp/disk/sda2 success"));

    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    EXPECT_EQ(usbmgr_reload_target, 3);
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE"}));
    EXPECT_TRUE(fake::logged(4, "db_util.c", "1-0 : EVT BUFFER - USBMGR_TR140_ADD_STORAGE"));
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_EQ(usbmgr_evt_in_progress, 0);

    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{0}));
}

TEST_F(StorageArrival, HandlerMarksItselfInProgressAndHoldsTheMutexWhileItWorks) {
    int flag_seen = -1;
    int trylock_seen = -1;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "mknod /var/dev/sda b 8 0") {
            flag_seen = usbmgr_evt_in_progress;
            trylock_seen = pthread_mutex_trylock(&usbmgr_mutex);
            if (trylock_seen == 0) pthread_mutex_unlock(&usbmgr_mutex);
        }
        return std::string();
    };
    arrive(make_record("sda,sda1"));
    EXPECT_EQ(flag_seen, 1);
    EXPECT_EQ(trylock_seen, EBUSY);
    EXPECT_EQ(usbmgr_evt_in_progress, 0);
    EXPECT_EQ(pthread_mutex_trylock(&usbmgr_mutex), 0);
    pthread_mutex_unlock(&usbmgr_mutex);
}

TEST_F(StorageArrival, TwoDisksHalfASecondApartAreBothMountedAtOnceAndNotifiedTogetherByOneAlarm) {
    use_mount_table();
    arrive(make_record("sda,sda1", "SERIAL-A"));
    arrive(make_record("sdb,sdb1", "SERIAL-B"));

    // Both disks are mounted before any deferred work runs.
    Lines cmds = disk_commands(seams.runner);
    EXPECT_NE(std::find(cmds.begin(), cmds.end(), "mount -v -t auto -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1"), cmds.end());
    EXPECT_NE(std::find(cmds.begin(), cmds.end(), "mount -v -t auto -o nosuid,nodev /var/dev/sdb1 /tmp/disk/sdb1"), cmds.end());
    // The second event re-arms the one-shot alarm: it fires 900 ms after it.
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral, kDeferral}));
    EXPECT_TRUE(fake::sent_kinds().empty());

    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{0, 0}));
    // One flush took both: a later alarm has nothing left to send.
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{0, 0}));
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda,sda1");
    EXPECT_STREQ(usb_physical_info[1].attach_device, "sdb,sdb1");
}

TEST_F(StorageArrival, SameDiskArrivingAgainKeepsItsSlotAndItsHistoryRecord) {
    use_mount_table();
    std::strcpy(usb_physical_info[0].attach_device, "sdc,sdc1");
    std::strcpy(usb_physical_info[0].serial_number, "OTHER");
    arrive(make_record("sda,sda1"));
    std::string history = read_file(TR140_CONF_PATH);
    seams.runner.clear();
    arrive(make_record("sda,sda1"));
    EXPECT_STREQ(usb_physical_info[1].attach_device, "sda,sda1");
    EXPECT_STREQ(usb_physical_info[2].attach_device, "");
    EXPECT_STREQ(usb_volume_info[0].name, "sda1");
    EXPECT_STREQ(usb_volume_info[1].name, "");
    EXPECT_EQ(read_file(TR140_CONF_PATH), history);
    // Known with the same volume count: no hand-off; the mount is found done.
    EXPECT_EQ(disk_commands(seams.runner), (Lines{
                                               "ls /var/dev | grep sda 2>&1",
                                               "mknod /var/dev/sda b 8 0",
                                               "ls /var/dev | grep sda1 2>&1",
                                               "mknod /var/dev/sda1 b 8 1",
                                               "mount | grep /tmp/disk/sda1 2>&1",
                                           }));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "/tmp/disk/sda1 already exist"));
}

TEST_F(StorageArrival, DiskNotRecordedInAFullTableIsStillMountedAndNotified) {
    use_mount_table();
    for (int i = 0; i < USB_TABLE_SIZE; ++i) {
        usbmgr::format_str(usb_physical_info[i].attach_device, "sd%c", 'b' + i);
        usb_physical_info[i].index = i;
    }
    UsbPhysicalInfo before[USB_TABLE_SIZE];
    std::memcpy(before, usb_physical_info, sizeof before);

    arrive(make_record("sda,sda1,sda2"));
    EXPECT_EQ(std::memcmp(before, usb_physical_info, sizeof before), 0);
    EXPECT_STREQ(usb_volume_info[0].name, "sda1");
    Lines expected_cmds = {"orbcm_util cfg save"};
    for (const auto& c : mount_commands_of_sda_with_two_partitions()) expected_cmds.push_back(c);
    EXPECT_EQ(disk_commands(seams.runner), expected_cmds);
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE"}));
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
}

TEST_F(StorageArrival, DiskWithoutPartitionsGetsANodeAndAHistoryRecordWithoutVolumes) {
    arrive(make_record("sdb", "NOPART"));
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sdb");
    EXPECT_STREQ(usb_volume_info[0].name, "");
    EXPECT_EQ(read_lines(TR140_CONF_PATH), (Lines{"USBMGR.0.SERIAL_NUMBER=NOPART", "USBMGR.0.PNAME="}));
    EXPECT_EQ(disk_commands(seams.runner), (Lines{
                                               "orbcm_util cfg save",
                                               "ls /var/dev | grep sdb 2>&1",
                                               "mknod /var/dev/sdb b 8 16",
                                           }));
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE"}));
}

// ---------------------------------------------------------------------------
// Storage removal

TEST_F(StorageRemoval, DeviceNeverRecordedIsLoggedAsNotExistingAndChangesNothing) {
    use_mount_table();
    arrive(make_record("sda,sda1"));
    usbmgr_alarm_work();
    {
        usbmgr::DaemonLock lock;
        dp_util_evt_buf_write(USBMGR_TR140_ADD_USER);
    }
    UsbPhysicalInfo disks[USB_TABLE_SIZE];
    UsbVolumeInfo volumes[USB_TABLE_SIZE];
    std::memcpy(disks, usb_physical_info, sizeof disks);
    std::memcpy(volumes, usb_volume_info, sizeof volumes);
    const UsbmgrEvtBuffer ring = usbmgr_evt_buffer;
    const std::size_t alarms = seams.clock.alarms().size();
    const std::string history = read_file(TR140_CONF_PATH);
    seams.runner.clear();
    fake::reset();

    EXPECT_EQ(leave(make_record("sdz")), 0);

    Lines expected_log = {"EVENT - DUSB_EVT_REMOVE_STORAGE_INTERFACE"};
    for (const auto& l : print_lines_of_default_record("sdz", "4C530001230517115223")) expected_log.push_back(l);
    expected_log.push_back("device sdz not exist ...");
    EXPECT_EQ(fake::log_texts(), expected_log);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_EQ(seams.clock.alarms().size(), alarms);
    EXPECT_EQ(std::memcmp(disks, usb_physical_info, sizeof disks), 0);
    EXPECT_EQ(std::memcmp(volumes, usb_volume_info, sizeof volumes), 0);
    EXPECT_EQ(std::memcmp(&ring, &usbmgr_evt_buffer, sizeof ring), 0);
    EXPECT_EQ(read_file(TR140_CONF_PATH), history);
    EXPECT_EQ(usbmgr_evt_in_progress, 0);
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(StorageRemoval, RecordedDiskIsDeletedUnmountedAndQueuedWhileItsHistoryStays) {
    use_mount_table();
    arrive(make_record("sda,sda1,sda2"));
    usbmgr_alarm_work();
    const std::string history = read_file(TR140_CONF_PATH);
    const std::size_t alarms = seams.clock.alarms().size();
    usb_volume_info[0].tr140_db_address = 4;
    seams.runner.clear();
    fake::reset();

    EXPECT_EQ(leave(make_record("sda,sda1,sda2")), 0);

    EXPECT_EQ(fake::log_texts().front(), "EVENT - DUSB_EVT_REMOVE_STORAGE_INTERFACE");
    EXPECT_STREQ(usb_physical_info[0].attach_device, "");
    EXPECT_STREQ(usb_physical_info[0].serial_number, "");
    EXPECT_STREQ(usb_volume_info[0].name, "");
    EXPECT_EQ(usb_volume_info[0].tr140_db_address, 0);
    EXPECT_STREQ(usb_volume_info[1].name, "");

    EXPECT_EQ(disk_commands(seams.runner), (Lines{
                                               "rm -f /var/dev/sda",
                                               "umount /tmp/disk/sda1",
                                               "mount | grep /tmp/disk/sda1 2>&1",
                                               "rm -f /var/dev/sda1",
                                               "umount /tmp/disk/sda2",
                                               "mount | grep /tmp/disk/sda2 2>&1",
                                               "rm -f /var/dev/sda2",
                                           }));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "umount /tmp/disk/sda1 success"));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "remove folder /tmp/disk/sda2 success"));
    EXPECT_FALSE(file_exists("/tmp/disk/sda1"));
    EXPECT_FALSE(file_exists("/tmp/disk/sda2"));

    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_REMOVE_STORAGE"}));
    EXPECT_TRUE(fake::logged(4, "db_util.c", "2-1 : EVT BUFFER - USBMGR_TR140_REMOVE_STORAGE"));
    EXPECT_EQ(seams.clock.alarms().size(), alarms + 1);
    EXPECT_EQ(seams.clock.alarms().back(), kDeferral);
    EXPECT_EQ(usbmgr_reload_target, 3);
    EXPECT_EQ(usbmgr_evt_in_progress, 0);
    EXPECT_EQ(read_file(TR140_CONF_PATH), history);
    EXPECT_TRUE(fake::sent_kinds().empty());

    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{1}));
}

TEST_F(StorageRemoval, BusyVolumeOfAPulledDiskIsDetachedAtOnceAndTheRemovalFinishes) {
    use_mount_table();
    arrive(make_record("sda,sda1"));
    seams.runner.clear();
    bool detached = false;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "umount -l /tmp/disk/sda1") detached = true;
        if (t == "mount | grep /tmp/disk/sda1 2>&1" && !detached) return std::string("x on /tmp/disk/sda1\n");
        return std::string();
    };
    leave(make_record("sda,sda1"));
    // No wait for the disk: the bus thread is free again at once.
    EXPECT_TRUE(seams.clock.sleeps().empty());
    const Lines texts = seams.runner.texts();
    const auto plain = std::find(texts.begin(), texts.end(), "umount /tmp/disk/sda1");
    const auto lazy = std::find(texts.begin(), texts.end(), "umount -l /tmp/disk/sda1");
    ASSERT_NE(plain, texts.end());
    ASSERT_NE(lazy, texts.end());
    EXPECT_LT(plain, lazy);
    EXPECT_TRUE(fake::logged(2, "disk_util.c", "umount /tmp/disk/sda1 busy, detached"));
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE", "USBMGR_TR140_REMOVE_STORAGE"}));
}

// ---------------------------------------------------------------------------
// Device records from outside

TEST_F(DeviceRecordInput, RecordShorterThan282BytesIsLoggedAndIgnored) {
    EXPECT_EQ(arrive(make_record("sda,sda1"), 281), 0);
    EXPECT_EQ(leave(make_record("sda,sda1"), 100), 0);
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "DUSB_EVT_NEW_STORAGE_INTERFACE: device record of 281 bytes ignored, 282 expected",
                                     "DUSB_EVT_REMOVE_STORAGE_INTERFACE: device record of 100 bytes ignored, 282 expected",
                                 }));
    EXPECT_EQ(fake::bus().log.at(0).level, 1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_STREQ(usb_physical_info[0].attach_device, "");
    EXPECT_STREQ(usb_volume_info[0].name, "");
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_FALSE(file_exists(TR140_CONF_PATH));
    EXPECT_TRUE(pending_kinds().empty());
}

TEST_F(DeviceRecordInput, MissingPayloadIsIgnored) {
    EXPECT_EQ(usbmgr_evt_new_storage_interface(nullptr, 0, DUSB_DEVICE_RECORD_SIZE, nullptr), 0);
    EXPECT_EQ(usbmgr_evt_remove_storage_interface(nullptr, 0, DUSB_DEVICE_RECORD_SIZE, nullptr), 0);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(DeviceRecordInput, LongerRecordIsReadByItsFirst282Bytes) {
    use_mount_table();
    std::vector<uint8_t> payload(300, 0xff);
    DusbDeviceRecord rec = make_record("sda,sda1");
    std::memcpy(payload.data(), &rec, sizeof rec);
    usbmgr_evt_new_storage_interface(nullptr, 0, static_cast<uint32_t>(payload.size()), payload.data());
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda,sda1");
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE"}));
}

TEST_F(DeviceRecordInput, AttachDeviceNotTerminatedWithin64BytesIsRefused) {
    DusbDeviceRecord rec = make_record("sda");
    std::memset(rec.AttachDevice, 'a', sizeof rec.AttachDevice);
    arrive(rec);
    leave(rec);
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "DUSB_EVT_NEW_STORAGE_INTERFACE: AttachDevice not terminated, record ignored",
                                     "DUSB_EVT_REMOVE_STORAGE_INTERFACE: AttachDevice not terminated, record ignored",
                                 }));
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_STREQ(usb_physical_info[0].attach_device, "");
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_TRUE(pending_kinds().empty());
}

TEST_F(DeviceRecordInput, ShellSyntaxInAttachDeviceIsRefusedAndRunsNothing) {
    arrive(make_record("sda,sda1;touch /tmp/pwned"));
    leave(make_record("sda,sda1;touch /tmp/pwned"));
    EXPECT_EQ(fake::log_texts(),
              (Lines{
                  "DUSB_EVT_NEW_STORAGE_INTERFACE: refusing AttachDevice 'sda,sda1;touch /tmp/pwned', record ignored",
                  "DUSB_EVT_REMOVE_STORAGE_INTERFACE: refusing AttachDevice 'sda,sda1;touch /tmp/pwned', record ignored",
              }));
    for (const auto& l : fake::bus().log) EXPECT_EQ(l.level, 1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_FALSE(file_exists("/tmp/pwned"));
    EXPECT_STREQ(usb_physical_info[0].attach_device, "");
    EXPECT_FALSE(file_exists(TR140_CONF_PATH));
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_TRUE(pending_kinds().empty());
}

TEST_F(DeviceRecordInput, RefusedAttachDeviceWithControlCharactersIsLoggedOnOneLine) {
    arrive(make_record("sda\nsda1"));
    EXPECT_EQ(fake::log_texts(),
              (Lines{"DUSB_EVT_NEW_STORAGE_INTERFACE: refusing AttachDevice 'sda_sda1', record ignored"}));
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(DeviceRecordInput, SerialNumberKeepsItsEqualsSignAndHasLineBreakAndControlCharactersReplacedByUnderscores) {
    use_mount_table();
    arrive(make_record("sda,sda1", "AB\nC=D\x01" "E\x7f"));
    EXPECT_EQ(read_lines(TR140_CONF_PATH), (Lines{
                                               "USBMGR.0.SERIAL_NUMBER=AB_C=D_E_",
                                               "USBMGR.0.PNAME=",
                                               "USBMGR.0.NAME.0=",
                                               "USBMGR.0.ENABLE.0=1",
                                           }));
    EXPECT_STREQ(usb_physical_info[0].serial_number, "AB_C=D_E_");
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "   SerialNumber           = AB_C=D_E_"));
}

TEST_F(DeviceRecordInput, UnterminatedTextFieldsStayWithinTheirFields) {
    use_mount_table();
    DusbDeviceRecord rec = make_record("sda,sda1");
    std::memset(rec.USBVersion, '9', sizeof rec.USBVersion);
    std::memset(rec.Manufacturer, 'M', sizeof rec.Manufacturer);
    std::memset(rec.ProductClass, 'P', sizeof rec.ProductClass);
    std::memset(rec.SerialNumber, 'S', sizeof rec.SerialNumber);
    arrive(rec);
    const UsbPhysicalInfo& disk = usb_physical_info[0];
    EXPECT_EQ(std::string(disk.vendor), std::string(63, 'M'));
    EXPECT_EQ(std::string(disk.model), std::string(63, 'P'));
    EXPECT_EQ(std::string(disk.serial_number), std::string(63, 'S'));
    EXPECT_STREQ(disk.usb_version, "999");
    EXPECT_TRUE(fake::logged("   Manufacturer           = " + std::string(63, 'M')));
    EXPECT_TRUE(fake::logged("   ProductClass           = " + std::string(63, 'P')));
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "   USBVersion             = 999999"));
    EXPECT_EQ(read_lines(TR140_CONF_PATH).at(0), "USBMGR.0.SERIAL_NUMBER=" + std::string(63, 'S'));
}

// ---------------------------------------------------------------------------
// The model and the servers around an arrival and a removal

namespace {

// The nodes and the mount folders the daemon would have made, so that the
// model builder sees the disk; removals really delete the nodes.
void give_nodes_to(testing_support::FakeRunner& runner, const Lines& names) {
    for (const auto& n : names) testing_support::write_file("/var/dev/" + n, "");
    runner.pass_through = [](const std::string& t) { return t.rfind("rm -f /var/dev/", 0) == 0; };
}

Lines server_and_unmount_commands(const Lines& texts) {
    Lines out;
    for (const auto& t : texts)
        if (t.rfind("ps | grep ", 0) == 0 || t.rfind("umount ", 0) == 0) out.push_back(t);
    return out;
}

}  // namespace

TEST_F(StorageArrival, TheModelShowsTheNewDiskAndItsVolumesWhenTheHandlerReturns) {
    use_mount_table();
    give_nodes_to(seams.runner, {"sda", "sda1", "sda2"});
    arrive(make_record("sda,sda1,sda2"));
    const tr140_storage_service& s = usbmgr_tr140_db[0];
    ASSERT_EQ(s.PhysicalMediumNumberOfEntries, 1u);
    EXPECT_STREQ(s.PhysicalMedium[0].Name, "sda");
    EXPECT_STREQ(s.PhysicalMedium[0].SerialNumber, "4C530001230517115223");
    ASSERT_EQ(s.LogicalVolumeNumberOfEntries, 2u);
    // In the order of /var/dev's listing.
    std::vector<std::string> volumes = {s.LogicalVolume[0].Name, s.LogicalVolume[1].Name};
    std::sort(volumes.begin(), volumes.end());
    EXPECT_EQ(volumes, (Lines{"sda1", "sda2"}));
    // Built after the history record and the mounts, before the alarm.
    const Lines log = fake::log_texts();
    const auto built = std::find(log.begin(), log.end(), "=========== PhysicalMedium ================");
    const auto mounted = std::find(log.begin(), log.end(), "mount /var/dev/sda2 auto /tmp/disk/sda2 success");
    ASSERT_NE(built, log.end());
    ASSERT_NE(mounted, log.end());
    EXPECT_LT(mounted, built);
    // The ring logs under the configuration store's name.
    EXPECT_TRUE(fake::logged(4, "db_util.c", "1-0 : EVT BUFFER - USBMGR_TR140_ADD_STORAGE"));
}

TEST_F(StorageRemoval, BothServersAreStoppedBeforeTheUnmountAndTheModelNoLongerShowsTheDisk) {
    use_mount_table();
    give_nodes_to(seams.runner, {"sda", "sda1", "sdb", "sdb1"});
    arrive(make_record("sda,sda1"));
    arrive(make_record("sdb,sdb1", "SER-B"));
    usbmgr_alarm_work();
    ASSERT_EQ(usbmgr_tr140_db[0].PhysicalMediumNumberOfEntries, 2u);
    seams.runner.clear();
    fake::reset();

    leave(make_record("sda,sda1"));

    EXPECT_EQ(server_and_unmount_commands(seams.runner.texts()),
              (Lines{"ps | grep minidlnad | grep -v grep 2>&1", "ps | grep smbd | grep -v grep 2>&1",
                     "ps | grep nmbd | grep -v grep 2>&1", "umount /tmp/disk/sda1"}));
    const tr140_storage_service& s = usbmgr_tr140_db[0];
    ASSERT_EQ(s.PhysicalMediumNumberOfEntries, 1u);
    EXPECT_STREQ(s.PhysicalMedium[0].Name, "sdb");
    ASSERT_EQ(s.LogicalVolumeNumberOfEntries, 1u);
    EXPECT_STREQ(s.LogicalVolume[0].Name, "sdb1");
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "EVENT - DUSB_EVT_REMOVE_STORAGE_INTERFACE"));
}
