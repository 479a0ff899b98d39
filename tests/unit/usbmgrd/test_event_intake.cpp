// Hot-plug intake of USB storage, the ring of pending change kinds, the
// deferred reload and notification, and the folder watcher, seen through
// the command runner, the clock and the bus double.
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/str.h"
#include "platform_fake.h"
#include "test_support.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::file_exists;
using testing_support::read_file;
using testing_support::read_lines;
using testing_support::Seams;
using Lines = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

namespace {

constexpr unsigned long kDeferral = 900000;

// The handlers' globals, cleared before and after each test so that tests
// run in one process do not see each other's devices or pending kinds.
void reset_event_globals() {
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0, sizeof usb_volume_info);
    dp_util_evt_buf_init();
    usbmgr_evt_in_progress = 0;
    usbmgr_reload_target = 0;
}

void use_settings() {
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 10;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
}

// Answers "mount | grep FOLDER" from what "mount -v -t auto" mounted and
// "umount" released, like the kernel's mount table would.
class MountTable {
public:
    std::string respond(const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        static const std::string kMount = "mount -v -t auto ";
        static const std::string kUmount = "umount ";
        static const std::string kCheck = "mount | grep ";
        if (text.rfind(kMount, 0) == 0) {
            std::string rest = text.substr(kMount.size());
            mounted_.insert(rest.substr(rest.find(' ') + 1));
        } else if (text.rfind(kUmount, 0) == 0) {
            mounted_.erase(text.substr(kUmount.size()));
        } else if (text.rfind(kCheck, 0) == 0) {
            std::string folder = text.substr(kCheck.size(), text.find(' ', kCheck.size()) - kCheck.size());
            if (mounted_.count(folder)) return "/var/dev/x on " + folder + " type ext4 (rw)\n";
        }
        return "";
    }

private:
    std::mutex mutex_;
    std::set<std::string> mounted_;
};

DusbDeviceRecord make_record(const char* attach, const char* serial = "4C530001230517115223") {
    DusbDeviceRecord r{};
    r.Index = 2;
    r.ArrivedOrLeft = 1;
    r.ProductID = 0x5581;
    r.VendorID = 0x0781;
    r.DeviceClass = 0x08;
    r.DeviceSubClass = 0x06;
    r.DeviceProtocol = 0x50;
    usbmgr::copy_str(r.AttachDevice, attach);
    usbmgr::copy_str(r.USBVersion, "2.10");
    r.DeviceVersion = 256;
    usbmgr::copy_str(r.Manufacturer, "SanDisk");
    usbmgr::copy_str(r.ProductClass, "Ultra");
    usbmgr::copy_str(r.SerialNumber, serial);
    r.HostIndexInDB = 0;
    r.DeviceIndexInDB = 3;
    r.PortIndexInDB = 1;
    r.HostNumberOfEntries = 1;
    r.PortNumberOfEntries = 2;
    r.DeviceNumberOfEntries = 4;
    return r;
}

int arrive(DusbDeviceRecord rec, uint32_t len = DUSB_DEVICE_RECORD_SIZE) {
    return usbmgr_evt_new_storage_interface(nullptr, 0, len, &rec);
}

int leave(DusbDeviceRecord rec, uint32_t len = DUSB_DEVICE_RECORD_SIZE) {
    return usbmgr_evt_remove_storage_interface(nullptr, 0, len, &rec);
}

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

Lines pending_kinds() {
    UsbmgrEvtBuffer saved = usbmgr_evt_buffer;
    Lines names;
    int32_t kind;
    while (dp_util_evt_buf_read(&kind) == 0) names.push_back(usbmgr_tr140_kind_name(kind));
    usbmgr_evt_buffer = saved;
    return names;
}

Lines print_lines_of_default_record(const std::string& attach, const std::string& serial) {
    return {
        "   Index                  = 2",
        "   ArrivedOrLeft          = 1",
        "   VendorID               = 0x0781",
        "   ProductID              = 0x5581",
        "   DeviceClass            = 0x08",
        "   DeviceSubClass         = 0x06",
        "   DeviceProtocol         = 0x50",
        "   AttachDevice           = " + attach,
        "   USBVersion             = 2.10",
        "   DeviceVersion          = 256",
        "   Manufacturer           = SanDisk",
        "   ProductClass           = Ultra",
        "   SerialNumber           = " + serial,
        "   HostIndexInDB          = 0",
        "   DeviceIndexInDB        = 3",
        "   PortIndexInDB          = 1",
        "   HostNumberOfEntries    = 1",
        "   DeviceNumberOfEntries  = 4",
        "   PortNumberOfEntries    = 2",
    };
}

