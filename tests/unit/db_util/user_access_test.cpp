#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "platform_fake.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;

[[maybe_unused]] const std::string kMv = "mv /tmp/tr140.temp /var/config/tr140.conf";

void write_lines(const std::string& path, const Lines& lines) {
    std::string text;
    for (const auto& l : lines) text += l + "\n";
    testing_support::write_file(path, text);
}

void write_history(const Lines& lines) { write_lines(TR140_CONF_PATH, lines); }
[[maybe_unused]] Lines history() { return testing_support::read_lines(TR140_CONF_PATH); }

// Settings with the named accounts in the given slots.
[[maybe_unused]] void write_accounts(const std::vector<std::pair<int, std::string>>& accounts) {
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

// ---------------------------------------------------------------------------
// Reading entries

TEST(UserAccess, EntriesZeroAndTwoCountTwo) {
    testing_support::Seams seams;
    write_history(record_with_entries_zero_and_two());
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda1"), 2);
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda2"), 0);
    EXPECT_EQ(db_util_get_number_of_user_access(1, "sda1"), 0);
}

TEST(UserAccess, EntriesZeroAndTwoLeaveEntryOneFree) {
    testing_support::Seams seams;
    write_history(record_with_entries_zero_and_two());
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), 1);
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda2"), 0);
}

TEST(UserAccess, NoHistoryFileCountsNoneAndOffersEntryZero) {
    testing_support::Seams seams;
    EXPECT_EQ(db_util_get_number_of_user_access(0, "sda1"), 0);
    EXPECT_EQ(dp_util_get_tr140_useraccess_free_item(0, "sda1"), 0);
}

TEST(UserAccess, AllTwentySixEntriesUsedLeaveNoFreeEntry) {
    testing_support::Seams seams;
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

TEST(UserAccess, ReadingAnEntryFillsReferenceAndPermissionsAndLeavesTheLeadingField) {
    testing_support::Seams seams;
    write_history(record_with_entries_zero_and_two());
    UserAccessInfo info{};
    info.index = 42;
    EXPECT_EQ(db_util_get_user_access_info_by_index(2, 0, "sda1", &info), 0);
    EXPECT_EQ(info.index, 42);
    EXPECT_STREQ(info.user_reference, "StorageService.0.UserAccess.5");
    EXPECT_EQ(info.permissions, 7);
}

TEST(UserAccess, ReadingAnAbsentEntryLeavesTheRecordAlone) {
    testing_support::Seams seams;
    write_history(record_with_entries_zero_and_two());
    UserAccessInfo info{};
    std::strcpy(info.user_reference, "untouched");
    info.permissions = 9;
    EXPECT_EQ(db_util_get_user_access_info_by_index(1, 0, "sda1", &info), -1);
    EXPECT_STREQ(info.user_reference, "untouched");
    EXPECT_EQ(info.permissions, 9);
}

TEST(UserAccess, AutomaticallyCreatedEntriesReadBackWithPermissionsMinusOne) {
    testing_support::Seams seams;
    write_history({"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1",
                   "USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.0",
                   "USBMGR.0.USER_ACCESS.0.PERMISSIONS.0="});
    UserAccessInfo info{};
    EXPECT_EQ(db_util_get_user_access_info_by_index(0, 0, "sda1", &info), 0);
    EXPECT_STREQ(info.user_reference, "StorageService.0.UserAccess.0");
    EXPECT_EQ(info.permissions, -1);
}

TEST(UserAccess, VolumeNamesOutsideVolumesZeroToTwentyFourAreAnsweredWithoutReading) {
    testing_support::Seams seams;
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
