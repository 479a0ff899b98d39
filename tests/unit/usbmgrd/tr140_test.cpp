// The storage service model: what the builder fills from the device
// tables, the history file, the settings and the attached volumes, the
// back-references it writes into the tables, and its log lines.
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fixture.h"
#include "platform_fake.h"
#include "storage_world.h"
#include "usbmgrd/usbmgr_tr140.h"

using testing_support::FakeDisk;
using testing_support::StorageWorld;
using Lines = std::vector<std::string>;

namespace {

class StorageModel : public testing_support::DaemonTest {
protected:
    StorageModel() : world(seams.runner) {}

    // Samba on with the given security mode.
    static void samba(int enable, const char* security) {
        SAMBA_CONF.enable = enable;
        usbmgr::copy_str(SAMBA_CONF.security, security);
    }

    static const tr140_storage_service& service0() { return usbmgr_tr140_db[0]; }

    // Log lines from the first one equal to first (inclusive), n of them.
    static Lines log_from(const std::string& first, std::size_t n) {
        Lines all = fake::log_texts();
        for (std::size_t i = 0; i < all.size(); ++i)
            if (all[i] == first)
                return Lines(all.begin() + static_cast<std::ptrdiff_t>(i),
                             all.begin() + static_cast<std::ptrdiff_t>(std::min(all.size(), i + n)));
        return {};
    }

