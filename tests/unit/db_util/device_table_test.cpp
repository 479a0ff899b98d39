#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/str.h"
#include "fixture.h"
#include "platform_fake.h"

namespace {

// Every test starts and ends with empty tables of full capacity.
using DeviceTables = testing_support::DaemonTest;

// Fills a slot the way the arrival handler does.
void put_disk(int slot, const char* device, const char* serial) {
    UsbPhysicalInfo& e = usb_physical_info[slot];
    e.index = slot;
    usbmgr::copy_str(e.attach_device, device);
    usbmgr::copy_str(e.serial_number, serial);
}

void put_volume(int slot, const char* name) {
    usb_volume_info[slot].index = slot;
    usbmgr::copy_str(usb_volume_info[slot].name, name);
}

std::string disk_name(int n) {
    // sda .. sdz
    return std::string("sd") + static_cast<char>('a' + n);
}

}  // namespace

TEST_F(DeviceTables, TwentySixthDiskGetsNoSlot) {
    for (int n = 0; n < 25; ++n) {
        int slot = db_util_get_usb_physical_info_free_item(disk_name(n).c_str());
        ASSERT_EQ(slot, n);
        put_disk(slot, disk_name(n).c_str(), ("SN" + std::to_string(n)).c_str());
    }
    EXPECT_EQ(db_util_get_usb_physical_info_free_item(disk_name(25).c_str()), -1);
}

TEST_F(DeviceTables, DiskAlreadyListedGetsItsOldSlotBackBeforeLowerFreeSlots) {
    put_disk(4, "sdc", "S4");
    EXPECT_EQ(db_util_get_usb_physical_info_free_item("sdc"), 4);
    EXPECT_EQ(db_util_get_usb_physical_info_free_item("sdd"), 0);
}

TEST_F(DeviceTables, SlotHoldingOnlyASerialNumberIsNotFree) {
    usbmgr::copy_str(usb_physical_info[0].serial_number, "LEFTOVER");
    EXPECT_EQ(db_util_get_usb_physical_info_free_item("sda"), 1);
}

TEST_F(DeviceTables, VolumeSlotIsReusedThenLowestFreeThenNone) {
    put_volume(3, "sda1");
    EXPECT_EQ(db_util_get_usb_volume_info_free_item("sda1"), 3);
    EXPECT_EQ(db_util_get_usb_volume_info_free_item("sda2"), 0);
    for (int n = 0; n < 25; ++n)
        if (n != 3) put_volume(n, ("sdb" + std::to_string(n + 1)).c_str());
    EXPECT_EQ(db_util_get_usb_volume_info_free_item("sdz1"), -1);
}

TEST_F(DeviceTables, DeletedDiskSlotIsFreeButKeepsItsModelAddress) {
    usbmgr::DaemonLock lock;  // deleting changes the tables
    put_disk(2, "sdb", "SERIAL-B");
    UsbPhysicalInfo& e = usb_physical_info[2];
    e.tr140_db_address = 7;
    usbmgr::copy_str(e.vendor, "Vendor");
    usbmgr::copy_str(e.model, "Model");
    usbmgr::copy_str(e.usb_version, "2.0");
    usbmgr::copy_str(e.firmware_version, "1.00");

    EXPECT_EQ(db_util_delete_usb_physical_info_item("sdb"), 0);
    EXPECT_EQ(e.index, 0);
    EXPECT_STREQ(e.attach_device, "");
    EXPECT_STREQ(e.vendor, "");
    EXPECT_STREQ(e.model, "");
    EXPECT_STREQ(e.usb_version, "");
    EXPECT_STREQ(e.serial_number, "");
    EXPECT_STREQ(e.firmware_version, "");
    EXPECT_EQ(e.tr140_db_address, 7);
    // Free again: a new disk with a lower slot taken lands here.
    put_disk(0, "sda", "A");
    put_disk(1, "sdc", "C");
    EXPECT_EQ(db_util_get_usb_physical_info_free_item("sdd"), 2);
}

TEST_F(DeviceTables, DeletingUnknownDiskOrVolumeReturnsMinusOne) {
    usbmgr::DaemonLock lock;  // deleting changes the tables
    put_disk(0, "sda", "A");
    put_volume(0, "sda1");
    EXPECT_EQ(db_util_delete_usb_physical_info_item("sdb"), -1);
    EXPECT_EQ(db_util_delete_usb_volume_info_item("sda2"), -1);
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda");
    EXPECT_STREQ(usb_volume_info[0].name, "sda1");
}

