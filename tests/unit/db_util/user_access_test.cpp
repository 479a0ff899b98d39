#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "platform_fake.h"
#include "fixture.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;


void write_lines(const std::string& path, const Lines& lines) {
    std::string text;
    for (const auto& l : lines) text += l + "\n";
    testing_support::write_file(path, text);
}

void write_history(const Lines& lines) { write_lines(TR140_CONF_PATH, lines); }
Lines history() { return testing_support::read_lines(TR140_CONF_PATH); }

// Settings with the named accounts in the given slots.
void write_accounts(const std::vector<std::pair<int, std::string>>& accounts) {
    Lines lines = {"USBMGR.MOUNT_DISK_PATH=/var/usb"};
    for (const auto& [slot, name] : accounts) {
        const std::string n = std::to_string(slot);
        lines.push_back("USBMGR.SAMBA.USER_NAME." + n + "=" + name);
        lines.push_back("USBMGR.SAMBA.USER_PASSWORD." + n + "=pw" + n);
        lines.push_back("USBMGR.SAMBA.USER_ENABLE." + n + "=1");
    }
    write_lines(USBMGR_CONF_PATH, lines);
}

std::string ref_line(int d, int k, int e, int account) {
    return "USBMGR." + std::to_string(d) + ".USER_ACCESS." + std::to_string(k) + ".USERREFERENCE." +
           std::to_string(e) + "=StorageService.0.UserAccess." + std::to_string(account);
}

std::string perm_line(int d, int k, int e, const std::string& value) {
    return "USBMGR." + std::to_string(d) + ".USER_ACCESS." + std::to_string(k) + ".PERMISSIONS." + std::to_string(e) +
           "=" + value;
}

// Device 0 with two volumes, entries 0 and 2 on volume 0.
Lines record_with_entries_zero_and_two() {
    return {"USBMGR.0.SERIAL_NUMBER=S",
            "USBMGR.0.PNAME=",
            "USBMGR.0.NAME.0=",
            "USBMGR.0.ENABLE.0=1",
            ref_line(0, 0, 2, 5),
            perm_line(0, 0, 2, "7"),
            ref_line(0, 0, 0, 3),
            perm_line(0, 0, 0, "2"),
            "USBMGR.0.NAME.1=",
            "USBMGR.0.ENABLE.1=1"};
}

}  // namespace

class UserAccess : public testing_support::DaemonTest {};
class UserAccessAutoCreate : public testing_support::DaemonTest {};

// ---------------------------------------------------------------------------
// Reading entries

TEST_F(UserAccess, EntriesZeroAndTwoCountTwo) {
    write_history(record_with_entries_zero_and_two());
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda1"), 2);
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda2"), 0);
    EXPECT_EQ(db_util_get_number_of_user_access(1, "sda1"), 0);
}

TEST_F(UserAccess, EntriesZeroAndTwoLeaveEntryOneFree) {
    write_history(record_with_entries_zero_and_two());
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), 1);
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda2"), 0);
}

TEST_F(UserAccess, NoHistoryFileCountsNoneAndOffersEntryZero) {
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda1"), 0);
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), 0);
}

TEST_F(UserAccess, AllTwentySixEntriesUsedLeaveNoFreeEntry) {
    Lines lines = {"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1"};
    for (int e = 0; e < 26; ++e) {
        lines.push_back(ref_line(0, 0, e, e % 25));
        lines.push_back(perm_line(0, 0, e, "1"));
    }
    lines.push_back(ref_line(0, 0, 26, 1));  // beyond the entry range: not counted
    write_history(lines);
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda1"), 26);
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), -1);
}

TEST_F(UserAccess, EntryTwentyFiveTheLastIsReadCountedOfferedAndRemoved) {
    Lines lines = {"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1"};
    for (int e = 0; e < 25; ++e) {
        lines.push_back(ref_line(0, 0, e, 1));
        lines.push_back(perm_line(0, 0, e, "1"));
    }
    write_history(lines);
    // Entries 0 to 24 taken: the last one is free.
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), 25);
    write_accounts({{4, "dora"}});
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 25, "dora", 6), 0);
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda1"), 26);
    UserAccessInfo info{};
    EXPECT_EQ(db_util_get_user_access_info_by_index(25, 0, "sda1", &info), 0);
    EXPECT_STREQ(info.user_reference, "StorageService.0.UserAccess.4");
    EXPECT_EQ(info.permissions, 6);
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), -1);
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess(0, "sda1", 25), 0);
    EXPECT_EQ(db_util_get_user_access_info_by_index(25, 0, "sda1", &info), -1);
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), 25);
    EXPECT_EQ(testing_support::read_lines(TR140_CONF_PATH), lines);
}