Lines mount_commands_of_sda_with_two_partitions() {
    return {
        "ls /var/dev | grep sda 2>&1",
        "mknod /var/dev/sda b 8 0",
        "ls /var/dev | grep sda1 2>&1",
        "mknod /var/dev/sda1 b 8 1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "mount -v -t auto /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "ls /var/dev | grep sda2 2>&1",
        "mknod /var/dev/sda2 b 8 2",
        "mount | grep /tmp/disk/sda2 2>&1",
        "mount -v -t auto /var/dev/sda2 /tmp/disk/sda2",
        "mount | grep /tmp/disk/sda2 2>&1",
    };
}

// One inotify event as the kernel lays it out: header, then the name padded
// with NULs to len bytes.
void append_event(std::vector<char>& buf, uint32_t mask, const std::string& name, int wd = 1) {
    inotify_event ev{};
    ev.wd = wd;
    ev.mask = mask;
    ev.len = name.empty() ? 0 : static_cast<uint32_t>((name.size() + 1 + 15) / 16 * 16);
    const char* p = reinterpret_cast<const char*>(&ev);
    buf.insert(buf.end(), p, p + sizeof ev);
    std::vector<char> field(ev.len, '\0');
    std::copy(name.begin(), name.end(), field.begin());
    buf.insert(buf.end(), field.begin(), field.end());
}

class EventTest : public ::testing::Test {
protected:
    EventTest() {
        reset_event_globals();
        use_settings();
    }
    ~EventTest() override { reset_event_globals(); }

    // Answers the mount checks from a mount table.
    void use_mount_table() {
        seams.runner.respond = [this](const std::string& t) { return mounts.respond(t); };
    }

    Seams seams;
    MountTable mounts;
};

// The ring is written under the daemon lock, as the daemon does.
class EventRing : public EventTest {
protected:
    usbmgr::DaemonLock lock_;
};
using StorageArrival = EventTest;
using StorageRemoval = EventTest;
using DeferredReload = EventTest;
using DeviceRecordInput = EventTest;
using FolderWatcher = EventTest;

}  // namespace

// ---------------------------------------------------------------------------
// Ring of pending change kinds

TEST_F(EventRing, KindsAreReadBackOldestFirst) {
    EXPECT_EQ(dp_util_evt_buf_write(2), 0);
    EXPECT_EQ(dp_util_evt_buf_write(5), 0);
    EXPECT_EQ(dp_util_evt_buf_write(9), 0);
    int32_t kind = -7;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), 0);
    EXPECT_EQ(kind, 2);
    EXPECT_EQ(dp_util_evt_buf_read(&kind), 0);
    EXPECT_EQ(kind, 5);
    EXPECT_EQ(dp_util_evt_buf_read(&kind), 0);
    EXPECT_EQ(kind, 9);
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
}

TEST_F(EventRing, ReadingAnEmptyRingGivesMinusOneAndLeavesTheKindAlone) {
    int32_t kind = 42;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
    EXPECT_EQ(kind, 42);
}

TEST_F(EventRing, InitEmptiesTheRingAndReturnsMinusOne) {
    dp_util_evt_buf_write(3);
    EXPECT_EQ(dp_util_evt_buf_init(), -1);
    EXPECT_EQ(usbmgr_evt_buffer.write_index, 0);
    EXPECT_EQ(usbmgr_evt_buffer.read_index, 0);
    EXPECT_EQ(usbmgr_evt_buffer.kinds[0], 0);
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
}

TEST_F(EventRing, TenKindsWrittenWithoutAFlushLeaveTheRingEmptyAndNothingIsSent) {
    for (int32_t k = 0; k < 10; ++k) dp_util_evt_buf_write(k);
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
    usbmgr_flush_notify();
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(EventRing, WritingGoesOnAfterAnOverflow) {
    for (int32_t k = 0; k < 10; ++k) dp_util_evt_buf_write(k);
    dp_util_evt_buf_write(USBMGR_TR140_ADD_USER);
    usbmgr_flush_notify();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{5}));
}

