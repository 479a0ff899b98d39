// Bus commands 15 to 23: replies copied from the model (or, for 19, the
// settings file) and the status word of every refusal.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fixture.h"
#include "platform_fake.h"
#include "storage_world.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::FakeDisk;
using testing_support::StorageWorld;
using Lines = std::vector<std::string>;

namespace {

class ModelRead : public testing_support::DaemonTest {
protected:
    ModelRead() : world(seams.runner) {
        SAMBA_CONF.enable = 1;
        usbmgr::copy_str(SAMBA_CONF.security, "user");
    }

    // One disk sda with volume sda1 holding Music and Docs, two user-access
    // records (numbers 2 and 5) and one Samba user.
    void plug_one_disk() {
        world.plug(FakeDisk{});
        world.folder("sda1", "Music");
        world.mount("sda1", "ext4", 60, 3);
        StorageWorld::history({"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                               "USBMGR.0.ENABLE.0=1",
                               "USBMGR.0.USER_ACCESS.0.USERREFERENCE.5=StorageService.0.UserAccess.1",
                               "USBMGR.0.USER_ACCESS.0.PERMISSIONS.5=3",
                               "USBMGR.0.USER_ACCESS.0.USERREFERENCE.2=StorageService.0.UserAccess.0",
                               "USBMGR.0.USER_ACCESS.0.PERMISSIONS.2=1"});
        StorageWorld::settings({"USBMGR.SAMBA.USER_NAME.0=alice", "USBMGR.SAMBA.USER_PASSWORD.0=secret",
                                "USBMGR.SAMBA.USER_ENABLE.0=1", "USBMGR.SAMBA.USER_NAME.3=bob"});
        StorageWorld::build();
    }

    // A request with every byte set, so that a test sees what was written.
    template <typename Cmd>
    static Cmd request(int32_t service) {
        Cmd c;
        std::memset(&c, 0x5a, sizeof c);
        c.service = service;
        return c;
    }

    StorageWorld world;
};

template <typename Cmd>
std::vector<uint8_t> bytes(const Cmd& c) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&c);
    return std::vector<uint8_t>(p, p + sizeof c);
}

}  // namespace

TEST_F(ModelRead, StorageServiceCountsComeFromServiceZero) {
    plug_one_disk();
    auto c = request<CmdStorageService>(0);
    usbmgr_cmd_get_storage_service(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.Enable, 1u);
    EXPECT_EQ(c.PhysicalMediumNumberOfEntries, 1u);
    EXPECT_EQ(c.LogicalVolumeNumberOfEntries, 1u);
    EXPECT_EQ(c.UserAccountNumberOfEntries, 2u);
}

TEST_F(ModelRead, ServiceOneAnswersZeroFieldsAndEmptyStringsForCommandsFifteenToEighteen) {
    plug_one_disk();
    auto s = request<CmdStorageService>(1);
    usbmgr_cmd_get_storage_service(s);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.Enable + s.PhysicalMediumNumberOfEntries + s.LogicalVolumeNumberOfEntries +
                  s.UserAccountNumberOfEntries,
              0u);

    auto c = request<CmdStorageCapabilities>(1);
    usbmgr_cmd_get_storage_capabilities(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.FTPCapable + c.SFTPCapable + c.HTTPCapable + c.HTTPSCapable + c.HTTPWritable +
                  c.VolumeEncryptionCapable,
              0u);
    EXPECT_EQ(std::string(c.SupportedNetworkProtocols, sizeof c.SupportedNetworkProtocols),
              std::string(sizeof c.SupportedNetworkProtocols, '\0'));
    EXPECT_EQ(std::string(c.SupportedFileSystemTypes, sizeof c.SupportedFileSystemTypes),
              std::string(sizeof c.SupportedFileSystemTypes, '\0'));

    auto n = request<CmdStorageNetInfo>(1);
    usbmgr_cmd_get_storage_netinfo(n);
    EXPECT_EQ(n.status, 0);
    EXPECT_EQ(std::string(n.HostName, sizeof n.HostName), std::string(sizeof n.HostName, '\0'));
    EXPECT_EQ(std::string(n.DomainName, sizeof n.DomainName), std::string(sizeof n.DomainName, '\0'));

    auto w = request<CmdStorageNetworkServer>(1);
    usbmgr_cmd_get_storage_network_server(w);
    EXPECT_EQ(w.status, 0);
    EXPECT_EQ(w.word1 + w.AFPEnable + w.NFSEnable + w.SMBEnable + w.NetworkProtocolAuthReq, 0u);
}