TEST_F(DeviceTables, DeletedVolumeSlotLosesItsModelAddressToo) {
    usbmgr::DaemonLock lock;  // deleting changes the tables
    put_volume(5, "sdb2");
    usb_volume_info[5].tr140_db_address = 3;
    EXPECT_EQ(db_util_delete_usb_volume_info_item("sdb2"), 0);
    EXPECT_EQ(usb_volume_info[5].index, 0);
    EXPECT_EQ(usb_volume_info[5].tr140_db_address, 0);
    EXPECT_STREQ(usb_volume_info[5].name, "");
}

TEST_F(DeviceTables, DiskSlotByDeviceFindsDiskNameButNotPartitionName) {
    put_disk(1, "sda", "A");
    EXPECT_EQ(db_util_get_usb_physical_info_index_by_device("sda1"), -1);
    EXPECT_EQ(db_util_get_usb_physical_info_index_by_device("sda"), 1);
}

TEST_F(DeviceTables, DiskSlotByDeviceCutsStoredNameToThreeCharacters) {
    put_disk(0, "sdb", "B");
    put_disk(3, "sdcd", "CD");
    EXPECT_EQ(db_util_get_usb_physical_info_index_by_device("sdc"), 3);
    EXPECT_EQ(db_util_get_usb_physical_info_index_by_device("sdcd"), -1);
}

TEST_F(DeviceTables, VolumeSlotByDeviceNeedsTheExactName) {
    put_volume(2, "sda1");
    put_volume(4, "sda11");
    EXPECT_EQ(db_util_get_usb_volume_info_index_by_device("sda11"), 4);
    EXPECT_EQ(db_util_get_usb_volume_info_index_by_device("sda1"), 2);
    EXPECT_EQ(db_util_get_usb_volume_info_index_by_device("sda"), -1);
}

TEST_F(DeviceTables, ReferenceByEmptyNameIsIndexOfSlotZeroEvenWhenEmpty) {
    put_disk(3, "sdb", "B");
    usb_physical_info[0].index = 9;  // a free slot with a stale index
    EXPECT_EQ(db_util_get_usb_physical_reference_by_name(""), 9);
}

TEST_F(DeviceTables, ReferenceByNameIsTheIndexFieldOfTheFirstContainingSlot) {
    put_disk(2, "sdb", "B");
    usb_physical_info[2].index = 11;
    EXPECT_EQ(db_util_get_usb_physical_reference_by_name("db"), 11);
    EXPECT_EQ(db_util_get_usb_physical_reference_by_name("sdc"), -1);
}

TEST_F(DeviceTables, PrintingEmptyTablesLogsOnlyTheTwoHeaders) {
    db_util_print_usb_physical_info();
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{"=========== usb_physical_info ================\n",
                                                            "=========== usb_volume_info ================\n"}));
    for (const auto& line : fake::bus().log) {
        EXPECT_EQ(line.level, 4);
        EXPECT_EQ(line.module, "db_util.c");
    }
}

TEST_F(DeviceTables, PrintingListsEveryFieldOfFilledSlotsOnly) {
    put_disk(1, "sdb", "SN-B");
    UsbPhysicalInfo& e = usb_physical_info[1];
    e.tr140_db_address = 2;
    usbmgr::copy_str(e.vendor, "Acme");
    usbmgr::copy_str(e.model, "Stick");
    usbmgr::copy_str(e.usb_version, "3.0");
    usbmgr::copy_str(e.firmware_version, "1.1");
    put_volume(0, "sdb1");
    usb_volume_info[0].tr140_db_address = 5;

    db_util_print_usb_physical_info();
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{
                                     "=========== usb_physical_info ================\n",
                                     "index               = 1",
                                     "tr140 db address    = 2",
                                     "attach_device       = sdb",
                                     "vendor              = Acme",
                                     "model               = Stick",
                                     "usb_version         = 3.0",
                                     "serial_number       = SN-B",
                                     "firmware_version    = 1.1",
                                     "-------------------------",
                                     "=========== usb_volume_info ================\n",
                                     "index               = 0",
                                     "tr140 db address    = 5",
                                     "name                = sdb1",
                                     "-------------------------",
                                 }));
}

TEST_F(DeviceTables, SearchesStopAtTheTableCapacity) {
    USB_PHYSICAL_INFO_MAX = 2;
    USB_VOLUME_INFO_MAX = 1;
    put_disk(0, "sda", "A");
    put_disk(1, "sdb", "B");
    put_disk(2, "sdc", "C");
    put_volume(0, "sda1");
    EXPECT_EQ(db_util_get_usb_physical_info_free_item("sdd"), -1);
    EXPECT_EQ(db_util_get_usb_physical_info_index_by_device("sdc"), -1);
    EXPECT_EQ(db_util_get_usb_volume_info_free_item("sdb1"), -1);
}