TEST_F(EventRing, NinePendingKindsAreAllKept) {
    for (int32_t k = 0; k < 9; ++k) dp_util_evt_buf_write(k);
    usbmgr_flush_notify();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(EventRing, EachWriteLogsEveryPendingKindWithWriteIndexAndSlotUnderDbUtil) {
    dp_util_evt_buf_write(USBMGR_TR140_SERVICE_CHANGE);
    dp_util_evt_buf_write(USBMGR_TR140_NETWORK_SERVICE_CHANGE);
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "1-0 : EVT BUFFER - USBMGR_TR140_SERVICE_CHANGE",
                                     "2-0 : EVT BUFFER - USBMGR_TR140_SERVICE_CHANGE",
                                     "2-1 : EVT BUFFER - USBMGR_TR140_NETWORK_SERVICE_CHANGE",
                                 }));
    for (const auto& line : fake::bus().log) {
        EXPECT_EQ(line.module, "db_util.c");
        EXPECT_EQ(line.level, 4);
    }
}

TEST_F(EventRing, LoggedSlotsWrapAroundAtTen) {
    for (int32_t k = 0; k < 8; ++k) dp_util_evt_buf_write(USBMGR_TR140_ADD_STORAGE);
    int32_t kind;
    while (dp_util_evt_buf_read(&kind) == 0) {
    }
    fake::reset();
    dp_util_evt_buf_write(USBMGR_TR140_ADD_USER_ACCESS);
    dp_util_evt_buf_write(USBMGR_TR140_REMOVE_USER_ACCESS);
    dp_util_evt_buf_write(USBMGR_TR140_MODIFY_USER_ACCES);
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "9-8 : EVT BUFFER - USBMGR_TR140_ADD_USER_ACCESS",
                                     "0-8 : EVT BUFFER - USBMGR_TR140_ADD_USER_ACCESS",
                                     "0-9 : EVT BUFFER - USBMGR_TR140_REMOVE_USER_ACCESS",
                                     "1-8 : EVT BUFFER - USBMGR_TR140_ADD_USER_ACCESS",
                                     "1-9 : EVT BUFFER - USBMGR_TR140_REMOVE_USER_ACCESS",
                                     "1-0 : EVT BUFFER - USBMGR_TR140_MODIFY_USER_ACCES",
                                 }));
}

TEST_F(EventRing, FlushSendsEveryPendingKindAsEventZeroOldestFirst) {
    dp_util_evt_buf_write(USBMGR_TR140_PHYSICAL_MEDIUM_CHANGE);
    dp_util_evt_buf_write(USBMGR_TR140_STORAGE_SAFE_REMOVE);
    usbmgr_flush_notify();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{8, 14}));
    ASSERT_EQ(fake::bus().notifications.size(), 2u);
    EXPECT_EQ(fake::bus().notifications[0].id, USBMGR_EVT_SERVICE_STATE_CHANGE);
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
}