TEST_F(ModelRead, ServiceOneAnswersMinusTwoOrMinusThreeForCommandsTwentyToTwentyThree) {
    plug_one_disk();
    auto pm = request<CmdPhysicalMedium>(1);
    pm.slot = 0;
    usbmgr_cmd_get_physical_medium(pm);
    EXPECT_EQ(pm.status, -2);
    auto lv = request<CmdLogicalVolume>(1);
    lv.slot = 0;
    usbmgr_cmd_get_logical_volume(lv);
    EXPECT_EQ(lv.status, -3);
    auto f = request<CmdLogicalVolumeFolder>(1);
    f.slot = 0;
    f.folder = 0;
    usbmgr_cmd_get_logical_volume_folder(f);
    EXPECT_EQ(f.status, -3);
    auto ua = request<CmdStorageUserAccess>(1);
    ua.slot = 0;
    ua.number = 2;
    usbmgr_cmd_get_storage_user_access(ua);
    EXPECT_EQ(ua.status, -3);
}

TEST_F(ModelRead, ServiceTwoOrMoreOrNegativeIsMinusOneFromEveryCommandAndNothingElseIsWritten) {
    plug_one_disk();
    for (int32_t service : {2, 3, -1, INT32_MIN}) {
        SCOPED_TRACE(service);
        auto check = [](auto c, auto handler) {
            auto before = c;
            handler(c);
            EXPECT_EQ(c.status, -1);
            c.status = before.status;
            EXPECT_EQ(bytes(c), bytes(before));
        };
        check(request<CmdStorageService>(service), usbmgr_cmd_get_storage_service);
        check(request<CmdStorageCapabilities>(service), usbmgr_cmd_get_storage_capabilities);
        check(request<CmdStorageNetInfo>(service), usbmgr_cmd_get_storage_netinfo);
        check(request<CmdStorageNetworkServer>(service), usbmgr_cmd_get_storage_network_server);
        check(request<CmdUserAccount>(service), usbmgr_cmd_get_user_account);
        auto pm = request<CmdPhysicalMedium>(service);
        pm.slot = 0;
        check(pm, usbmgr_cmd_get_physical_medium);
        auto lv = request<CmdLogicalVolume>(service);
        lv.slot = 0;
        check(lv, usbmgr_cmd_get_logical_volume);
        auto f = request<CmdLogicalVolumeFolder>(service);
        f.slot = 0;
        f.folder = 0;
        check(f, usbmgr_cmd_get_logical_volume_folder);
        auto ua = request<CmdStorageUserAccess>(service);
        ua.slot = 0;
        ua.number = 2;
        check(ua, usbmgr_cmd_get_storage_user_access);
    }
}

TEST_F(ModelRead, UserAccountForServiceOtherThanZeroIsMinusOne) {
    plug_one_disk();
    auto c = request<CmdUserAccount>(1);
    c.user = 0;
    usbmgr_cmd_get_user_account(c);
    EXPECT_EQ(c.status, -1);
}

