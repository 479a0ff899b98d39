// Bus commands 24 to 35: what each writes (settings, history file, Samba
// users), the rebuild, the change kind and how it is published, and the
// status word of every refusal.
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "fixture.h"
#include "platform_fake.h"
#include "storage_world.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::FakeDisk;
using testing_support::kDeferral;
using testing_support::read_file;
using testing_support::read_lines;
using testing_support::StorageWorld;
using Lines = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

namespace {

const std::string kSave = "orbcm_util cfg save";

// The history of disk SER-1 (volume sda1) and of a second disk SER-2
// (volumes sdb1, sdb2), with user access of accounts 0 (alice) and 1 (bob).
const Lines kHistory = {"USBMGR.0.SERIAL_NUMBER=SER-1",
                        "USBMGR.0.PNAME=",
                        "USBMGR.0.NAME.0=",
                        "USBMGR.0.ENABLE.0=1",
                        "USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0",
                        "USBMGR.0.USER_ACCESS.0.PERMISSIONS.0=3",
                        "USBMGR.0.USER_ACCESS.0.USERREFERENCE.1=StorageService.0.UserAccess.1",
                        "USBMGR.0.USER_ACCESS.0.PERMISSIONS.1=1",
                        "USBMGR.1.SERIAL_NUMBER=SER-2",
                        "USBMGR.1.PNAME=Old",
                        "USBMGR.1.NAME.0=Films",
                        "USBMGR.1.ENABLE.0=1",
                        "USBMGR.1.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0",
                        "USBMGR.1.USER_ACCESS.0.PERMISSIONS.0=2",
                        "USBMGR.1.NAME.1=",
                        "USBMGR.1.ENABLE.1=1"};

class ModelWrite : public testing_support::DaemonTest {
protected:
    ModelWrite() : world(seams.runner) {
        mkdir("/var/samba", 0755);
        std::string settings = testing_support::factory_settings();
        settings +=
            "USBMGR.SAMBA.USER_NAME.0=alice\nUSBMGR.SAMBA.USER_PASSWORD.0=secret\nUSBMGR.SAMBA.USER_ENABLE.0=1\n"
            "USBMGR.SAMBA.USER_NAME.1=bob\nUSBMGR.SAMBA.USER_PASSWORD.1=builder\nUSBMGR.SAMBA.USER_ENABLE.1=1\n";
        testing_support::write_file(USBMGR_CONF_PATH, settings);
        EXPECT_EQ(usbmgr_conf_load(), 1);
        // Generated files stay inside the test's private folders.
        usbmgr::copy_str(SAMBA_CONF.conf_dir, "/var/samba/smb.conf");
        usbmgr::copy_str(SAMBA_CONF.username_map_dir, "/var/samba/smbusers");
        usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/var/minidlna.conf");
        StorageWorld::history(kHistory);
        world.plug(FakeDisk{});
        FakeDisk second;
        second.disk = "sdb";
        second.volumes = {"sdb1", "sdb2"};
        second.serial = "SER-2";
        world.plug(second);
        StorageWorld::build();
        seams.runner.clear();
        fake::reset();
    }

    // A request with every byte set, so that a test sees what was written.
    template <typename Cmd>
    static Cmd request(int32_t service, int32_t slot) {
        Cmd c;
        std::memset(&c, 0x5a, sizeof c);
        c.service = service;
        c.slot = slot;
        return c;
    }

    static CmdSambaUser user(const char* name, const char* password, int32_t enable) {
        CmdSambaUser c;
        std::memset(&c, 0, sizeof c);
        c.enable = enable;
        usbmgr::copy_str(c.name, name);
        usbmgr::copy_str(c.password, password);
        c.result = 0x5a5a5a5a;
        return c;
    }

    static Lines history() { return read_lines(TR140_CONF_PATH); }
    static Lines settings() { return read_lines(USBMGR_CONF_PATH); }
    static Lines settings_matching(const std::string& part) {
        Lines out;
        for (const auto& l : settings())
            if (l.find(part) != std::string::npos) out.push_back(l);
        return out;
    }
    static const tr140_storage_service& model() { return usbmgr_tr140_db[0]; }

    StorageWorld world;
};

constexpr int32_t kUntouched = 0x5a5a5a5a;

// The model rebuild asks "df" first; the lines before it are the change's own.
Lines before_rebuild(const Lines& texts) {
    auto first = std::find_if(texts.begin(), texts.end(), [](const std::string& t) { return t.rfind("df -m", 0) == 0; });
    return Lines(texts.begin(), first);
}
bool rebuilt(const Lines& texts) {
    return std::find(texts.begin(), texts.end(), "df -m | grep sda 2>&1") != texts.end();
}

}  // namespace

// ---------------------------------------------------------------------------
// 24: the Samba service switch

TEST_F(ModelWrite, SettingTheServiceEnableToItsCurrentValueWritesNothingRebuildsNothingAndArmsNoAlarm) {
    const std::string before = read_file(USBMGR_CONF_PATH);
    usbmgr_tr140_db[0].Enable = 7;  // a rebuild would set it back to 1
    CmdSetStorageService c{0, 1};
    usbmgr_cmd_set_storage_service(c);
    EXPECT_EQ(read_file(USBMGR_CONF_PATH), before);
    EXPECT_EQ(usbmgr_tr140_db[0].Enable, 7u);
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_TRUE(seams.runner.texts().empty());
    usbmgr_tr140_db[0].Enable = 1;
}