TEST_F(EventRing, FailedSendIsLoggedAndTheKindIsGone) {
    fake::bus().notify_code = ORBIIL_TX_FAIL;
    dp_util_evt_buf_write(USBMGR_TR140_ADD_USER);
    fake::reset();
    fake::bus().notify_code = ORBIIL_TX_FAIL;
    usbmgr_flush_notify();
    EXPECT_EQ(fake::log_texts(), (Lines{"fail to OrbIilExecute(), err = TX_FAIL"}));
    fake::bus().notify_code = 0;
    usbmgr_flush_notify();
    EXPECT_TRUE(fake::sent_kinds().empty());
}

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
    EXPECT_TRUE(fake::logged("mount /var/dev/sda1 auto /tmp/disk/sda1 success"));
    EXPECT_TRUE(fake::logged("mount /var/dev/sda2 auto /tmp/disk/sda2 success"));

    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    EXPECT_EQ(usbmgr_reload_target, 3);
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE"}));
    EXPECT_TRUE(fake::logged("1-0 : EVT BUFFER - USBMGR_TR140_ADD_STORAGE"));
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
    EXPECT_NE(std::find(cmds.begin(), cmds.end(), "mount -v -t auto /var/dev/sda1 /tmp/disk/sda1"), cmds.end());
    EXPECT_NE(std::find(cmds.begin(), cmds.end(), "mount -v -t auto /var/dev/sdb1 /tmp/disk/sdb1"), cmds.end());
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
    EXPECT_TRUE(fake::logged("/tmp/disk/sda1 already exist"));
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
    EXPECT_TRUE(fake::logged("umount /tmp/disk/sda1 success"));
    EXPECT_TRUE(fake::logged("remove folder /tmp/disk/sda2 success"));
    EXPECT_FALSE(file_exists("/tmp/disk/sda1"));
    EXPECT_FALSE(file_exists("/tmp/disk/sda2"));

    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_REMOVE_STORAGE"}));
    EXPECT_TRUE(fake::logged("2-1 : EVT BUFFER - USBMGR_TR140_REMOVE_STORAGE"));
    EXPECT_EQ(seams.clock.alarms().size(), alarms + 1);
    EXPECT_EQ(seams.clock.alarms().back(), kDeferral);
    EXPECT_EQ(usbmgr_reload_target, 3);
    EXPECT_EQ(usbmgr_evt_in_progress, 0);
    EXPECT_EQ(read_file(TR140_CONF_PATH), history);
    EXPECT_TRUE(fake::sent_kinds().empty());

    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{1}));
}

TEST_F(StorageRemoval, BusyVolumeIsRetriedEveryThreeSecondsUntilItIsFree) {
    use_mount_table();
    arrive(make_record("sda,sda1"));
    seams.runner.clear();
    int checks = 0;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "mount | grep /tmp/disk/sda1 2>&1" && ++checks < 3) return std::string("x on /tmp/disk/sda1\n");
        return std::string();
    };
    leave(make_record("sda,sda1"));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{3000000, 3000000}));
    EXPECT_TRUE(fake::logged("try to umount /tmp/disk/sda1 , count = 3"));
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE", "USBMGR_TR140_REMOVE_STORAGE"}));
}

// ---------------------------------------------------------------------------
// Deferred reload

TEST_F(DeferredReload, AlarmDuringAStorageEventLogsNextIncomingEventReArmsAndSendsNothing) {
    {
        usbmgr::DaemonLock lock;
        dp_util_evt_buf_write(USBMGR_TR140_ADD_STORAGE);
    }
    fake::reset();
    usbmgr_evt_in_progress = 1;
    usbmgr_alarm_work();
    EXPECT_EQ(fake::log_texts(), (Lines{"********** NEXT INCOMING EVENT **********"}));
    EXPECT_EQ(fake::bus().log.at(0).level, 4);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE"}));

    usbmgr_evt_in_progress = 0;
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{0}));
    EXPECT_EQ(seams.clock.alarms().size(), 1u);
}

TEST_F(DeferredReload, AlarmThatFiresWhileARemovalIsHandledWaitsAnotherDeferral) {
    use_mount_table();
    arrive(make_record("sda,sda1"));
    usbmgr_alarm_work();
    const std::size_t alarms = seams.clock.alarms().size();
    fake::reset();

    // The removal stays inside its unmount until the test lets it go.
    std::mutex m;
    std::condition_variable cv;
    bool entered = false;
    bool released = false;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "umount /tmp/disk/sda1") {
            std::unique_lock<std::mutex> lock(m);
            entered = true;
            cv.notify_all();
            cv.wait(lock, [&] { return released; });
        }
        return mounts.respond(t);
    };
    std::thread removal([] { leave(make_record("sda,sda1")); });
    {
        std::unique_lock<std::mutex> lock(m);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return entered; }));
    }
    EXPECT_EQ(usbmgr_evt_in_progress, 1);

    usbmgr_alarm_work();
    EXPECT_TRUE(fake::logged("********** NEXT INCOMING EVENT **********"));
    std::vector<unsigned long> after = seams.clock.alarms();
    EXPECT_EQ(after.size(), alarms + 1);
    EXPECT_EQ(after.back(), kDeferral);
    EXPECT_TRUE(fake::sent_kinds().empty());

    {
        std::lock_guard<std::mutex> lock(m);
        released = true;
    }
    cv.notify_all();
    removal.join();

    EXPECT_EQ(usbmgr_evt_in_progress, 0);
    EXPECT_EQ(seams.clock.alarms().size(), alarms + 2);
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{1}));
}