TEST_F(ModelRead, CapabilitiesNetInfoAndNetworkServerCopyServiceZero) {
    plug_one_disk();
    auto c = request<CmdStorageCapabilities>(0);
    usbmgr_cmd_get_storage_capabilities(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(std::string(c.SupportedNetworkProtocols, 6), std::string("SMB\0\0\0", 6));
    EXPECT_STREQ(c.SupportedFileSystemTypes, "FAT16,FAT32,NTFS,ext2,ext3,ext4");
    EXPECT_EQ(std::string(c.unused, 2), "\x5a\x5a");  // the unused bytes are not written
    EXPECT_EQ(c.HTTPWritable, 0u);

    auto n = request<CmdStorageNetInfo>(0);
    usbmgr_cmd_get_storage_netinfo(n);
    EXPECT_EQ(n.status, 0);
    EXPECT_EQ(std::string(n.HostName, sizeof n.HostName), std::string(sizeof n.HostName, '\0'));

    auto w = request<CmdStorageNetworkServer>(0);
    usbmgr_cmd_get_storage_network_server(w);
    EXPECT_EQ(w.status, 0);
    EXPECT_EQ(w.word1, 0u);
    EXPECT_EQ(w.SMBEnable, 1u);
    EXPECT_EQ(w.NetworkProtocolAuthReq, 1u);
}

TEST_F(ModelRead, UserAccountReadsTheSettingsFileAndLeavesTheStatusAsSent) {
    plug_one_disk();
    CmdUserAccount c{};
    c.service = 0;
    c.user = 0;
    c.status = 1234;
    usbmgr_cmd_get_user_account(c);
    EXPECT_EQ(c.status, 1234);
    EXPECT_STREQ(c.Name, "alice");
    EXPECT_STREQ(c.Password, "secret");
    EXPECT_EQ(c.Enable, 1u);
}

TEST_F(ModelRead, UserAccountWithoutANameKeyIsMinusFiveAndNothingElseIsCopied) {
    plug_one_disk();
    auto c = request<CmdUserAccount>(0);
    c.user = 7;
    auto before = c;
    usbmgr_cmd_get_user_account(c);
    EXPECT_EQ(c.status, -5);
    c.status = before.status;
    EXPECT_EQ(bytes(c), bytes(before));
}

TEST_F(ModelRead, UserAccountWithANameButNoPasswordIsMinusFiveAfterTheNameIsCopied) {
    plug_one_disk();
    auto c = request<CmdUserAccount>(0);
    c.user = 3;
    const uint32_t enable_before = c.Enable;
    usbmgr_cmd_get_user_account(c);
    EXPECT_EQ(c.status, -5);
    EXPECT_STREQ(c.Name, "bob");
    EXPECT_EQ(c.Enable, enable_before);
}

TEST_F(ModelRead, UserAccountWithoutAnEnableKeyReadsEnableAsMinusOne) {
    StorageWorld::settings({"USBMGR.SAMBA.USER_NAME.2=carol", "USBMGR.SAMBA.USER_PASSWORD.2=pw"});
    CmdUserAccount c{};
    c.user = 2;
    usbmgr_cmd_get_user_account(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_STREQ(c.Name, "carol");
    EXPECT_EQ(c.Enable, 0xffffffffu);
}

TEST_F(ModelRead, NegativeUserNumberFindsNoKeyAndIsMinusFive) {
    plug_one_disk();
    CmdUserAccount c{};
    c.user = -1;
    usbmgr_cmd_get_user_account(c);
    EXPECT_EQ(c.status, -5);
}

TEST_F(ModelRead, PhysicalMediumOfAFilledSlotCopiesItsModelEntry) {
    plug_one_disk();
    auto c = request<CmdPhysicalMedium>(0);
    c.slot = 0;
    usbmgr_cmd_get_physical_medium(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_STREQ(c.Name, "sda");
    EXPECT_STREQ(c.Vendor, "ACME");
    EXPECT_STREQ(c.Model, "Stick");
    EXPECT_STREQ(c.SerialNumber, "SER-1");
    EXPECT_STREQ(c.FirmwareVersion, "256");
    EXPECT_STREQ(c.ConnectionType, "USB 2.0");
    EXPECT_EQ(c.Removable, 1u);
    EXPECT_EQ(c.Capacity, 60u);
    EXPECT_STREQ(c.Status, "Online");
    EXPECT_EQ(c.SMARTCapable, 0u);
    EXPECT_EQ(c.HotSwappable, 0u);
}

TEST_F(ModelRead, DiskSlotTwentyFiveNegativeOrEmptyIsMinusTwo) {
    plug_one_disk();
    for (int32_t slot : {25, 1, 24, -1, INT32_MIN, INT32_MAX}) {
        auto c = request<CmdPhysicalMedium>(0);
        c.slot = slot;
        usbmgr_cmd_get_physical_medium(c);
        EXPECT_EQ(c.status, -2) << slot;
    }
}

TEST_F(ModelRead, DiskSlotOfAFilledRowWithNoDiskInTheModelIsMinusTwo) {
    world.plug(FakeDisk{});
    // The row is filled but the model was never built.
    auto c = request<CmdPhysicalMedium>(0);
    c.slot = 0;
    usbmgr_cmd_get_physical_medium(c);
    EXPECT_EQ(c.status, -2);
}

TEST_F(ModelRead, LogicalVolumeOfAFilledSlotCopiesItsModelEntryAndLeavesTheUnusedWord) {
    plug_one_disk();
    auto c = request<CmdLogicalVolume>(0);
    c.slot = 0;
    usbmgr_cmd_get_logical_volume(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_STREQ(c.Name, "sda1");
    EXPECT_STREQ(c.Status, "Online");
    EXPECT_EQ(c.Enable, 1u);
    EXPECT_STREQ(c.PhysicalReference, "StorageService.0.PhysicalMedium.{0}.");
    EXPECT_STREQ(c.FileSystem, "ext4");
    EXPECT_EQ(c.Capacity, 60u);
    EXPECT_EQ(c.UsedSpace, 3u);
    EXPECT_EQ(c.Encrypted, 0u);
    EXPECT_EQ(c.FolderNumberOfEntries, 2u);
    EXPECT_EQ(c.unused, 0x5a5a5a5au);
}

TEST_F(ModelRead, VolumeSlotTwentyFiveNegativeOrEmptyIsMinusThree) {
    plug_one_disk();
    for (int32_t slot : {25, 1, -1, INT32_MIN, INT32_MAX}) {
        auto c = request<CmdLogicalVolume>(0);
        c.slot = slot;
        usbmgr_cmd_get_logical_volume(c);
        EXPECT_EQ(c.status, -3) << slot;
        auto f = request<CmdLogicalVolumeFolder>(0);
        f.slot = slot;
        f.folder = 0;
        usbmgr_cmd_get_logical_volume_folder(f);
        EXPECT_EQ(f.status, -3) << slot;
        // An empty slot in range is no refusal for 23: it goes by the row
        // its model index names (see below); outside the table it is.
        if (slot == 1) continue;
        auto ua = request<CmdStorageUserAccess>(0);
        ua.slot = slot;
        ua.number = 2;
        usbmgr_cmd_get_storage_user_access(ua);
        EXPECT_EQ(ua.status, -3) << slot;
    }
}

TEST_F(ModelRead, FolderZeroIsTheVolumeRootWithItsUserAccessCount) {
    plug_one_disk();
    auto c = request<CmdLogicalVolumeFolder>(0);
    c.slot = 0;
    c.folder = 0;
    usbmgr_cmd_get_logical_volume_folder(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_STREQ(c.Name, "/disk/sda1");
    EXPECT_EQ(c.Enable, 1u);
    EXPECT_EQ(c.UserAccountAccess, 3u);
    EXPECT_EQ(c.UserAccessNumberOfEntries, 2u);
    EXPECT_EQ(c.unused, 0x5a5a5a5au);

    c.folder = 1;
    usbmgr_cmd_get_logical_volume_folder(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_STREQ(c.Name, "/disk/sda1/Music");
    EXPECT_EQ(c.UserAccountAccess, 0u);
    EXPECT_EQ(c.UserAccessNumberOfEntries, 0u);
}

TEST_F(ModelRead, FolderNumberEqualToTheFolderCountOrNegativeIsMinusFour) {
    plug_one_disk();
    for (uint32_t folder : {2u, 3u, 0xffffffffu}) {
        auto c = request<CmdLogicalVolumeFolder>(0);
        c.slot = 0;
        c.folder = folder;
        usbmgr_cmd_get_logical_volume_folder(c);
        EXPECT_EQ(c.status, -4) << folder;
    }
}

TEST_F(ModelRead, UserAccessIsFoundByItsNumberWhateverItsPlaceInTheList) {
    plug_one_disk();
    auto c = request<CmdStorageUserAccess>(0);
    c.slot = 0;
    c.number = 5;  // the second record of the list
    usbmgr_cmd_get_storage_user_access(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.tr140_index, 5u);
    EXPECT_STREQ(c.UserReference, "StorageService.0.UserAccess.1");
    EXPECT_EQ(c.Permissions, 3u);

    c.number = 2;
    usbmgr_cmd_get_storage_user_access(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.tr140_index, 2u);
    EXPECT_EQ(c.Permissions, 1u);
}

TEST_F(ModelRead, UserAccessNumberWithoutARecordIsMinusSix) {
    plug_one_disk();
    for (int32_t number : {0, 1, 24, 25, -1}) {
        auto c = request<CmdStorageUserAccess>(0);
        c.slot = 0;
        c.number = number;
        auto before = c;
        usbmgr_cmd_get_storage_user_access(c);
        EXPECT_EQ(c.status, -6) << number;
        c.status = before.status;
        EXPECT_EQ(bytes(c), bytes(before)) << number;
    }
}

TEST_F(ModelRead, UserAccessTestsTheTableRowTheSlotsModelIndexNames) {
    plug_one_disk();
    // Slot 3 is free but carries model index 0, whose row (slot 0) is filled:
    // the command answers from model volume 0.
    usb_volume_info[3].tr140_db_address = 0;
    auto c = request<CmdStorageUserAccess>(0);
    c.slot = 3;
    c.number = 2;
    usbmgr_cmd_get_storage_user_access(c);
    EXPECT_EQ(c.status, 0);
    // A filled slot whose model index names an empty row is -3.
    usb_volume_info[0].tr140_db_address = 9;
    c.slot = 0;
    usbmgr_cmd_get_storage_user_access(c);
    EXPECT_EQ(c.status, -3);
}

TEST_F(ModelRead, CommandsOverTheBusLogTheirEntryLineAndAnswerInPlace) {
    plug_one_disk();
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    fake::reset();
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    CmdPhysicalMedium req{};
    req.service = 0;
    req.slot = 0;
    std::vector<uint8_t> p = bytes(req);
    EXPECT_EQ(fake::call_command(20, p), ORBIIL_OK);
    ASSERT_EQ(p.size(), 444u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p.data()) + 8), "sda");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p.data()) + 392), "USB 2.0");
    int32_t status = -99;
    std::memcpy(&status, p.data() + 440, 4);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(fake::log_texts(), Lines{"cmd - usbmgr_cmd_get_physical_medium"});
}

TEST_F(ModelRead, HandlersReleaseTheDaemonLockOnEveryPath) {
    plug_one_disk();
    auto bad = request<CmdLogicalVolumeFolder>(0);
    bad.slot = 0;
    bad.folder = 9;
    usbmgr_cmd_get_logical_volume_folder(bad);
    auto good = request<CmdStorageUserAccess>(0);
    good.slot = 0;
    good.number = 2;
    usbmgr_cmd_get_storage_user_access(good);
    EXPECT_FALSE(usbmgr::daemon_lock_held_here());
    EXPECT_EQ(pthread_mutex_trylock(&usbmgr_mutex), 0);
    pthread_mutex_unlock(&usbmgr_mutex);
}