TEST_F(ModelWrite, SwitchingTheServiceOffRewritesTheSettingsRebuildsAndLeavesTheFlushToTheSambaReload) {
    CmdSetStorageService c{0, 0};
    usbmgr_cmd_set_storage_service(c);
    EXPECT_EQ(SAMBA_CONF.enable, 0);
    EXPECT_EQ(settings_matching("USBMGR.SAMBA.ENABLE="), (Lines{"USBMGR.SAMBA.ENABLE=0"}));
    EXPECT_EQ(model().Enable, 0u);
    EXPECT_EQ(before_rebuild(seams.runner.texts()),
              (Lines{kSave}));
    EXPECT_TRUE(rebuilt(seams.runner.texts()));
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    EXPECT_TRUE(testing_support::pending_kinds().empty());
    EXPECT_TRUE(fake::sent_kinds().empty());
    // The accounts survive the rewrite.
    EXPECT_EQ(settings_matching("USER_NAME"), (Lines{"USBMGR.SAMBA.USER_NAME.0=alice", "USBMGR.SAMBA.USER_NAME.1=bob"}));
}

TEST_F(ModelWrite, TheServiceSwitchOfServiceOneOrOfANegativeServiceDoesNothing) {
    for (int32_t service : {1, -1, 2, INT32_MIN}) {
        CmdSetStorageService c{service, 0};
        usbmgr_cmd_set_storage_service(c);
    }
    EXPECT_EQ(SAMBA_CONF.enable, 1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

// ---------------------------------------------------------------------------
// 26: Samba switch and security mode

TEST_F(ModelWrite, NetworkServerWithAuthReqOneSetsUserAndZeroOrTwoSetShare) {
    const std::pair<uint32_t, const char*> cases[] = {{0, "share"}, {1, "user"}, {2, "share"}, {0xffffffffu, "share"}};
    for (const auto& [auth, mode] : cases) {
        CmdSetStorageNetworkServer c{0, 1, auth};
        usbmgr_cmd_set_storage_network_server(c);
        EXPECT_STREQ(SAMBA_CONF.security, mode) << auth;
        EXPECT_EQ(settings_matching("USBMGR.SAMBA.SECURITY="), (Lines{std::string("USBMGR.SAMBA.SECURITY=") + mode}));
    }
}

TEST_F(ModelWrite, NetworkServerQueuesKindFourAndLeavesItToTheSambaReload) {
    CmdSetStorageNetworkServer c{0, 0, 0};
    usbmgr_cmd_set_storage_network_server(c);
    EXPECT_EQ(SAMBA_CONF.enable, 0);
    EXPECT_EQ(settings_matching("USBMGR.SAMBA.ENABLE="), (Lines{"USBMGR.SAMBA.ENABLE=0"}));
    EXPECT_EQ(model().NetworkServer.SMBEnable, 0u);
    EXPECT_EQ(testing_support::pending_kinds(), (Lines{"USBMGR_TR140_NETWORK_SERVICE_CHANGE"}));
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    // The alarm's work reloads Samba and then publishes.
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{4}));
}

TEST_F(ModelWrite, NetworkServerWithTheSameValuesStillRewritesAndPublishes) {
    CmdSetStorageNetworkServer c{0, 1, 1};
    usbmgr_cmd_set_storage_network_server(c);
    EXPECT_EQ(testing_support::pending_kinds(), (Lines{"USBMGR_TR140_NETWORK_SERVICE_CHANGE"}));
    EXPECT_EQ(seams.clock.alarms().size(), 1u);
}

TEST_F(ModelWrite, NetworkServerOfAnotherServiceDoesNothing) {
    for (int32_t service : {1, -1, 5}) {
        CmdSetStorageNetworkServer c{service, 0, 0};
        usbmgr_cmd_set_storage_network_server(c);
    }
    EXPECT_STREQ(SAMBA_CONF.security, "user");
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(testing_support::pending_kinds().empty());
}

// ---------------------------------------------------------------------------
// 25, 32, 35: accepted and ignored

TEST_F(ModelWrite, NetInfoFolderAndUserAccessModifyLogOnlyTheirEntryLineAndAnswerNothing) {
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    const std::pair<uint32_t, const char*> cases[] = {{25, "cmd - usbmgr_cmd_set_storage_netinfo"},
                                                      {32, "cmd - usbmgr_cmd_set_logical_volume_folder"},
                                                      {35, "cmd - usbmgr_cmd_set_storage_modify_user_access"}};
    for (const auto& [id, line] : cases) {
        fake::bus().log.clear();
        std::vector<uint8_t> p(usbmgr_command_info[usbmgr_command_index(id)].size, 0x00);
        const std::vector<uint8_t> before = p;
        ASSERT_EQ(fake::call_command(id, p), ORBIIL_OK);
        EXPECT_EQ(p, before) << id;
        EXPECT_EQ(fake::log_texts(), (Lines{line}));
    }
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(testing_support::pending_kinds().empty());
}

// ---------------------------------------------------------------------------
// 27 to 29: Samba user accounts

