// The bus binding: the command and event tables, the events the daemon
// declares and subscribes to, bus code names in its log lines and the
// notification it sends.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "fixture.h"
#include "platform_fake.h"
#include "proto/commands.h"
#include "usbmgrd/usbmgrd.h"

namespace {
using BusBinding = testing_support::DaemonTest;
}  // namespace

TEST_F(BusBinding, CommandTableServesIdsTwoToThirtySixExceptThirteenInOrder) {
    std::vector<uint32_t> ids;
    for (const auto& e : usbmgr_cmd_table) ids.push_back(e.id);
    std::vector<uint32_t> expected;
    for (uint32_t id = 2; id <= 36; ++id)
        if (id != 13) expected.push_back(id);
    EXPECT_EQ(ids, expected);
}

TEST_F(BusBinding, CommandTableRowsAreTheCommandListRows) {
    for (int i = 0; i < USBMGR_COMMAND_COUNT; ++i) {
        EXPECT_EQ(usbmgr_cmd_table[i].id, usbmgr_command_info[i].id);
        EXPECT_EQ(usbmgr_cmd_table[i].size, usbmgr_command_info[i].size) << usbmgr_command_info[i].id;
        EXPECT_NE(usbmgr_cmd_table[i].handler, nullptr);
    }
}

TEST_F(BusBinding, DeclaredSizesAreThoseOfTheBusMapping) {
    const std::map<uint32_t, uint32_t> published{
        {2, 868}, {3, 748}, {4, 4},    {5, 192},  {6, 192},  {7, 8},    {8, 4},    {9, 140},  {10, 136},
        {11, 136}, {12, 136}, {14, 4}, {15, 24},  {16, 104}, {17, 328}, {18, 28},  {19, 144}, {20, 444},
        {21, 432}, {22, 96}, {23, 280}, {24, 8},  {25, 328}, {26, 12},  {27, 136}, {28, 136}, {29, 136},
        {30, 76},  {31, 80}, {32, 96},  {33, 80}, {34, 80},  {35, 280}, {36, 12}};
    for (const auto& e : usbmgr_cmd_table) {
        EXPECT_EQ(e.size, published.at(e.id)) << e.id;
        const UsbmgrCommandInfo* info = usbmgr_command_find(e.id);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->size, e.size) << e.id;
    }
}

TEST_F(BusBinding, Ids13And37AnswerUnknownCmd) {
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    std::vector<uint8_t> p(4, 0);
    EXPECT_EQ(fake::call_command(13, p), ORBIIL_UNKNOWN_CMD);
    p.assign(4, 0);
    EXPECT_EQ(fake::call_command(37, p), ORBIIL_UNKNOWN_CMD);
    EXPECT_EQ(usbmgr_command_find(13), nullptr);
    EXPECT_EQ(usbmgr_command_find(37), nullptr);
}

TEST_F(BusBinding, EventTableHandlesFourHotPlugEventsOfDusb) {
    std::vector<uint32_t> ids;
    for (const auto& e : usbmgr_evt_table) {
        EXPECT_STREQ(e.src, "DUSB_DMON");
        ids.push_back(e.id);
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{0, 6, 7, 13}));
}

TEST_F(BusBinding, FailedEventDeclarationStopsAndNamesTheEvent) {
    fake::bus().issue_fail_at = 2;
    fake::bus().issue_code = ORBIIL_CONFLICT_ID;
    EXPECT_EQ(usbmgr_issue_event(), 0);
    EXPECT_EQ(fake::bus().issued_events, (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(fake::log_texts(),
              std::vector<std::string>{"fail to OrbIilIssueEvent() - USBMGR_EVT_SAMBA_RELOAD_CONF , ret = CONFLICT_ID"});
    EXPECT_EQ(fake::bus().log.at(0).level, 1);
}

TEST_F(BusBinding, FailedSubscriptionStopsAndNamesTheEvent) {
    fake::bus().subscribe_fail_at = 3;
    fake::bus().subscribe_code = ORBIIL_TIMEOUT;
    EXPECT_EQ(usbmgr_subscribe_event(), 0);
    EXPECT_EQ(fake::bus().subscriptions.size(), 3u);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{
                                     "fail to OrbIilSubscribeEvent() - DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE, ret = TIMEOUT"});
    EXPECT_EQ(fake::bus().log.at(0).level, 0);
}

TEST_F(BusBinding, NotificationSendsTheKindAsEventZero) {
    EXPECT_EQ(usbmgr_notify_tr140_event(USBMGR_TR140_REMOVE_STORAGE), 0);
    EXPECT_EQ(fake::sent_kinds(), std::vector<uint32_t>{1});
}

TEST_F(BusBinding, FailedNotificationIsLoggedUnderTheExecuteNameAndDropped) {
    fake::bus().notify_code = 22;
    EXPECT_EQ(usbmgr_notify_tr140_event(USBMGR_TR140_ADD_STORAGE), 0);
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"fail to OrbIilExecute(), err = Unknown"});
}

TEST_F(BusBinding, CommandFourteenAnswersTheNumberOfServices) {
    StorageServiceNumberOfEntries = 3;
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    std::vector<uint8_t> p;
    EXPECT_EQ(fake::call_command(14, p), ORBIIL_OK);
    ASSERT_EQ(p.size(), 4u);
    int32_t n;
    std::memcpy(&n, p.data(), 4);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"cmd - usbmgr_cmd_get_number_of_storage_servive"});
}

TEST_F(BusBinding, PayloadLongerThanDeclaredIsRefusedWithoutCallingTheHandler) {
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    std::vector<uint8_t> p(5, 0xff);
    EXPECT_EQ(fake::call_command(14, p), ORBIIL_MISMATCH_CMD_LEN);
    EXPECT_TRUE(fake::log_texts().empty());
}