TEST_F(DeferredReload, StorageEventsChooseBothServersForTheReload) {
    use_mount_table();
    usbmgr_reload_target = 1;
    arrive(make_record("sda,sda1"));
    EXPECT_EQ(usbmgr_reload_target, 3);
    usbmgr_reload_target = 2;
    leave(make_record("sda,sda1"));
    EXPECT_EQ(usbmgr_reload_target, 3);
}

TEST_F(DeferredReload, ArmingSetsTheTargetWhichTheAlarmKeepsUsing) {
    usbmgr_arm_reload(2);
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    {
        usbmgr::DaemonLock lock;
        dp_util_evt_buf_write(USBMGR_TR140_SERVICE_CHANGE);
    }
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{2}));
    // Never cleared: the next alarm reloads the same servers.
    EXPECT_EQ(usbmgr_reload_target, 2);
    usbmgr_arm_reload(1);
    EXPECT_EQ(usbmgr_reload_target, 1);
}

TEST_F(DeferredReload, AlarmWithNothingPendingSendsNothing) {
    usbmgr_reload_target = 3;
    usbmgr_alarm_work();
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(DeferredReload, AlarmSignalWakesTheDeferredWorkerThatFlushes) {
    ASSERT_EQ(usbmgr_deferred_init(), 1);
    {
        usbmgr::DaemonLock lock;
        dp_util_evt_buf_write(USBMGR_TR140_LOGICAL_VOLUME_CHANGE);
    }
    usbmgr_alarm_handler(SIGALRM);
    Kinds sent;
    for (int i = 0; i < 2000 && sent.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        sent = fake::sent_kinds();
    }
    EXPECT_EQ(sent, (Kinds{9}));
    // The worker is done once the ring is empty under the lock.
    usbmgr::DaemonLock lock;
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
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
    EXPECT_TRUE(fake::logged("   SerialNumber           = AB_C=D_E_"));
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
    EXPECT_TRUE(fake::logged("   USBVersion             = 999999"));
    EXPECT_EQ(read_lines(TR140_CONF_PATH).at(0), "USBMGR.0.SERIAL_NUMBER=" + std::string(63, 'S'));
}

// ---------------------------------------------------------------------------
// Folder watcher

// Every rebuild of the model ends with the device tables in the log.
constexpr const char kTablesHeader[] = "=========== usb_physical_info ================";
constexpr const char kVolumesHeader[] = "=========== usb_volume_info ================";

TEST_F(FolderWatcher, FolderNamedMusicCreatedSendsKindTenAtOnce) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, "Music");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10}));
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "event->name = Music, event->mask = 0x40000100",
                                     kTablesHeader,
                                     kVolumesHeader,
                                     "1-0 : EVT BUFFER - USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE",
                                 }));
    EXPECT_TRUE(pending_kinds().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(FolderWatcher, FolderNamedDotCacheCausesNoNotification) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, ".cache");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(FolderWatcher, PlainFileEventsAreIgnored) {
    std::vector<char> buf;
    append_event(buf, IN_CREATE, "song.mp3");
    append_event(buf, IN_DELETE, "song.mp3");
    append_event(buf, IN_MOVED_TO, "film.mkv");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(FolderWatcher, FolderDeletedOrMovedInAlsoSendsKindTen) {
    std::vector<char> deleted;
    append_event(deleted, IN_ISDIR | IN_DELETE, "Photos");
    usbmgr_handle_inotify_events(deleted.data(), deleted.size());
    std::vector<char> moved;
    append_event(moved, IN_ISDIR | IN_MOVED_TO, "Videos");
    usbmgr_handle_inotify_events(moved.data(), moved.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10, 10}));
    EXPECT_TRUE(fake::logged("event->name = Photos, event->mask = 0x40000200"));
    EXPECT_TRUE(fake::logged("event->name = Videos, event->mask = 0x40000080"));
}