TEST_F(UserAccess, ReadingAnEntryFillsReferenceAndPermissionsAndLeavesTheLeadingField) {
    write_history(record_with_entries_zero_and_two());
    UserAccessInfo info{};
    info.index = 42;
    EXPECT_EQ(db_util_get_user_access_info_by_index(2, 0, "sda1", &info), 0);
    EXPECT_EQ(info.index, 42);
    EXPECT_STREQ(info.user_reference, "StorageService.0.UserAccess.5");
    EXPECT_EQ(info.permissions, 7);
}

TEST_F(UserAccess, ReadingAnAbsentEntryLeavesTheRecordAlone) {
    write_history(record_with_entries_zero_and_two());
    UserAccessInfo info{};
    std::strcpy(info.user_reference, "untouched");
    info.permissions = 9;
    EXPECT_EQ(db_util_get_user_access_info_by_index(1, 0, "sda1", &info), -1);
    EXPECT_STREQ(info.user_reference, "untouched");
    EXPECT_EQ(info.permissions, 9);
}

TEST_F(UserAccess, AutomaticallyCreatedEntriesReadBackWithPermissionsMinusOne) {
    write_history({"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1",
                   "USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0",
                   "USBMGR.0.USER_ACCESS.0.PERMISSIONS.0="});
    UserAccessInfo info{};
    EXPECT_EQ(db_util_get_user_access_info_by_index(0, 0, "sda1", &info), 0);
    EXPECT_STREQ(info.user_reference, "StorageService.0.UserAccess.0");
    EXPECT_EQ(info.permissions, -1);
}

TEST_F(UserAccess, VolumeNamesOutsideVolumesZeroToTwentyFourAreAnsweredWithoutReading) {
    write_history({"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.ENABLE.-1=1", ref_line(0, -1, 0, 1),
                   "USBMGR.0.ENABLE.25=1", ref_line(0, 25, 0, 1)});
    UserAccessInfo info{};
    for (const char* volume : {"sda0", "sda26", "sd", "sdaX", ""}) {
        EXPECT_EQ(db_util_get_number_of_user_access(0, volume), 0) << volume;
        EXPECT_EQ(db_util_get_user_access_info_by_index(0, 0, volume, &info), -1) << volume;
        EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, volume), -1) << volume;
    }
    EXPECT_EQ(db_util_get_number_of_user_access(0, nullptr), 0);
    EXPECT_EQ(db_util_get_user_access_info_by_index(0, -1, "sda1", &info), -1);
    EXPECT_EQ(db_util_get_user_access_info_by_index(-1, 0, "sda1", &info), -1);
    EXPECT_EQ(db_util_get_user_access_info_by_index(26, 0, "sda1", &info), -1);
    EXPECT_EQ(db_util_get_user_access_info_by_index(0, 0, "sda1", nullptr), -1);
}

// ---------------------------------------------------------------------------
// Account numbers

TEST_F(UserAccess, AccountNumberIsTheFirstSlotWithThatName) {
    write_accounts({{0, "alice"}, {3, "bob"}, {7, "bob"}});
    EXPECT_EQ(dp_util_get_samba_user_index("bob"), 3);
    EXPECT_EQ(dp_util_get_samba_user_index("alice"), 0);
    EXPECT_EQ(dp_util_get_samba_user_index("Bob"), -1);
}

TEST_F(UserAccess, UnknownUserIsAccountZeroWhenSlotTwentyFourIsInUse) {
    write_accounts({{3, "bob"}, {24, "zed"}});
    EXPECT_EQ(dp_util_get_samba_user_index("nobody"), 0);
}

// ---------------------------------------------------------------------------
// Adding entries