TEST_F(ModelWrite, AddingAUserStoresItRunsPdbeditRebuildsAndPublishesKindFiveAtOnce) {
    auto c = user("carol", "pw1", 1);
    usbmgr_cmd_set_add_storage_user_account(c);
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(settings_matching(".2="), (Lines{"USBMGR.SAMBA.USER_NAME.2=carol", "USBMGR.SAMBA.USER_PASSWORD.2=pw1",
                                               "USBMGR.SAMBA.USER_ENABLE.2=1"}));
    const Lines texts = seams.runner.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "/bin/pdbedit -a -u carol -T pw1 -A"), texts.end());
    EXPECT_EQ(model().UserAccountNumberOfEntries, 3u);
    EXPECT_EQ(fake::sent_kinds(), (Kinds{5}));
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(ModelWrite, AddingAUserTheUserLayerRefusesAnswersMinusOneDoesNotRebuildButStillPublishesKindFive) {
    usbmgr_tr140_db[0].UserAccountNumberOfEntries = 9;  // a rebuild would set it back to 2
    for (const char* name : {"alice", "bad:name", "with blank", "-x", ""}) {
        auto c = user(name, "pw", 1);
        usbmgr_cmd_set_add_storage_user_account(c);
        EXPECT_EQ(c.result, -1) << name;
        EXPECT_EQ(usbmgr_tr140_db[0].UserAccountNumberOfEntries, 9u);
    }
    EXPECT_EQ(fake::sent_kinds(), (Kinds{5, 5, 5, 5, 5}));
    EXPECT_EQ(settings_matching("USER_NAME"), (Lines{"USBMGR.SAMBA.USER_NAME.0=alice", "USBMGR.SAMBA.USER_NAME.1=bob"}));
    usbmgr_tr140_db[0].UserAccountNumberOfEntries = 2;
}

