// The command list, the command and event tables, the typed dispatch, bus
// code names and the notification.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>

#include "db_util/db_util.h"
#include "platform_fake.h"
#include "proto/commands.h"
#include "test_support.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::Seams;

TEST(BusBinding, CommandTableServesIdsTwoToThirtySixExceptThirteenInOrder) {
    std::vector<uint32_t> ids;
    for (const auto& e : usbmgr_cmd_table) ids.push_back(e.id);
    std::vector<uint32_t> expected;
    for (uint32_t id = 2; id <= 36; ++id)
        if (id != 13) expected.push_back(id);
    EXPECT_EQ(ids, expected);
}

TEST(CommandList, IdsAscendFromTwoToThirtySixWithoutThirteen) {
    std::vector<uint32_t> ids;
    for (const auto& c : usbmgr_command_info) ids.push_back(c.id);
    std::vector<uint32_t> expected;
    for (uint32_t id = 2; id <= 36; ++id)
        if (id != 13) expected.push_back(id);
    EXPECT_EQ(ids, expected);
    EXPECT_EQ(USBMGR_COMMAND_COUNT, 34);
}

TEST(CommandList, EveryDeclaredSizeIsTheSizeOfItsPayloadStruct) {
    int rows = 0;
#define USBMGR_COMMAND(id, handler, payload, flags)                 \
    {                                                               \
        ++rows;                                                     \
        const UsbmgrCommandInfo* info = usbmgr_command_find(id);    \
        ASSERT_NE(info, nullptr) << id;                             \
        EXPECT_EQ(info->size, sizeof(payload)) << #handler;         \
        EXPECT_STREQ(info->name, #handler);                         \
    }
#include "proto/commands.def"
    EXPECT_EQ(rows, USBMGR_COMMAND_COUNT);
}

TEST(CommandList, HandlerNamesAreUniqueAndNamedAfterTheirCommand) {
    std::set<std::string> names;
    for (const auto& c : usbmgr_command_info) {
        EXPECT_TRUE(names.insert(c.name).second) << c.name;
        EXPECT_EQ(std::string(c.name).rfind("usbmgr_cmd_", 0), 0u) << c.name;
    }
}

TEST(CommandList, OnlyCommandTwelveWritesNoEntryLine) {
    for (const auto& c : usbmgr_command_info)
        EXPECT_EQ(c.flags == USBMGR_CMD_SILENT, c.id == 12) << c.id;
}

TEST(CommandList, CommandFourReadsFourBytesAndCommandSevenSetsEight) {
    EXPECT_EQ(usbmgr_command_find(4)->size, sizeof(CmdGetUsbSerialEnable));
    EXPECT_EQ(usbmgr_command_find(7)->size, sizeof(CmdSetUsbSerialEnable));
    EXPECT_EQ(sizeof(CmdGetUsbSerialEnable), 4u);
    EXPECT_EQ(sizeof(CmdSetUsbSerialEnable), 8u);
}

TEST(BusBinding, CommandTableRowsAreTheCommandListRows) {
    for (int i = 0; i < USBMGR_COMMAND_COUNT; ++i) {
        EXPECT_EQ(usbmgr_cmd_table[i].id, usbmgr_command_info[i].id);
        EXPECT_EQ(usbmgr_cmd_table[i].size, usbmgr_command_info[i].size) << usbmgr_command_info[i].id;
        EXPECT_NE(usbmgr_cmd_table[i].handler, nullptr);
    }
}

TEST(BusBinding, DeclaredSizesAreThoseOfTheBusMapping) {
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

TEST(BusBinding, Ids13And37AnswerUnknownCmd) {
    Seams seams;
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    std::vector<uint8_t> p(4, 0);
    EXPECT_EQ(fake::call_command(13, p), ORBIIL_UNKNOWN_CMD);
    p.assign(4, 0);
    EXPECT_EQ(fake::call_command(37, p), ORBIIL_UNKNOWN_CMD);
    EXPECT_EQ(usbmgr_command_find(13), nullptr);
    EXPECT_EQ(usbmgr_command_find(37), nullptr);
}

TEST(BusBinding, ErrorCode22AndAboveIsLoggedAsUnknown) {
    EXPECT_STREQ(usbmgr_iil_err_str(22), "Unknown");
    EXPECT_STREQ(usbmgr_iil_err_str(1000), "Unknown");
    EXPECT_STREQ(usbmgr_iil_err_str(-1), "Unknown");
    const char* names[] = {"OK",          "ERR",          "OVERSIZE",      "BAD_PARAM",  "NO_MEM",
                           "TX_FAIL",     "RX_FAIL",      "TIMEOUT",       "UNKNOWN_SRC_ID", "UNKNOWN_DST_ID",
                           "UNKNOWN_COMM", "MISMATCH_COMM", "UNSUPPORT",   "UNKNOWN_CMD", "BAD_CMD",
                           "BAD_RET",     "MISMATCH_CMD_LEN", "UNKNOWN_EVT", "BAD_EVT",  "MISMATCH_EVT_LEN",
                           "CONFLICT_ID", "BUSY"};
    for (int i = 0; i < 22; ++i) EXPECT_STREQ(usbmgr_iil_err_str(i), names[i]);
}

TEST(BusBinding, EventTableHandlesFourHotPlugEventsOfDusb) {
    std::vector<uint32_t> ids;
    for (const auto& e : usbmgr_evt_table) {
        EXPECT_STREQ(e.src, "DUSB_DMON");
        ids.push_back(e.id);
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{0, 6, 7, 13}));
}

TEST(BusBinding, FailedEventDeclarationStopsAndNamesTheEvent) {
    Seams seams;
    fake::bus().issue_fail_at = 2;
    fake::bus().issue_code = ORBIIL_CONFLICT_ID;
    EXPECT_EQ(usbmgr_issue_event(), 0);
    EXPECT_EQ(fake::bus().issued_events, (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(fake::log_texts(),
              std::vector<std::string>{"fail to OrbIilIssueEvent() - USBMGR_EVT_SAMBA_RELOAD_CONF , ret = CONFLICT_ID"});
    EXPECT_EQ(fake::bus().log.at(0).level, 1);
}

TEST(BusBinding, FailedSubscriptionStopsAndNamesTheEvent) {
    Seams seams;
    fake::bus().subscribe_fail_at = 3;
    fake::bus().subscribe_code = ORBIIL_TIMEOUT;
    EXPECT_EQ(usbmgr_subscribe_event(), 0);
    EXPECT_EQ(fake::bus().subscriptions.size(), 3u);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{
                                     "fail to OrbIilSubscribeEvent() - DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE, ret = TIMEOUT"});
    EXPECT_EQ(fake::bus().log.at(0).level, 0);
}

TEST(BusBinding, NotificationSendsTheKindAsEventZero) {
    Seams seams;
    EXPECT_EQ(usbmgr_notify_tr140_event(USBMGR_TR140_REMOVE_STORAGE), 0);
    EXPECT_EQ(fake::sent_kinds(), std::vector<uint32_t>{1});
}

TEST(BusBinding, FailedNotificationIsLoggedUnderTheExecuteNameAndDropped) {
    Seams seams;
    fake::bus().notify_code = 22;
    EXPECT_EQ(usbmgr_notify_tr140_event(USBMGR_TR140_ADD_STORAGE), 0);
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"fail to OrbIilExecute(), err = Unknown"});
}

