#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "platform_fake.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;

void write_lines(const std::string& path, const Lines& lines) {
    std::string text;
    for (const auto& l : lines) text += l + "\n";
    testing_support::write_file(path, text);
}

Lines slot_lines(int slot, const std::string& name, const std::string& password, int enable) {
    const std::string n = std::to_string(slot);
    return {"USBMGR.SAMBA.USER_NAME." + n + "=" + name, "USBMGR.SAMBA.USER_PASSWORD." + n + "=" + password,
            "USBMGR.SAMBA.USER_ENABLE." + n + "=" + std::to_string(enable)};
}

Lines join(std::initializer_list<Lines> parts) {
    Lines out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reading slots

TEST(SambaUserSlots, CountsSlotsInUseAcrossGaps) {
    testing_support::Seams seams;
    write_lines(USBMGR_CONF_PATH, join({{"USBMGR.SAMBA.ENABLE=1"}, slot_lines(0, "alice", "a", 1),
                                        slot_lines(3, "carol", "c", 0), slot_lines(24, "zed", "z", 1)}));
    EXPECT_EQ(app_util_get_number_of_samba_users(), 3);
}

TEST(SambaUserSlots, NoSettingsFileCountsNoUsers) {
    testing_support::Seams seams;
    EXPECT_EQ(app_util_get_number_of_samba_users(), 0);
}

TEST(SambaUserSlots, UserByIndexCountsOnlySlotsInUse) {
    testing_support::Seams seams;
    write_lines(USBMGR_CONF_PATH, join({slot_lines(0, "alice", "apw", 1), slot_lines(3, "carol", "cpw", 0)}));
    SambaUserInfo user{};
    EXPECT_EQ(app_util_get_samba_user_by_index(1, &user), 0);
    EXPECT_STREQ(user.name, "carol");
    EXPECT_STREQ(user.password, "cpw");
    EXPECT_EQ(user.enable, 0u);
    EXPECT_EQ(app_util_get_samba_user_by_index(0, &user), 0);
    EXPECT_STREQ(user.name, "alice");
    EXPECT_STREQ(user.password, "apw");
    EXPECT_EQ(user.enable, 1u);
}

TEST(SambaUserSlots, UserByIndexPastTheLastFillsNothingAndAnswersMinusOneWhenSlotTwentyFourIsFree) {
    testing_support::Seams seams;
    write_lines(USBMGR_CONF_PATH, slot_lines(0, "alice", "apw", 1));
    SambaUserInfo user{};
    std::strcpy(user.name, "keep");
    EXPECT_EQ(app_util_get_samba_user_by_index(1, &user), -1);
    EXPECT_STREQ(user.name, "keep");
}

TEST(SambaUserSlots, UserByIndexPastTheLastAnswersZeroWhenSlotTwentyFourIsInUse) {
    testing_support::Seams seams;
    write_lines(USBMGR_CONF_PATH, slot_lines(24, "zed", "zpw", 1));
    SambaUserInfo user{};
    std::strcpy(user.name, "keep");
    EXPECT_EQ(app_util_get_samba_user_by_index(1, &user), 0);
    EXPECT_STREQ(user.name, "keep");
}

TEST(SambaUserSlots, UserWithoutPasswordLineAnswersMinusOneWithNameFilled) {
    testing_support::Seams seams;
    write_lines(USBMGR_CONF_PATH, {"USBMGR.SAMBA.USER_NAME.0=alice", "USBMGR.SAMBA.USER_ENABLE.0=1"});
    SambaUserInfo user{};
    std::strcpy(user.password, "keep");
    EXPECT_EQ(app_util_get_samba_user_by_index(0, &user), -1);
    EXPECT_STREQ(user.name, "alice");
    EXPECT_EQ(user.enable, 1u);
}