TEST_F(ModelWrite, AUserNameFillingItsWholeFieldIsRefusedNotCut) {
    auto c = user("", "pw", 1);
    std::memset(c.name, 'a', sizeof c.name);
    usbmgr_cmd_set_add_storage_user_account(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_TRUE(settings_matching(std::string(63, 'a')).empty());
    auto p = user("carol", "", 1);
    std::memset(p.password, 'p', sizeof p.password);
    usbmgr_cmd_set_add_storage_user_account(p);
    EXPECT_EQ(p.result, -1);
    EXPECT_TRUE(settings_matching("carol").empty());
}

TEST_F(ModelWrite, AUserNameWithANewlineIsRefusedAndAddsNoSettingsLine) {
    auto c = user("eve\nUSBMGR.SAMBA.ENABLE=0", "pw", 1);
    usbmgr_cmd_set_add_storage_user_account(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_EQ(settings_matching("USBMGR.SAMBA.ENABLE="), (Lines{"USBMGR.SAMBA.ENABLE=1"}));
}

TEST_F(ModelWrite, RemovingAUserRemovesItsAccessRecordsOnEveryVolumeBeforeTheUserItself) {
    const Lines expected{"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                         "USBMGR.0.ENABLE.0=1",
                         "USBMGR.0.USER_ACCESS.0.USERREFERENCE.1=StorageService.0.UserAccess.1",
                         "USBMGR.0.USER_ACCESS.0.PERMISSIONS.1=1", "USBMGR.1.SERIAL_NUMBER=SER-2",
                         "USBMGR.1.PNAME=Old", "USBMGR.1.NAME.0=Films", "USBMGR.1.ENABLE.0=1",
                         "USBMGR.1.NAME.1=", "USBMGR.1.ENABLE.1=1"};
    // The history as it stands while Samba forgets the user.
    Lines at_pdbedit;
    seams.runner.while_running = [&](const std::string& text) {
        if (text == "/bin/pdbedit -x -u alice -A") at_pdbedit = history();
    };
    auto c = user("alice", "", 0);
    usbmgr_cmd_set_remove_storage_user_account(c);
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(history(), expected);
    EXPECT_TRUE(settings_matching("alice").empty());
    EXPECT_EQ(at_pdbedit, expected);
    EXPECT_EQ(model().UserAccountNumberOfEntries, 1u);
    EXPECT_EQ(fake::sent_kinds(), (Kinds{6}));
}

TEST_F(ModelWrite, RemovingAnUnknownUserAnswersMinusOneAndStillRebuildsAndPublishesKindSix) {
    usbmgr_tr140_db[0].UserAccountNumberOfEntries = 9;
    auto c = user("nobody", "", 0);
    usbmgr_cmd_set_remove_storage_user_account(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_EQ(model().UserAccountNumberOfEntries, 2u);
    EXPECT_EQ(fake::sent_kinds(), (Kinds{6}));
}

TEST_F(ModelWrite, ModifyingAUserRewritesItsEnableRebuildsAndPublishesKindSevenAtOnce) {
    auto c = user("bob", "builder", 0);
    usbmgr_cmd_set_modify_storage_user_account(c);
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(settings_matching("USER_ENABLE.1"), (Lines{"USBMGR.SAMBA.USER_ENABLE.1=0"}));
    EXPECT_EQ(fake::sent_kinds(), (Kinds{7}));
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(ModelWrite, ModifyingAnUnknownUserAnswersMinusOneAndStillPublishesKindSeven) {
    auto c = user("nobody", "pw", 1);
    usbmgr_cmd_set_modify_storage_user_account(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_EQ(fake::sent_kinds(), (Kinds{7}));
}

// ---------------------------------------------------------------------------
// 30: disk name

TEST_F(ModelWrite, RenamingADiskStoresItsNameHandsTheHistoryOnRebuildsAndPublishesKindEightAtOnce) {
    auto c = request<CmdSetPhysicalMedium>(0, 1);
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr::copy_str(c.Name, "Holiday disk");
    usbmgr_cmd_set_physical_medium(c);
    EXPECT_EQ(c.status, 0);
    Lines expected = kHistory;
    expected[9] = "USBMGR.1.PNAME=Holiday disk";
    EXPECT_EQ(history(), expected);
    EXPECT_EQ(before_rebuild(seams.runner.texts()), (Lines{kSave}));
    EXPECT_TRUE(rebuilt(seams.runner.texts()));
    EXPECT_STREQ(model().PhysicalMedium[usb_physical_info[1].tr140_db_address].Name, "Holiday disk");
    EXPECT_EQ(fake::sent_kinds(), (Kinds{8}));
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(ModelWrite, RenamingADiskWithServiceNumberFiveOrANegativeOneAnswersMinusTwo) {
    for (int32_t service : {5, 2, -1, INT32_MIN}) {
        auto c = request<CmdSetPhysicalMedium>(service, 0);
        usbmgr_cmd_set_physical_medium(c);
        EXPECT_EQ(c.status, -2) << service;
    }
    EXPECT_EQ(history(), kHistory);
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(ModelWrite, RenamingAnEmptyOutOfRangeOrNegativeDiskSlotAnswersMinusTwo) {
    for (int32_t slot : {2, 24, 25, 1000, -1, INT32_MIN}) {
        auto c = request<CmdSetPhysicalMedium>(0, slot);
        usbmgr_cmd_set_physical_medium(c);
        EXPECT_EQ(c.status, -2) << slot;
    }
    EXPECT_EQ(history(), kHistory);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(ModelWrite, ADiskNameWithControlCharactersOrWithoutItsEndStaysOneHistoryLine) {
    auto c = request<CmdSetPhysicalMedium>(0, 0);
    std::memset(c.Name, 'n', sizeof c.Name);
    c.Name[2] = '\n';
    c.Name[3] = '\r';
    usbmgr_cmd_set_physical_medium(c);
    EXPECT_EQ(c.status, 0);
    const Lines h = history();
    ASSERT_EQ(h.size(), kHistory.size());
    EXPECT_EQ(h[1], "USBMGR.0.PNAME=nn__" + std::string(59, 'n'));
}

// ---------------------------------------------------------------------------
// 31: volume name and enable

TEST_F(ModelWrite, SettingAVolumeStoresEnableAndNameAndLeavesKindNineToTheSambaReload) {
    auto c = request<CmdSetLogicalVolume>(0, 2);  // sdb2
    c.Enable = 0;
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr::copy_str(c.Name, "Backup");
    usbmgr_cmd_set_logical_volume(c);
    EXPECT_EQ(c.status, 0);
    Lines expected = kHistory;
    expected[14] = "USBMGR.1.NAME.1=Backup";
    expected[15] = "USBMGR.1.ENABLE.1=0";
    EXPECT_EQ(history(), expected);
    EXPECT_EQ(before_rebuild(seams.runner.texts()), (Lines{kSave}));
    EXPECT_TRUE(rebuilt(seams.runner.texts()));
    const tr140_logical_volume& lv = model().LogicalVolume[usb_volume_info[2].tr140_db_address];
    EXPECT_STREQ(lv.Name, "Backup");
    EXPECT_EQ(lv.Enable, 0u);
    EXPECT_EQ(testing_support::pending_kinds(), (Lines{"USBMGR_TR140_LOGICAL_VOLUME_CHANGE"}));
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
}

TEST_F(ModelWrite, SettingAVolumeWithAnEmptyNameKeepsTheStoredName) {
    auto c = request<CmdSetLogicalVolume>(0, 1);  // sdb1, "Films"
    c.Enable = 1;
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr_cmd_set_logical_volume(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(history(), kHistory);
    EXPECT_STREQ(model().LogicalVolume[usb_volume_info[1].tr140_db_address].Name, "Films");
}

TEST_F(ModelWrite, SettingAVolumeOfABadServiceAnswersMinusOne) {
    for (int32_t service : {2, 7, -1, INT32_MIN}) {
        auto c = request<CmdSetLogicalVolume>(service, 0);
        usbmgr_cmd_set_logical_volume(c);
        EXPECT_EQ(c.status, -1) << service;
    }
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(ModelWrite, SettingAVolumeOfAnEmptySlotOfSlotTwentyFiveOrOfANegativeSlotAnswersMinusThree) {
    for (int32_t slot : {3, 24, 25, 26, -1, -3, INT32_MIN}) {
        auto c = request<CmdSetLogicalVolume>(0, slot);
        usbmgr_cmd_set_logical_volume(c);
        EXPECT_EQ(c.status, -3) << slot;
    }
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(ModelWrite, AVolumeNameWithANewlineBecomesUnderscoresAndAddsNoHistoryLine) {
    auto c = request<CmdSetLogicalVolume>(0, 0);
    c.Enable = 1;
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr::copy_str(c.Name, "a\nUSBMGR.0.ENABLE.0=0");
    usbmgr_cmd_set_logical_volume(c);
    Lines expected = kHistory;
    expected[2] = "USBMGR.0.NAME.0=a_USBMGR.0.ENABLE.0=0";
    EXPECT_EQ(history(), expected);
}

// ---------------------------------------------------------------------------
// 33, 34: user access

TEST_F(ModelWrite, AddingUserAccessWritesTheEntryAfterTheEnableLineAndPublishesKindElevenAtOnce) {
    auto c = request<CmdAddUserAccess>(0, 1);  // sdb1: entry 0 taken, 1 free
    std::memset(c.UserName, 0, sizeof c.UserName);
    usbmgr::copy_str(c.UserName, "bob");
    c.Permissions = 3;
    usbmgr_cmd_set_storage_add_user_access(c);
    EXPECT_EQ(c.status, 0);
    Lines expected = kHistory;
    expected.insert(expected.begin() + 12, {"USBMGR.1.USER_ACCESS.0.USERREFERENCE.1=StorageService.0.UserAccess.1",
                                            "USBMGR.1.USER_ACCESS.0.PERMISSIONS.1=3"});
    EXPECT_EQ(history(), expected);
    EXPECT_EQ(before_rebuild(seams.runner.texts()), (Lines{kSave}));
    EXPECT_TRUE(rebuilt(seams.runner.texts()));
    EXPECT_EQ(fake::sent_kinds(), (Kinds{11}));
    EXPECT_TRUE(seams.clock.alarms().empty());
    // The model follows: command 23 reads the new record.
    CmdStorageUserAccess r{};
    r.service = 0;
    r.slot = 1;
    r.number = 1;
    usbmgr_cmd_get_storage_user_access(r);
    EXPECT_EQ(r.status, 0);
    EXPECT_STREQ(r.UserReference, "StorageService.0.UserAccess.1");
    EXPECT_EQ(r.Permissions, 3u);
}

TEST_F(ModelWrite, AddingUserAccessTheUserAccessLayerRefusesAnswersMinusFiveAndPublishesNothing) {
    auto c = request<CmdAddUserAccess>(0, 0);
    std::memset(c.UserName, 0, sizeof c.UserName);
    usbmgr::copy_str(c.UserName, "nobody");
    c.Permissions = 1;
    usbmgr_cmd_set_storage_add_user_access(c);
    EXPECT_EQ(c.status, -5);
    EXPECT_EQ(history(), kHistory);
    EXPECT_TRUE(testing_support::pending_kinds().empty());
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(ModelWrite, AUserNameWithANewlineGetsNoUserAccessAndAddsNoLine) {
    auto c = request<CmdAddUserAccess>(0, 0);
    std::memset(c.UserName, 'b', sizeof c.UserName);  // no end
    c.UserName[1] = '\n';
    usbmgr_cmd_set_storage_add_user_access(c);
    EXPECT_EQ(c.status, -5);
    EXPECT_EQ(history(), kHistory);
}

TEST_F(ModelWrite, UserAccessOfABadServiceAnswersMinusOneAndOfABadVolumeSlotMinusThree) {
    for (int32_t service : {2, -1}) {
        auto a = request<CmdAddUserAccess>(service, 0);
        usbmgr_cmd_set_storage_add_user_access(a);
        EXPECT_EQ(a.status, -1);
        auto r = request<CmdRemoveUserAccess>(service, 0);
        usbmgr_cmd_set_storage_remove_user_access(r);
        EXPECT_EQ(r.status, -1);
    }
    for (int32_t slot : {3, 25, -1, INT32_MIN, INT32_MAX}) {
        auto a = request<CmdAddUserAccess>(0, slot);
        usbmgr_cmd_set_storage_add_user_access(a);
        EXPECT_EQ(a.status, -3) << slot;
        auto r = request<CmdRemoveUserAccess>(0, slot);
        usbmgr_cmd_set_storage_remove_user_access(r);
        EXPECT_EQ(r.status, -3) << slot;
    }
    EXPECT_EQ(history(), kHistory);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(ModelWrite, WhenTheSerialLookupFailsUserAccessCommandsLeaveTheStatusAsTheRequestHadIt) {
    // A volume row whose name is in no disk's list, with slot 24 in use so
    // that the lookup answers its first character.
    usbmgr::copy_str(usb_volume_info[5].name, "sdz1");
    usbmgr::copy_str(usb_physical_info[24].attach_device, "sdq");
    auto a = request<CmdAddUserAccess>(0, 5);
    std::memset(a.UserName, 0, sizeof a.UserName);
    usbmgr::copy_str(a.UserName, "alice");
    usbmgr_cmd_set_storage_add_user_access(a);
    EXPECT_EQ(a.status, kUntouched);
    auto r = request<CmdRemoveUserAccess>(0, 5);
    r.number = 0;
    usbmgr_cmd_set_storage_remove_user_access(r);
    EXPECT_EQ(r.status, kUntouched);
    EXPECT_EQ(history(), kHistory);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(ModelWrite, RemovingUserAccessDropsBothLinesAndPublishesKindTwelveAtOnce) {
    auto c = request<CmdRemoveUserAccess>(0, 0);
    c.number = 1;
    usbmgr_cmd_set_storage_remove_user_access(c);
    EXPECT_EQ(c.status, 0);
    Lines expected = kHistory;
    expected.erase(expected.begin() + 6, expected.begin() + 8);
    EXPECT_EQ(history(), expected);
    EXPECT_EQ(before_rebuild(seams.runner.texts()), (Lines{kSave}));
    EXPECT_TRUE(rebuilt(seams.runner.texts()));
    EXPECT_EQ(fake::sent_kinds(), (Kinds{12}));
    const tr140_logical_volume& lv = model().LogicalVolume[usb_volume_info[0].tr140_db_address];
    EXPECT_EQ(lv.Folder[0].UserAccessNumberOfEntries, 1u);
}

TEST_F(ModelWrite, RemovingAnAbsentOrNegativeUserAccessNumberAnswersMinusSixAndPublishesNothing) {
    for (int32_t number : {5, 26, -1, INT32_MIN}) {
        auto c = request<CmdRemoveUserAccess>(0, 0);
        c.number = number;
        usbmgr_cmd_set_storage_remove_user_access(c);
        EXPECT_EQ(c.status, -6) << number;
    }
    EXPECT_EQ(history(), kHistory);
    EXPECT_TRUE(fake::sent_kinds().empty());
}

// ---------------------------------------------------------------------------
// Hostile payloads through the command table

TEST_F(ModelWrite, AllOnesPayloadsAreRefusedAndLeaveBothFilesAsTheyWere) {
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    const std::string history_before = read_file(TR140_CONF_PATH);
    const std::string settings_before = read_file(USBMGR_CONF_PATH);
    for (uint32_t id = 24; id <= 35; ++id) {
        std::vector<uint8_t> p(usbmgr_command_info[usbmgr_command_index(id)].size, 0xff);
        ASSERT_EQ(fake::call_command(id, p), ORBIIL_OK) << id;
        int32_t word;
        if (id == 30) {
            std::memcpy(&word, p.data() + 72, 4);
            EXPECT_EQ(word, -2);
        } else if (id == 31 || id == 33 || id == 34) {
            std::memcpy(&word, p.data() + 76, 4);
            EXPECT_EQ(word, -1) << id;
        } else if (id >= 27 && id <= 29) {
            std::memcpy(&word, p.data() + 132, 4);
            EXPECT_EQ(word, -1) << id;
        }
    }
    EXPECT_EQ(read_file(TR140_CONF_PATH), history_before);
    EXPECT_EQ(read_file(USBMGR_CONF_PATH), settings_before);
    // 27 to 29 publish whatever their result.
    EXPECT_EQ(fake::sent_kinds(), (Kinds{5, 6, 7}));
}

// ---------------------------------------------------------------------------
// Disks without a serial number: their empty serial names the history
// record whose SERIAL_NUMBER is empty, except for the user-access commands,
// which take the empty buffer as a failed lookup.

namespace {

// kHistory and a record with an empty serial number (volume 0 named Stick
// and disabled).
Lines history_with_serial_less_record() {
    Lines h = kHistory;
    h.insert(h.end(), {"USBMGR.2.SERIAL_NUMBER=", "USBMGR.2.PNAME=Nameless", "USBMGR.2.NAME.0=Stick",
                       "USBMGR.2.ENABLE.0=0", "USBMGR.2.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.1",
                       "USBMGR.2.USER_ACCESS.0.PERMISSIONS.0=2"});
    return h;
}

FakeDisk serial_less(const std::string& disk) {
    FakeDisk d;
    d.disk = disk;
    d.volumes = {disk + "1"};
    d.serial = "";
    return d;
}

}  // namespace

class SerialLessDisk : public ModelWrite {
protected:
    SerialLessDisk() {
        StorageWorld::history(history_with_serial_less_record());
        disk_slot = world.plug(serial_less("sdc"));
        StorageWorld::build();
        seams.runner.clear();
        fake::reset();
    }

    static const tr140_logical_volume& volume_of(const char* name) {
        const int slot = db_util_get_usb_volume_info_index_by_device(name);
        return model().LogicalVolume[usb_volume_info[slot].tr140_db_address];
    }
    static const tr140_physical_medium& disk_of(int slot) {
        return model().PhysicalMedium[usb_physical_info[slot].tr140_db_address];
    }
    static int32_t volume_slot(const char* name) { return db_util_get_usb_volume_info_index_by_device(name); }

    static std::vector<std::pair<std::string, std::string>> shares(const std::vector<std::string>& folders) {
        std::vector<std::pair<std::string, std::string>> out;
        for (const auto& s : app_util_samba_shares(folders)) out.emplace_back(s.folder, s.volume_name);
        return out;
    }

    void set_volume(const char* volume, uint32_t enable, const char* name) {
        auto c = request<CmdSetLogicalVolume>(0, volume_slot(volume));
        c.Enable = enable;
        std::memset(c.Name, 0, sizeof c.Name);
        usbmgr::copy_str(c.Name, name);
        usbmgr_cmd_set_logical_volume(c);
        ASSERT_EQ(c.status, 0);
    }

    int disk_slot = -1;
};

TEST_F(SerialLessDisk, AddingUserAccessOnADiskWithoutASerialNumberLeavesTheStatusAsTheRequestHadIt) {
    auto a = request<CmdAddUserAccess>(0, volume_slot("sdc1"));
    std::memset(a.UserName, 0, sizeof a.UserName);
    usbmgr::copy_str(a.UserName, "alice");
    a.Permissions = 1;
    usbmgr_cmd_set_storage_add_user_access(a);
    EXPECT_EQ(a.status, kUntouched);
    EXPECT_EQ(history(), history_with_serial_less_record());
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(testing_support::pending_kinds().empty());
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(SerialLessDisk, RemovingUserAccessOnADiskWithoutASerialNumberLeavesTheStatusAsTheRequestHadIt) {
    auto r = request<CmdRemoveUserAccess>(0, volume_slot("sdc1"));
    r.number = 0;  // the serial-less record has entry 0
    usbmgr_cmd_set_storage_remove_user_access(r);
    EXPECT_EQ(r.status, kUntouched);
    EXPECT_EQ(history(), history_with_serial_less_record());
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(SerialLessDisk, TheModelAndTheSambaSharesShowTheNamesAndEnableOfTheRecordWithAnEmptySerial) {
    EXPECT_STREQ(disk_of(disk_slot).Name, "Nameless");
    const tr140_logical_volume& lv = volume_of("sdc1");
    EXPECT_STREQ(lv.Name, "Stick");
    EXPECT_STREQ(lv.Status, "Offline");
    EXPECT_EQ(lv.Enable, 0u);
    EXPECT_STREQ(lv.Folder[0].Name, "/disk/Stick");
    ASSERT_EQ(lv.Folder[0].UserAccessNumberOfEntries, 1u);
    EXPECT_STREQ(lv.Folder[0].UserAccess[0].UserReference, "StorageService.0.UserAccess.1");
    // Disabled in that record: not shared, and a named volume before it
    // does not lend it its name.
    set_volume("sdb1", 1, "Films");
    EXPECT_EQ(shares({"sdb1", "sdc1"}), (std::vector<std::pair<std::string, std::string>>{{"sdb1", "Films"}}));
}

TEST_F(SerialLessDisk, SettingAVolumeOfADiskWithoutASerialNumberChangesTheRecordWithAnEmptySerial) {
    set_volume("sdc1", 1, "Renamed");
    Lines expected = history_with_serial_less_record();
    expected[18] = "USBMGR.2.NAME.0=Renamed";
    expected[19] = "USBMGR.2.ENABLE.0=1";
    EXPECT_EQ(history(), expected);
    EXPECT_STREQ(volume_of("sdc1").Name, "Renamed");
    EXPECT_EQ(volume_of("sdc1").Enable, 1u);
    EXPECT_EQ(shares({"sdb1", "sdc1"}),
              (std::vector<std::pair<std::string, std::string>>{{"sdb1", "Films"}, {"sdc1", "Renamed"}}));
}

TEST_F(SerialLessDisk, TwoDisksWithoutASerialNumberAtOnceBothShowTheRecordWithAnEmptySerial) {
    const int second = world.plug(serial_less("sdd"));
    StorageWorld::build();
    EXPECT_STREQ(disk_of(second).Name, "Nameless");
    EXPECT_STREQ(volume_of("sdd1").Name, "Stick");
    EXPECT_EQ(volume_of("sdd1").Enable, 0u);
    // A change made through either volume is the other's too.
    set_volume("sdd1", 1, "Shared");
    EXPECT_STREQ(volume_of("sdc1").Name, "Shared");
    EXPECT_STREQ(volume_of("sdd1").Name, "Shared");
    EXPECT_EQ(volume_of("sdc1").Enable, 1u);
    EXPECT_EQ(shares({"sdc1", "sdd1"}),
              (std::vector<std::pair<std::string, std::string>>{{"sdc1", "Shared"}, {"sdd1", "Shared"}}));
    for (const char* v : {"sdc1", "sdd1"}) {
        auto a = request<CmdAddUserAccess>(0, volume_slot(v));
        usbmgr_cmd_set_storage_add_user_access(a);
        EXPECT_EQ(a.status, kUntouched) << v;
    }
}

TEST_F(SerialLessDisk, ADiskWithoutASerialNumberAfterAnotherOneShowsTheNameGivenToTheFirst) {
    set_volume("sdc1", 1, "Camera");
    world.unplug(serial_less("sdc"));
    const int next = world.plug(serial_less("sde"));
    StorageWorld::build();
    EXPECT_STREQ(disk_of(next).Name, "Nameless");
    EXPECT_STREQ(volume_of("sde1").Name, "Camera");
    EXPECT_EQ(volume_of("sde1").Enable, 1u);
    EXPECT_EQ(shares({"sde1"}), (std::vector<std::pair<std::string, std::string>>{{"sde1", "Camera"}}));
}

// ---------------------------------------------------------------------------
// A subscriber that reads the model when it hears of a change sees the new
// state: the model is rebuilt before the change kind is published.

namespace {

// What the model showed each time change kind `kind` was sent.
class ModelOnEvent : public ModelWrite {
protected:
    using Read = std::function<std::string()>;
    void subscribe(const Read& read) {
        fake::bus().on_notify = [this, read](uint32_t id, const std::vector<uint8_t>& payload) {
            uint32_t kind = 0;
            if (id != 0 || payload.size() != sizeof kind) return;
            std::memcpy(&kind, payload.data(), sizeof kind);
            seen.emplace_back(kind, read());
        };
    }
    static std::string user_names() {
        std::string names;
        for (uint32_t i = 0; i < model().UserAccountNumberOfEntries; ++i)
            names += std::string(model().UserAccount[i].Name) + ":" + std::to_string(model().UserAccount[i].Enable) + " ";
        return names;
    }
    static std::string volume(int slot) {
        const tr140_logical_volume& lv = model().LogicalVolume[usb_volume_info[slot].tr140_db_address];
        return std::string(lv.Name) + ":" + std::to_string(lv.Enable) + ":" +
               std::to_string(lv.Folder[0].UserAccessNumberOfEntries);
    }
    std::vector<std::pair<uint32_t, std::string>> seen;
};

using Seen = std::vector<std::pair<uint32_t, std::string>>;

}  // namespace

TEST_F(ModelOnEvent, NetworkServerIsShownInTheModelWhenKindFourIsHeard) {
    subscribe([] {
        return std::to_string(model().NetworkServer.SMBEnable) + ":" +
               std::to_string(model().NetworkServer.NetworkProtocolAuthReq);
    });
    CmdSetStorageNetworkServer c{0, 0, 0};
    usbmgr_cmd_set_storage_network_server(c);
    usbmgr_alarm_work();
    EXPECT_EQ(seen, (Seen{{4, "0:0"}}));
}

TEST_F(ModelOnEvent, AnAddedUserIsInTheModelWhenKindFiveIsHeard) {
    subscribe(user_names);
    auto c = user("carol", "pw1", 1);
    usbmgr_cmd_set_add_storage_user_account(c);
    EXPECT_EQ(seen, (Seen{{5, "alice:1 bob:1 carol:1 "}}));
}

TEST_F(ModelOnEvent, ARemovedUserIsGoneFromTheModelWhenKindSixIsHeard) {
    subscribe([] { return user_names() + volume(0); });
    auto c = user("alice", "", 0);
    usbmgr_cmd_set_remove_storage_user_account(c);
    EXPECT_EQ(seen, (Seen{{6, "bob:1 sda1:1:1"}}));
}

TEST_F(ModelOnEvent, AModifiedUserIsShownInTheModelWhenKindSevenIsHeard) {
    subscribe(user_names);
    auto c = user("bob", "builder", 0);
    usbmgr_cmd_set_modify_storage_user_account(c);
    EXPECT_EQ(seen, (Seen{{7, "alice:1 bob:0 "}}));
}

TEST_F(ModelOnEvent, ARenamedDiskIsShownInTheModelWhenKindEightIsHeard) {
    subscribe([] { return std::string(model().PhysicalMedium[usb_physical_info[1].tr140_db_address].Name); });
    auto c = request<CmdSetPhysicalMedium>(0, 1);
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr::copy_str(c.Name, "Holiday disk");
    usbmgr_cmd_set_physical_medium(c);
    EXPECT_EQ(seen, (Seen{{8, "Holiday disk"}}));
}

TEST_F(ModelOnEvent, AChangedVolumeIsShownInTheModelWhenKindNineIsHeard) {
    subscribe([] { return volume(2); });
    auto c = request<CmdSetLogicalVolume>(0, 2);
    c.Enable = 0;
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr::copy_str(c.Name, "Backup");
    usbmgr_cmd_set_logical_volume(c);
    usbmgr_alarm_work();
    EXPECT_EQ(seen, (Seen{{9, "Backup:0:0"}}));
}

TEST_F(ModelOnEvent, AddedAndRemovedUserAccessIsShownInTheModelWhenKindsElevenAndTwelveAreHeard) {
    subscribe([] { return volume(1); });
    auto a = request<CmdAddUserAccess>(0, 1);
    std::memset(a.UserName, 0, sizeof a.UserName);
    usbmgr::copy_str(a.UserName, "bob");
    a.Permissions = 3;
    usbmgr_cmd_set_storage_add_user_access(a);
    auto r = request<CmdRemoveUserAccess>(0, 1);
    r.number = 0;
    usbmgr_cmd_set_storage_remove_user_access(r);
    EXPECT_EQ(seen, (Seen{{11, "Films:1:2"}, {12, "Films:1:1"}}));
}

TEST_F(ModelOnEvent, TheServiceSwitchIsShownInTheModelBeforeTheSambaReload) {
    std::vector<uint32_t> at_reload;
    seams.runner.while_running = [&at_reload](const std::string& text) {
        if (text.rfind("ps | grep smbd", 0) == 0) at_reload.push_back(model().Enable);
    };
    CmdSetStorageService c{0, 0};
    usbmgr_cmd_set_storage_service(c);
    usbmgr_alarm_work();
    ASSERT_FALSE(at_reload.empty());
    EXPECT_EQ(at_reload.front(), 0u);
}

// ---------------------------------------------------------------------------
// Service number 1 passes the service check of commands 30, 31, 33 and 34
// and changes the same sources as service 0 (only service 0 is filled).

TEST_F(ModelWrite, RenamingADiskWithServiceNumberOneRenamesIt) {
    auto c = request<CmdSetPhysicalMedium>(1, 0);
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr::copy_str(c.Name, "One");
    usbmgr_cmd_set_physical_medium(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(history()[1], "USBMGR.0.PNAME=One");
    EXPECT_STREQ(model().PhysicalMedium[usb_physical_info[0].tr140_db_address].Name, "One");
    EXPECT_EQ(fake::sent_kinds(), (Kinds{8}));
}

TEST_F(ModelWrite, SettingAVolumeWithServiceNumberOneSetsIt) {
    auto c = request<CmdSetLogicalVolume>(1, 0);
    c.Enable = 0;
    std::memset(c.Name, 0, sizeof c.Name);
    usbmgr::copy_str(c.Name, "One");
    usbmgr_cmd_set_logical_volume(c);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(history()[2], "USBMGR.0.NAME.0=One");
    EXPECT_EQ(history()[3], "USBMGR.0.ENABLE.0=0");
    EXPECT_EQ(testing_support::pending_kinds(), (Lines{"USBMGR_TR140_LOGICAL_VOLUME_CHANGE"}));
}

TEST_F(ModelWrite, UserAccessWithServiceNumberOneIsAddedAndRemoved) {
    auto a = request<CmdAddUserAccess>(1, 1);
    std::memset(a.UserName, 0, sizeof a.UserName);
    usbmgr::copy_str(a.UserName, "bob");
    a.Permissions = 3;
    usbmgr_cmd_set_storage_add_user_access(a);
    EXPECT_EQ(a.status, 0);
    auto r = request<CmdRemoveUserAccess>(1, 1);
    r.number = 0;
    usbmgr_cmd_set_storage_remove_user_access(r);
    EXPECT_EQ(r.status, 0);
    Lines expected = kHistory;
    expected[12] = "USBMGR.1.USER_ACCESS.0.USERREFERENCE.1=StorageService.0.UserAccess.1";
    expected[13] = "USBMGR.1.USER_ACCESS.0.PERMISSIONS.1=3";
    EXPECT_EQ(history(), expected);
    EXPECT_EQ(fake::sent_kinds(), (Kinds{11, 12}));
}