TEST(BusBinding, CommandFourteenAnswersTheNumberOfServices) {
    Seams seams;
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

TEST(BusBinding, PayloadLongerThanDeclaredIsRefusedWithoutCallingTheHandler) {
    Seams seams;
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    std::vector<uint8_t> p(5, 0xff);
    EXPECT_EQ(fake::call_command(14, p), ORBIIL_MISMATCH_CMD_LEN);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(BusBinding, CommandsOfLaterWorkAnswerNothingAndChangeNothing) {
    Seams seams;
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    for (const auto& e : usbmgr_cmd_table) {
        if (e.id == 14) continue;
        std::vector<uint8_t> p(e.size, 0xa5);
        EXPECT_EQ(fake::call_command(e.id, p), ORBIIL_OK);
        EXPECT_EQ(p, std::vector<uint8_t>(e.size, 0xa5)) << e.id;
    }
    // Every handler but 12 logs its entry line.
    EXPECT_EQ(fake::log_texts().size(), 32u);
    EXPECT_TRUE(fake::logged("cmd - usbmgr_cmd_set_storage_safe_remove"));
}

TEST(CommandDispatch, EveryCommandButTwelveLogsCmdAndItsNameAtDebugUnderTheDaemonModule) {
    Seams seams;
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    for (const auto& c : usbmgr_command_info) {
        fake::bus().log.clear();
        std::vector<uint8_t> p;
        ASSERT_EQ(fake::call_command(c.id, p), ORBIIL_OK);
        if (c.id == 12) {
            EXPECT_TRUE(fake::bus().log.empty());
            continue;
        }
        ASSERT_EQ(fake::bus().log.size(), 1u) << c.id;
        EXPECT_EQ(fake::bus().log[0].text, std::string("cmd - ") + c.name);
        EXPECT_EQ(fake::bus().log[0].level, 4);
        EXPECT_EQ(fake::bus().log[0].module, "usbmgrd.c");
    }
}

TEST(CommandDispatch, ShorterLengthThanDeclaredReadsAndWritesOnlyThoseBytes) {
    Seams seams;
    StorageServiceNumberOfEntries = 0x01020304;
    const OrbIilCmdEntry* entry = nullptr;
    for (const auto& e : usbmgr_cmd_table)
        if (e.id == 14) entry = &e;
    ASSERT_NE(entry, nullptr);
    std::vector<uint8_t> buf(8, 0xa5);
    EXPECT_EQ(entry->handler(nullptr, 14, 2, buf.data()), 0);
    int32_t n = 0x01020304;
    std::vector<uint8_t> expected(8, 0xa5);
    std::memcpy(expected.data(), &n, 2);
    EXPECT_EQ(buf, expected);
}

TEST(CommandDispatch, LongerLengthThanDeclaredWritesOnlyTheDeclaredSize) {
    Seams seams;
    StorageServiceNumberOfEntries = 2;
    const OrbIilCmdEntry* entry = nullptr;
    for (const auto& e : usbmgr_cmd_table)
        if (e.id == 14) entry = &e;
    ASSERT_NE(entry, nullptr);
    std::vector<uint8_t> buf(64, 0xa5);
    EXPECT_EQ(entry->handler(nullptr, 14, static_cast<uint32_t>(buf.size()), buf.data()), 0);
    std::vector<uint8_t> expected(64, 0xa5);
    int32_t n = 2;
    std::memcpy(expected.data(), &n, 4);
    EXPECT_EQ(buf, expected);
}

TEST(CommandDispatch, NullPayloadStillRunsTheHandlerAndLogsItsEntryLine) {
    Seams seams;
    EXPECT_EQ(usbmgr_cmd_table[0].handler(nullptr, usbmgr_cmd_table[0].id, usbmgr_cmd_table[0].size, nullptr), 0);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"cmd - usbmgr_cmd_get_minidlna_conf"});
}
