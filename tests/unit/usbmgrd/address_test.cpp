// How the storage commands turn a service number and a table slot into a
// model entry, and which numbers they refuse.
#include <gtest/gtest.h>

#include "fixture.h"
#include "storage_world.h"
#include "usbmgrd/usbmgr_address.h"
#include "usbmgrd/usbmgr_tr140.h"

using testing_support::FakeDisk;
using testing_support::StorageWorld;
using namespace usbmgr;

namespace {

class StorageAddress : public testing_support::DaemonTest {
protected:
    StorageAddress() : world(seams.runner) {}
    StorageWorld world;
};

}  // namespace

TEST_F(StorageAddress, OnlyServicesZeroAndOneExist) {
    EXPECT_TRUE(service_ok(0));
    EXPECT_TRUE(service_ok(1));
    EXPECT_FALSE(service_ok(2));
    EXPECT_FALSE(service_ok(-1));
    EXPECT_FALSE(service_ok(INT32_MIN));
}

TEST_F(StorageAddress, SlotsOutsideTheTableHaveNoRow) {
    world.plug(FakeDisk{});
    EXPECT_NE(disk_row(0), nullptr);
    EXPECT_NE(volume_row(0), nullptr);
    for (int32_t slot : {25, 26, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(disk_row(slot), nullptr) << slot;
        EXPECT_EQ(volume_row(slot), nullptr) << slot;
    }
}

TEST_F(StorageAddress, DiskRowWithOnlyASerialNumberStillCounts) {
    usbmgr::copy_str(usb_physical_info[3].serial_number, "SER-9");
    EXPECT_EQ(disk_row(3), &usb_physical_info[3]);
    EXPECT_EQ(disk_row(4), nullptr);
}

TEST_F(StorageAddress, SlotLeadsToTheModelIndexTheBuilderWroteBack) {
    world.plug(FakeDisk{});
    StorageWorld::build();
    int32_t status = 99;
    EXPECT_EQ(resolve_disk(0, 0, &status), 0);
    EXPECT_EQ(resolve_volume(0, 0, &status), 0);
    EXPECT_EQ(status, 99);  // untouched on success
}

TEST_F(StorageAddress, BadServiceIsMinusOneBeforeAnySlotCheck) {
    int32_t status = 0;
    EXPECT_EQ(resolve_disk(2, 99, &status), -1);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(resolve_volume(-1, 0, &status), -1);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(resolve_volume_by_model_row(2, 0, &status), -1);
    EXPECT_EQ(status, -1);
}

TEST_F(StorageAddress, ServiceOneHasNoDiskAndNoVolume) {
    world.plug(FakeDisk{});
    StorageWorld::build();
    int32_t status = 0;
    EXPECT_EQ(resolve_disk(1, 0, &status), -1);
    EXPECT_EQ(status, -2);
    EXPECT_EQ(resolve_volume(1, 0, &status), -1);
    EXPECT_EQ(status, -3);
    EXPECT_EQ(resolve_volume_by_model_row(1, 0, &status), -1);
    EXPECT_EQ(status, -3);
}

TEST_F(StorageAddress, SlotTwentyFiveAndNegativeSlotsAreEmpty) {
    world.plug(FakeDisk{});
    StorageWorld::build();
    for (int32_t slot : {25, -1, INT32_MIN}) {
        int32_t status = 0;
        EXPECT_EQ(resolve_disk(0, slot, &status), -1);
        EXPECT_EQ(status, -2) << slot;
        EXPECT_EQ(resolve_volume(0, slot, &status), -1);
        EXPECT_EQ(status, -3) << slot;
        EXPECT_EQ(resolve_volume_by_model_row(0, slot, &status), -1);
        EXPECT_EQ(status, -3) << slot;
    }
}

TEST_F(StorageAddress, RowWhoseModelIndexLiesOutsideTheModelIsNotFound) {
    world.plug(FakeDisk{});
    StorageWorld::build();
    usb_physical_info[0].tr140_db_address = 5;
    usb_volume_info[0].tr140_db_address = -4;
    int32_t status = 0;
    EXPECT_EQ(resolve_disk(0, 0, &status), -1);
    EXPECT_EQ(status, -2);
    EXPECT_EQ(resolve_volume(0, 0, &status), -1);
    EXPECT_EQ(status, -3);
    EXPECT_EQ(resolve_volume_by_model_row(0, 0, &status), -1);
    EXPECT_EQ(status, -3);
}

TEST_F(StorageAddress, UserAccessAddressingTestsTheRowTheModelIndexNamesNotTheSlot) {
    FakeDisk d;
    d.volumes = {"sda1", "sda2"};
    world.plug(d);
    StorageWorld::build();
    // Slot 1 says model entry 0; the row tested is row 0, not row 1.
    usb_volume_info[1].tr140_db_address = 0;
    int32_t status = 0;
    EXPECT_EQ(resolve_volume_by_model_row(0, 1, &status), 0);
    usb_volume_info[0].name[0] = '\0';
    EXPECT_EQ(resolve_volume_by_model_row(0, 1, &status), -1);
    EXPECT_EQ(status, -3);
    // A free slot whose old index names a filled row is answered from that row.
    usb_volume_info[7].tr140_db_address = 1;
    EXPECT_EQ(resolve_volume_by_model_row(0, 7, &status), 1);
}

TEST_F(StorageAddress, AnAttachedDiskRowNeedsItsDeviceListAndASlotInsideTheTable) {
    world.plug(FakeDisk{});
    usbmgr::copy_str(usb_physical_info[3].serial_number, "GHOST");
    EXPECT_EQ(attached_disk_row(0), &usb_physical_info[0]);
    EXPECT_EQ(attached_disk_row(3), nullptr);
    EXPECT_EQ(attached_disk_row(4), nullptr);
    for (int32_t slot : {25, 26, -1, INT32_MIN, INT32_MAX}) EXPECT_EQ(attached_disk_row(slot), nullptr) << slot;
}