TEST_F(UserAccess, AddingForAccountThreeInsertsBothLinesRightAfterTheVolumesEnableLine) {
    write_accounts({{0, "alice"}, {3, "dave"}});
    write_history({"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1",
                   ref_line(0, 0, 0, 0), perm_line(0, 0, 0, "1"), "USBMGR.0.NAME.1=", "USBMGR.0.ENABLE.1=1"});
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 1, "dave", 2), 0);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                                "USBMGR.0.ENABLE.0=1",
                                "USBMGR.0.USER_ACCESS.0.USERREFERENCE.1=StorageService.0.UserAccess.3",
                                "USBMGR.0.USER_ACCESS.0.PERMISSIONS.1=2", ref_line(0, 0, 0, 0),
                                perm_line(0, 0, 0, "1"), "USBMGR.0.NAME.1=", "USBMGR.0.ENABLE.1=1"}));
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
}

TEST_F(UserAccess, AddingForAnUnknownUserWhileSlotTwentyFourIsFreeLeavesTheFileUntouched) {
    write_accounts({{3, "dave"}});
    write_history(record_with_entries_zero_and_two());
    const std::string before = testing_support::read_file(TR140_CONF_PATH);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 1, "nobody", 2), -1);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH), before);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(UserAccess, AddingForAnUnknownUserWhileSlotTwentyFourIsInUseAddsForAccountZero) {
    write_accounts({{3, "dave"}, {24, "zed"}});
    write_history({"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1"});
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 0, "nobody", 4), 0);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1",
                                ref_line(0, 0, 0, 0), perm_line(0, 0, 0, "4")}));
}

TEST_F(UserAccess, AddingToAVolumeWithoutEnableLineRewritesTheFileUnchangedAndAnswersMinusOne) {
    write_accounts({{3, "dave"}});
    write_history(record_with_entries_zero_and_two());
    const std::string before = testing_support::read_file(TR140_CONF_PATH);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda3", 0, "dave", 2), -1);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH), before);
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
}

TEST_F(UserAccess, AddingWithoutHistoryFileAnswersMinusOneAndCreatesNothing) {
    write_accounts({{3, "dave"}});
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 0, "dave", 2), -1);
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
    EXPECT_FALSE(testing_support::temp_left_beside(TR140_CONF_PATH));
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(UserAccess, AddingOutOfRangeWritesNothing) {
    write_accounts({{3, "dave"}});
    write_history(record_with_entries_zero_and_two());
    const std::string before = testing_support::read_file(TR140_CONF_PATH);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 26, "dave", 2), -1);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", -1, "dave", 2), -1);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda26", 0, "dave", 2), -1);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda0", 0, "dave", 2), -1);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(-1, "sda1", 0, "dave", 2), -1);
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 0, nullptr, 2), -1);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH), before);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(UserAccess, AddingAfterACutLastLineStartsTheEntryOnALineOfItsOwn) {
    write_accounts({{3, "dave"}});
    testing_support::write_file(TR140_CONF_PATH, "USBMGR.0.SERIAL_NUMBER=S\nUSBMGR.0.ENABLE.0=1");
    EXPECT_EQ(dp_util_get_tr140_add_useraccess(0, "sda1", 0, "dave", 2), 0);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.ENABLE.0=1", ref_line(0, 0, 0, 3),
                                perm_line(0, 0, 0, "2")}));
}

// ---------------------------------------------------------------------------
// Removing entries

TEST_F(UserAccess, RemovingAnEntryDropsItsTwoLinesAndKeepsTheOthersNumbers) {
    write_history(record_with_entries_zero_and_two());
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess(0, "sda1", 2), 0);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                                "USBMGR.0.ENABLE.0=1", ref_line(0, 0, 0, 3), perm_line(0, 0, 0, "2"),
                                "USBMGR.0.NAME.1=", "USBMGR.0.ENABLE.1=1"}));
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
}