TEST_F(FolderWatcher, OtherMasksAndEmptyNamesAreIgnored) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_MOVED_FROM, "Old");
    append_event(buf, IN_ISDIR | IN_CREATE | IN_Q_OVERFLOW, "Odd");
    append_event(buf, IN_ISDIR | IN_CREATE, "");
    append_event(buf, IN_IGNORED, "");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(FolderWatcher, TwoFolderEventsInOneReadGiveTwoNotifications) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, "Music");
    append_event(buf, IN_CREATE, "notes.txt");
    append_event(buf, IN_ISDIR | IN_CREATE, ".Trash");
    append_event(buf, IN_ISDIR | IN_DELETE, "Docs");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10, 10}));
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "event->name = Music, event->mask = 0x40000100",
                                     kTablesHeader,
                                     kVolumesHeader,
                                     "1-0 : EVT BUFFER - USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE",
                                     "event->name = Docs, event->mask = 0x40000200",
                                     kTablesHeader,
                                     kVolumesHeader,
                                     "2-1 : EVT BUFFER - USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE",
                                 }));
}

TEST_F(FolderWatcher, TruncatedBufferIsHandledUpToItsLastWholeEvent) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, "Music");
    const std::size_t whole = buf.size();
    append_event(buf, IN_ISDIR | IN_CREATE, "Pictures");
    // Cut inside the second event's name, then inside its header.
    for (std::size_t len : {buf.size() - 1, whole + sizeof(inotify_event) - 1, whole + 3}) {
        fake::reset();
        std::vector<char> cut(buf.begin(), buf.begin() + static_cast<long>(len));
        usbmgr_handle_inotify_events(cut.data(), cut.size());
        EXPECT_EQ(fake::sent_kinds(), (Kinds{10})) << len;
    }
    fake::reset();
    std::vector<char> tiny(buf.begin(), buf.begin() + 5);
    usbmgr_handle_inotify_events(tiny.data(), tiny.size());
    usbmgr_handle_inotify_events(buf.data(), 0);
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(FolderWatcher, NameFillingItsWholeFieldWithoutATerminatorStaysBounded) {
    std::vector<char> buf;
    inotify_event ev{};
    ev.wd = 1;
    ev.mask = IN_ISDIR | IN_CREATE;
    ev.len = 16;
    const char* p = reinterpret_cast<const char*>(&ev);
    buf.insert(buf.end(), p, p + sizeof ev);
    const std::string name = "ABCDEFGHIJKLMNOP";
    buf.insert(buf.end(), name.begin(), name.end());
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10}));
    EXPECT_TRUE(fake::logged("event->name = ABCDEFGHIJKLMNOP, event->mask = 0x40000100"));
}

TEST_F(FolderWatcher, WatchesOfVolumesInDevFolderAreAddedAndRemovedWithoutAnInotifyInstance) {
    const pollfd saved = pollfds[0];
    testing_support::write_file("/var/dev/sda", "");
    testing_support::write_file("/var/dev/sda1", "");
    testing_support::write_file("/var/dev/sda2", "");
    testing_support::write_file("/var/dev/sdb1", "");
    for (int fd : {-1, 0}) {
        pollfds[0].fd = fd;
        usbmgr_add_folder_watches();
        usbmgr_remove_folder_watches();
    }
    pollfds[0] = saved;
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(FolderWatcher, FolderMadeOnAWatchedVolumeReachesTheHandlerAsKindTen) {
    const pollfd saved = pollfds[0];
    pollfds[0].fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(pollfds[0].fd, 0);
    testing_support::write_file("/var/dev/sda1", "");
    ASSERT_EQ(mkdir("/tmp/disk", 0775), 0);
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0775), 0);

    usbmgr_add_folder_watches();
    ASSERT_EQ(mkdir("/tmp/disk/sda1/Music", 0775), 0);
    ASSERT_EQ(mkdir("/tmp/disk/sda1/.cache", 0775), 0);
    alignas(inotify_event) char buf[4096];
    ssize_t n = read(pollfds[0].fd, buf, sizeof buf);
    ASSERT_GT(n, 0);
    usbmgr_handle_inotify_events(buf, static_cast<std::size_t>(n));
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10}));
    EXPECT_TRUE(fake::logged("event->name = Music, event->mask = 0x40000100"));

    usbmgr_remove_folder_watches();
    close(pollfds[0].fd);
    pollfds[0] = saved;
}