    StorageWorld world;
};

// A pointer as the log prints it.
std::string ptr(const void* p) {
    char s[32];
    std::snprintf(s, sizeof s, "%p", p);
    return s;
}

const Lines kOneUser = {"USBMGR.SAMBA.USER_NAME.0=alice", "USBMGR.SAMBA.USER_PASSWORD.0=secret",
                        "USBMGR.SAMBA.USER_ENABLE.0=1"};

const Lines kHistorySda1 = {"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                            "USBMGR.0.ENABLE.0=1"};

}  // namespace

TEST_F(StorageModel, NoDiskLeavesBothListsAbsentWhileUsersAndEnableFollowTheSettings) {
    samba(1, "user");
    StorageWorld::settings(kOneUser);
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    EXPECT_EQ(s.PhysicalMediumNumberOfEntries, 0u);
    EXPECT_EQ(s.LogicalVolumeNumberOfEntries, 0u);
    EXPECT_FALSE(s.PhysicalMedium);
    EXPECT_FALSE(s.LogicalVolume);
    ASSERT_EQ(s.UserAccountNumberOfEntries, 1u);
    ASSERT_TRUE(s.UserAccount);
    EXPECT_STREQ(s.UserAccount[0].Name, "alice");
    EXPECT_STREQ(s.UserAccount[0].Password, "secret");
    EXPECT_EQ(s.UserAccount[0].Enable, 1u);
    EXPECT_EQ(s.Enable, 1u);

    samba(0, "user");
    StorageWorld::build();
    EXPECT_EQ(service0().Enable, 0u);
    EXPECT_EQ(service0().NetworkServer.SMBEnable, 0u);
}

TEST_F(StorageModel, FixedCapabilitiesAndEmptyNetInfoAreFilledOnEveryBuild) {
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    EXPECT_EQ(s.Capabilities.FTPCapable, 0u);
    EXPECT_EQ(s.Capabilities.HTTPWritable, 0u);
    EXPECT_STREQ(s.Capabilities.SupportedNetworkProtocols, "SMB");
    EXPECT_STREQ(s.Capabilities.SupportedFileSystemTypes, "FAT16,FAT32,NTFS,ext2,ext3,ext4");
    EXPECT_STREQ(s.NetInfo.HostName, "");
    EXPECT_STREQ(s.NetInfo.DomainName, "");
    EXPECT_EQ(s.NetworkServer.word1, 0u);
}

TEST_F(StorageModel, VolumeWithoutFoldersHasOneRootFolderAndTwoAllocatedEntries) {
    world.plug(FakeDisk{});
    StorageWorld::history(kHistorySda1);
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    ASSERT_EQ(s.LogicalVolumeNumberOfEntries, 1u);
    const tr140_logical_volume& lv = s.LogicalVolume[0];
    EXPECT_EQ(lv.FolderNumberOfEntries, 1u);
    ASSERT_TRUE(lv.Folder);
    EXPECT_STREQ(lv.Folder[0].Name, "/disk/sda1");
    // The spare entry behind the root exists and stays empty.
    EXPECT_STREQ(lv.Folder[1].Name, "");
    EXPECT_TRUE(fake::logged("allocate sda1 logicalvolume_folder = " + ptr(lv.Folder.get()) + ", size = 1"));
}

TEST_F(StorageModel, VolumeFieldsComeFromTheHistoryTheMountAndDf) {
    world.plug(FakeDisk{});
    world.folder("sda1", "Music");
    world.folder("sda1", ".Trash");
    world.folder("sda1", "notes~");
    world.mount("sda1", "vfat", 512, 100);
    StorageWorld::history(kHistorySda1);
    StorageWorld::build();
    const tr140_logical_volume& lv = service0().LogicalVolume[0];
    EXPECT_STREQ(lv.Name, "sda1");
    EXPECT_STREQ(lv.Status, "Online");
    EXPECT_EQ(lv.Enable, 1u);
    EXPECT_STREQ(lv.PhysicalReference, "StorageService.0.PhysicalMedium.{0}.");
    EXPECT_STREQ(lv.FileSystem, "FAT32");
    EXPECT_EQ(lv.Capacity, 512u);
    EXPECT_EQ(lv.UsedSpace, 100u);
    EXPECT_EQ(lv.Encrypted, 0u);
    ASSERT_EQ(lv.FolderNumberOfEntries, 2u);
    EXPECT_STREQ(lv.Folder[1].Name, "/disk/sda1/Music");
    EXPECT_EQ(lv.Folder[1].Enable, 1u);
    EXPECT_EQ(lv.Folder[1].UserAccessNumberOfEntries, 0u);
}

TEST_F(StorageModel, DiskFieldsComeFromItsTableRowAndItsSize) {
    FakeDisk d;
    d.volumes = {"sda1"};
    d.vendor = "SanDisk";
    d.model = "Ultra";
    d.usb_version = "3.0";
    d.firmware = "4096";
    world.plug(d);
    world.mount("sda1", "ext4", 300, 1);
    StorageWorld::build();
    ASSERT_EQ(service0().PhysicalMediumNumberOfEntries, 1u);
    const tr140_physical_medium& pm = service0().PhysicalMedium[0];
    EXPECT_STREQ(pm.Name, "sda");
    EXPECT_STREQ(pm.Vendor, "SanDisk");
    EXPECT_STREQ(pm.Model, "Ultra");
    EXPECT_STREQ(pm.SerialNumber, "SER-1");
    EXPECT_STREQ(pm.FirmwareVersion, "4096");
    EXPECT_STREQ(pm.ConnectionType, "USB 3.0");
    EXPECT_EQ(pm.Removable, 1u);
    EXPECT_EQ(pm.Capacity, 300u);
    EXPECT_STREQ(pm.Status, "Online");
    EXPECT_EQ(pm.SMARTCapable, 0u);
    EXPECT_EQ(pm.HotSwappable, 0u);
}

TEST_F(StorageModel, DiskWithAStoredNameShowsThatName) {
    world.plug(FakeDisk{});
    StorageWorld::history({"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=Photos", "USBMGR.0.NAME.0=",
                           "USBMGR.0.ENABLE.0=1"});
    StorageWorld::build();
    EXPECT_STREQ(service0().PhysicalMedium[0].Name, "Photos");
}

TEST_F(StorageModel, VolumeWhoseHistoryRecordHasANameUsesItForTheVolumeAndEveryFolder) {
    world.plug(FakeDisk{});
    world.folder("sda1", "Music");
    StorageWorld::history({"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=Holiday",
                           "USBMGR.0.ENABLE.0=1"});
    StorageWorld::build();
    const tr140_logical_volume& lv = service0().LogicalVolume[0];
    EXPECT_STREQ(lv.Name, "Holiday");
    EXPECT_STREQ(lv.Folder[0].Name, "/disk/Holiday");
    EXPECT_STREQ(lv.Folder[1].Name, "/disk/Holiday/Music");
}

TEST_F(StorageModel, DisabledVolumeIsOfflineAndEveryFolderOfItDisabled) {
    world.plug(FakeDisk{});
    world.folder("sda1", "Music");
    world.folder("sda1", "Docs");
    StorageWorld::history({"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                           "USBMGR.0.ENABLE.0=0"});
    StorageWorld::build();
    const tr140_logical_volume& lv = service0().LogicalVolume[0];
    EXPECT_STREQ(lv.Status, "Offline");
    EXPECT_EQ(lv.Enable, 0u);
    ASSERT_EQ(lv.FolderNumberOfEntries, 3u);
    for (uint32_t j = 0; j < lv.FolderNumberOfEntries; ++j) EXPECT_EQ(lv.Folder[j].Enable, 0u) << j;
}

TEST_F(StorageModel, VolumeTheHistoryDoesNotKnowCountsAsEnabled) {
    world.plug(FakeDisk{});
    StorageWorld::build();
    EXPECT_STREQ(service0().LogicalVolume[0].Status, "Online");
    EXPECT_EQ(service0().LogicalVolume[0].Enable, 1u);
}

TEST_F(StorageModel, SambaSecurityShareLeavesAuthenticationOffAndRootAccessZero) {
    samba(1, "share");
    world.plug(FakeDisk{});
    StorageWorld::build();
    EXPECT_EQ(service0().NetworkServer.NetworkProtocolAuthReq, 0u);
    EXPECT_EQ(service0().NetworkServer.SMBEnable, 1u);
    EXPECT_EQ(service0().LogicalVolume[0].Folder[0].UserAccountAccess, 0u);
}

TEST_F(StorageModel, SambaSecurityUserTurnsAuthenticationOnAndRootAccessThree) {
    samba(1, "user");
    world.plug(FakeDisk{});
    world.folder("sda1", "Music");
    StorageWorld::build();
    EXPECT_EQ(service0().NetworkServer.NetworkProtocolAuthReq, 1u);
    EXPECT_EQ(service0().LogicalVolume[0].Folder[0].UserAccountAccess, 3u);
    // Sub-folders never carry user access.
    EXPECT_EQ(service0().LogicalVolume[0].Folder[1].UserAccountAccess, 0u);
}

TEST_F(StorageModel, UserAccessItemsZeroThreeAndSevenAreListedWithThoseNumbersInThatOrder) {
    world.plug(FakeDisk{});
    world.folder("sda1", "Music");
    Lines h = kHistorySda1;
    for (int e : {7, 3, 0}) {
        h.push_back("USBMGR.0.USER_ACCESS.0.USERREFERENCE." + std::to_string(e) + "=StorageService.0.UserAccess." +
                    std::to_string(e + 1));
        h.push_back("USBMGR.0.USER_ACCESS.0.PERMISSIONS." + std::to_string(e) + "=" + std::to_string(e + 10));
    }
    StorageWorld::history(h);
    StorageWorld::build();
    const tr140_folder& root = service0().LogicalVolume[0].Folder[0];
    ASSERT_EQ(root.UserAccessNumberOfEntries, 3u);
    EXPECT_EQ(root.UserAccess[0].tr140_index, 0u);
    EXPECT_EQ(root.UserAccess[1].tr140_index, 3u);
    EXPECT_EQ(root.UserAccess[2].tr140_index, 7u);
    EXPECT_STREQ(root.UserAccess[1].UserReference, "StorageService.0.UserAccess.4");
    EXPECT_EQ(root.UserAccess[2].Permissions, 17u);
    EXPECT_EQ(service0().LogicalVolume[0].Folder[1].UserAccessNumberOfEntries, 0u);
    EXPECT_FALSE(service0().LogicalVolume[0].Folder[1].UserAccess);
}

TEST_F(StorageModel, AutomaticallyCreatedUserAccessReadsBackWithPermissionsMinusOne) {
    world.plug(FakeDisk{});
    Lines h = kHistorySda1;
    h.push_back("USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0");
    h.push_back("USBMGR.0.USER_ACCESS.0.PERMISSIONS.0=");
    StorageWorld::history(h);
    StorageWorld::build();
    EXPECT_EQ(service0().LogicalVolume[0].Folder[0].UserAccess[0].Permissions, 0xffffffffu);
}

TEST_F(StorageModel, ServiceOneReadsAsAllZero) {
    samba(1, "user");
    StorageWorld::settings(kOneUser);
    world.plug(FakeDisk{});
    StorageWorld::build();
    const tr140_storage_service& s = usbmgr_tr140_db[1];
    EXPECT_EQ(s.Enable, 0u);
    EXPECT_EQ(s.PhysicalMediumNumberOfEntries, 0u);
    EXPECT_EQ(s.LogicalVolumeNumberOfEntries, 0u);
    EXPECT_EQ(s.UserAccountNumberOfEntries, 0u);
    EXPECT_STREQ(s.Capabilities.SupportedNetworkProtocols, "");
    EXPECT_EQ(s.NetworkServer.SMBEnable, 0u);
    EXPECT_FALSE(s.PhysicalMedium);
    EXPECT_FALSE(s.LogicalVolume);
    EXPECT_FALSE(s.UserAccount);
}

TEST_F(StorageModel, BuildWritesEachEntrysModelIndexIntoItsTableRow) {
    FakeDisk a;
    a.volumes = {"sda1", "sda2"};
    world.plug(a);
    FakeDisk b;
    b.disk = "sdb";
    b.volumes = {"sdb1"};
    b.serial = "SER-2";
    world.plug(b);
    usb_physical_info[0].tr140_db_address = 77;
    usb_volume_info[2].tr140_db_address = 77;
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    ASSERT_EQ(s.PhysicalMediumNumberOfEntries, 2u);
    ASSERT_EQ(s.LogicalVolumeNumberOfEntries, 3u);
    for (int slot = 0; slot < 2; ++slot) {
        int m = usb_physical_info[slot].tr140_db_address;
        ASSERT_GE(m, 0);
        ASSERT_LT(m, 2);
        EXPECT_STREQ(s.PhysicalMedium[m].Name, slot == 0 ? "sda" : "sdb");
    }
    for (int slot = 0; slot < 3; ++slot) {
        int m = usb_volume_info[slot].tr140_db_address;
        ASSERT_GE(m, 0);
        ASSERT_LT(m, 3);
        EXPECT_STREQ(s.LogicalVolume[m].Name, usb_volume_info[slot].name);
    }
}

TEST_F(StorageModel, DiskTheTableDoesNotKnowGetsNoBackReferenceAndNoRowData) {
    world.node("sdc");  // a node without a table row
    StorageWorld::build();
    ASSERT_EQ(service0().PhysicalMediumNumberOfEntries, 1u);
    EXPECT_STREQ(service0().PhysicalMedium[0].Name, "sdc");
    EXPECT_STREQ(service0().PhysicalMedium[0].Vendor, "");
    EXPECT_STREQ(service0().PhysicalMedium[0].ConnectionType, "USB ");
    for (const UsbPhysicalInfo& row : usb_physical_info) EXPECT_EQ(row.tr140_db_address, 0);
    for (const UsbVolumeInfo& row : usb_volume_info) EXPECT_EQ(row.tr140_db_address, 0);
}

TEST_F(StorageModel, RebuildFreesEveryListOfThePreviousTreeFirst) {
    world.plug(FakeDisk{});
    StorageWorld::settings(kOneUser);
    Lines h = kHistorySda1;
    h.push_back("USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0");
    h.push_back("USBMGR.0.USER_ACCESS.0.PERMISSIONS.0=1");
    StorageWorld::history(h);
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    const Lines expected = {
        "free logicalvolume_folder_useraccess = " + ptr(s.LogicalVolume[0].Folder[0].UserAccess.get()),
        "free logicalvolume_folder = " + ptr(s.LogicalVolume[0].Folder.get()),
        "free logicalvolume = " + ptr(s.LogicalVolume.get()),
        "free physicalmedium = " + ptr(s.PhysicalMedium.get()),
        "free useraccount = " + ptr(s.UserAccount.get()),
    };
    fake::reset();
    {
        usbmgr::DaemonLock lock;
        usbmgr_tr140_db_free();
    }
    EXPECT_EQ(fake::log_texts(), expected);
    EXPECT_EQ(s.LogicalVolumeNumberOfEntries, 0u);
    EXPECT_EQ(s.PhysicalMediumNumberOfEntries, 0u);
    EXPECT_EQ(s.UserAccountNumberOfEntries, 0u);
    EXPECT_FALSE(s.LogicalVolume);
}

TEST_F(StorageModel, AllocationLogsEachListWithItsSize) {
    world.plug(FakeDisk{});
    Lines h = kHistorySda1;
    h.push_back("USBMGR.0.USER_ACCESS.0.USERREFERENCE.2=StorageService.0.UserAccess.0");
    h.push_back("USBMGR.0.USER_ACCESS.0.PERMISSIONS.2=1");
    StorageWorld::history(h);
    world.folder("sda1", "Music");
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    const Lines expected = {
        "allocate physicalmedium = " + ptr(s.PhysicalMedium.get()) + ", size = 1",
        "allocate logicalvolume = " + ptr(s.LogicalVolume.get()) + ", size = 1",
        "allocate sda1 logicalvolume_folder_useraccess = " + ptr(s.LogicalVolume[0].Folder[0].UserAccess.get()) +
            ", size = 1",
        "allocate sda1 logicalvolume_folder = " + ptr(s.LogicalVolume[0].Folder.get()) + ", size = 2",
    };
    EXPECT_EQ(log_from(expected[0], 4), expected);
}

TEST_F(StorageModel, PrintLogsTheWholeTreeThenTheDeviceTables) {
    samba(1, "user");
    StorageWorld::settings(kOneUser);
    world.plug(FakeDisk{});
    world.folder("sda1", "Music");
    Lines h = kHistorySda1;
    h.push_back("USBMGR.0.USER_ACCESS.0.USERREFERENCE.4=StorageService.0.UserAccess.0");
    h.push_back("USBMGR.0.USER_ACCESS.0.PERMISSIONS.4=2");
    StorageWorld::history(h);
    StorageWorld::build();
    const Lines expected = {
        "=========== PhysicalMedium ================",
        "Name                    = sda",
        "Vendor                  = ACME",
        "Model                   = Stick",
        "SerialNumber            = SER-1",
        "FirmwareVersion         = 256",
        "ConnectionType          = USB 2.0",
        "Removable               = 1",
        "Capacity                = 100",
        "Status                  = Online",
        "SMARTCapable            = 0",
        "HotSwappable            = 0",
        "------------------------------ \n",
        "=========== LogicalVolume ================\n",
        "Name                    = sda1",
        "Status                  = Online",
        "Enable                  = 1",
        "PhysicalReference       = StorageService.0.PhysicalMedium.{0}.",
        "FileSystem              = ext4",
        "Capacity                = 100",
        "UsedSpace               = 10",
        "Encrypted               = 0",
        "FolderNumberOfEntries   = 2",
        "",
        "        Folder{0}  Name                       = /disk/sda1",
        "                    Enable                     = 1",
        "                    UserAccountAccess          = 3",
        "                    UserAccessNumberOfEntries  = 1",
        "                       UserAccess{0}  tr140_index     = 4",
        "                       UserAccess{0}  UserReference   = StorageService.0.UserAccess.0",
        "                       UserAccess{0}  Permissions     = 2\n",
        "        Folder{1}  Name                       = /disk/sda1/Music",
        "                    Enable                     = 1",
        "                    UserAccountAccess          = 0",
        "                    UserAccessNumberOfEntries  = 0",
        "------------------------------",
        "=========== UserAccount ================\n",
        " 0. Name = alice, Password = secret, Enable = 1",
        "",
        "=========== usb_physical_info ================\n",
    };
    EXPECT_EQ(log_from(expected[0], expected.size()), expected);
}

TEST_F(StorageModel, PrintOfAnEmptyTreeLogsOnlyTheHeadersAndTheClosingLine) {
    StorageWorld::build();
    fake::reset();
    usbmgr_tr140_db_print();
    EXPECT_EQ(fake::log_texts(), (Lines{"=========== PhysicalMedium ================",
                                        "=========== LogicalVolume ================\n",
                                        "=========== UserAccount ================\n", ""}));
}

TEST_F(StorageModel, EveryLineOfTheTreeIsLoggedAtDebugUnderTheDaemonsSourceName) {
    world.plug(FakeDisk{});
    fake::reset();
    usbmgr_tr140_db_print();
    ASSERT_FALSE(fake::bus().log.empty());
    for (const auto& l : fake::bus().log) {
        EXPECT_EQ(l.level, 4) << l.text;
        EXPECT_EQ(l.module, "usbmgrd.c") << l.text;
    }
}

TEST_F(StorageModel, EachVolumeReferencesTheTableIndexOfItsOwnDisk) {
    FakeDisk a;
    a.volumes = {"sda1", "sda2"};
    world.plug(a);
    FakeDisk b;
    b.disk = "sdb";
    b.volumes = {"sdb1"};
    b.serial = "SER-2";
    const int b_slot = world.plug(b);
    FakeDisk c;
    c.disk = "sdc";
    c.volumes = {"sdc1", "sdc2"};
    c.serial = "SER-3";
    const int c_slot = world.plug(c);
    // The reference is the row's index, not its slot or its model position.
    usb_physical_info[c_slot].index = 7;
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    ASSERT_EQ(s.LogicalVolumeNumberOfEntries, 5u);
    const std::pair<const char*, const char*> expected[] = {
        {"sda1", "StorageService.0.PhysicalMedium.{0}."}, {"sda2", "StorageService.0.PhysicalMedium.{0}."},
        {"sdb1", "StorageService.0.PhysicalMedium.{1}."}, {"sdc1", "StorageService.0.PhysicalMedium.{7}."},
        {"sdc2", "StorageService.0.PhysicalMedium.{7}."}};
    EXPECT_EQ(b_slot, 1);
    for (const auto& [volume, reference] : expected) {
        const int slot = db_util_get_usb_volume_info_index_by_device(volume);
        ASSERT_GE(slot, 0) << volume;
        EXPECT_STREQ(s.LogicalVolume[usb_volume_info[slot].tr140_db_address].PhysicalReference, reference) << volume;
    }
}

TEST_F(StorageModel, ARebuildReleasesEveryListOfThePreviousBuildBeforeItAllocates) {
    FakeDisk a;
    a.volumes = {"sda1", "sda2"};
    world.plug(a);
    FakeDisk b;
    b.disk = "sdb";
    b.volumes = {"sdb1"};
    b.serial = "SER-2";
    world.plug(b);
    world.folder("sda1", "Music");
    StorageWorld::settings(kOneUser);
    StorageWorld::history({"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1",
                           "USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0",
                           "USBMGR.0.USER_ACCESS.0.PERMISSIONS.0=1", "USBMGR.0.NAME.1=", "USBMGR.0.ENABLE.1=1",
                           "USBMGR.1.SERIAL_NUMBER=SER-2", "USBMGR.1.PNAME=", "USBMGR.1.NAME.0=", "USBMGR.1.ENABLE.0=1",
                           "USBMGR.1.USER_ACCESS.0.USERREFERENCE.3=StorageService.0.UserAccess.0",
                           "USBMGR.1.USER_ACCESS.0.PERMISSIONS.3=2"});
    StorageWorld::build();
    const tr140_storage_service& s = service0();
    ASSERT_EQ(s.LogicalVolumeNumberOfEntries, 3u);
    // Every list of the first build, in the order the free step names them.
    Lines expected;
    for (uint32_t i = 0; i < s.LogicalVolumeNumberOfEntries; ++i) {
        const tr140_logical_volume& lv = s.LogicalVolume[i];
        ASSERT_TRUE(lv.Folder);
        if (lv.Folder[0].UserAccess)
            expected.push_back("free logicalvolume_folder_useraccess = " + ptr(lv.Folder[0].UserAccess.get()));
        expected.push_back("free logicalvolume_folder = " + ptr(lv.Folder.get()));
    }
    expected.push_back("free logicalvolume = " + ptr(s.LogicalVolume.get()));
    expected.push_back("free physicalmedium = " + ptr(s.PhysicalMedium.get()));
    expected.push_back("free useraccount = " + ptr(s.UserAccount.get()));
    ASSERT_EQ(expected.size(), 8u);  // two user-access lists, three folder lists
    fake::reset();
    StorageWorld::build();
    const std::vector<fake::LogLine> lines = fake::log_lines();
    ASSERT_GE(lines.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(lines[i].text, expected[i]) << i;
        EXPECT_EQ(lines[i].level, 4) << i;
        EXPECT_EQ(lines[i].module, "usbmgrd.c") << i;
    }
    EXPECT_EQ(lines[expected.size()].text.rfind("allocate physicalmedium = ", 0), 0u);
}