TEST_F(UserAccess, RemovingAnAbsentEntryLeavesTheFileAlone) {
    write_history(record_with_entries_zero_and_two());
    const std::string before = testing_support::read_file(TR140_CONF_PATH);
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess(0, "sda1", 1), -1);
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess(0, "sda1", 26), -1);
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess(0, "sdb", 0), -1);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH), before);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(UserAccess, RemovingAccountTwoByNameAlsoRemovesAccountsTwentyToTwentyFourButNotTwelve) {
    write_accounts({{2, "carol"}, {12, "lena"}, {20, "tom"}});
    Lines lines = {"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1"};
    int e = 0;
    for (int account : {2, 12, 20, 21, 22, 23, 24, 1}) {
        lines.push_back(ref_line(0, 0, e, account));
        lines.push_back(perm_line(0, 0, e, std::to_string(account)));
        ++e;
    }
    lines.push_back("USBMGR.1.SERIAL_NUMBER=T");
    lines.push_back("USBMGR.1.ENABLE.0=1");
    lines.push_back(ref_line(1, 0, 0, 2));
    lines.push_back(perm_line(1, 0, 0, ""));
    write_history(lines);
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess_by_username("carol"), -1);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1",
                                ref_line(0, 0, 1, 12), perm_line(0, 0, 1, "12"), ref_line(0, 0, 7, 1),
                                perm_line(0, 0, 7, "1"), "USBMGR.1.SERIAL_NUMBER=T", "USBMGR.1.ENABLE.0=1"}));
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
}

TEST_F(UserAccess, RemovingByNameKeepsAPermissionLineThatDoesNotFollowItsReference) {
    write_accounts({{2, "carol"}});
    write_history({"USBMGR.0.ENABLE.0=1", ref_line(0, 0, 0, 2), ref_line(0, 0, 1, 5), perm_line(0, 0, 0, "1"),
                   perm_line(0, 0, 1, "1")});
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess_by_username("carol"), -1);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.ENABLE.0=1", ref_line(0, 0, 1, 5), perm_line(0, 0, 0, "1"),
                                perm_line(0, 0, 1, "1")}));
}

TEST_F(UserAccess, RemovingByNameWithoutHistoryFileChangesNothing) {
    write_accounts({{2, "carol"}});
    EXPECT_EQ(dp_util_get_tr140_remove_useraccess_by_username("carol"), -1);
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
    EXPECT_TRUE(seams.runner.texts().empty());
}

// ---------------------------------------------------------------------------
// Entries created with a new disk

TEST_F(UserAccessAutoCreate, NewDiskGetsAnEntryPerAccountAfterEachEnableLineWithEmptyPermissions) {
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 5;
    AUTO_CREATE_USER_ACCESS_DATA = 1;
    write_accounts({{0, "alice"}, {1, "bob"}});
    db_util_tr140_conf_record_new_sn("S", 2);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                                "USBMGR.0.ENABLE.0=1",
                                "USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0",
                                "USBMGR.0.USER_ACCESS.0.PERMISSIONS.0=",
                                "USBMGR.0.USER_ACCESS.0.USERREFERENCE.1=StorageService.0.UserAccess.1",
                                "USBMGR.0.USER_ACCESS.0.PERMISSIONS.1=", "USBMGR.0.NAME.1=", "USBMGR.0.ENABLE.1=1",
                                "USBMGR.0.USER_ACCESS.1.USERREFERENCE.0=StorageService.0.UserAccess.0",
                                "USBMGR.0.USER_ACCESS.1.PERMISSIONS.0=",
                                "USBMGR.0.USER_ACCESS.1.USERREFERENCE.1=StorageService.0.UserAccess.1",
                                "USBMGR.0.USER_ACCESS.1.PERMISSIONS.1="}));
    EXPECT_EQ(seams.runner.texts(), (Lines{"orbcm_util cfg save"}));
    UserAccessInfo info{};
    EXPECT_EQ(db_util_get_user_access_info_by_index(1, 0, "sda2", &info), 0);
    EXPECT_STREQ(info.user_reference, "StorageService.0.UserAccess.1");
    EXPECT_EQ(info.permissions, -1);
}

TEST_F(UserAccessAutoCreate, NewDiskGetsNoEntriesWhenAutomaticCreationIsOff) {
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 5;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
    write_accounts({{0, "alice"}});
    db_util_tr140_conf_record_new_sn("S", 1);
    EXPECT_EQ(history(),
              (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1"}));
}

TEST_F(UserAccessAutoCreate, NewDiskGetsNoEntriesWhenThereAreNoAccounts) {
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 5;
    AUTO_CREATE_USER_ACCESS_DATA = 1;
    write_accounts({});
    db_util_tr140_conf_record_new_sn("S", 1);
    EXPECT_EQ(history(),
              (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1"}));
}
