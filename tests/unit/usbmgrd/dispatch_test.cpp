// The typed dispatch: the entry log line, and the copy of the payload in
// and out bounded by the declared size and the length the bus gives.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "fixture.h"
#include "platform_fake.h"
#include "proto/commands.h"
#include "usbmgrd/usbmgrd.h"

namespace {
using CommandDispatch = testing_support::DaemonTest;
}  // namespace

TEST_F(CommandDispatch, EveryCommandButTwelveLogsCmdAndItsNameAtDebugUnderTheDaemonModule) {
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    for (const auto& c : usbmgr_command_info) {
        fake::bus().log.clear();
        std::vector<uint8_t> p;
        ASSERT_EQ(fake::call_command(c.id, p), ORBIIL_OK);
        if (c.id == 12) {
            EXPECT_TRUE(fake::bus().log.empty());
            continue;
        }
        // The entry line comes first; a handler's own work may log after it.
        ASSERT_GE(fake::bus().log.size(), 1u) << c.id;
        EXPECT_EQ(fake::bus().log[0].text, std::string("cmd - ") + c.name);
        EXPECT_EQ(fake::bus().log[0].level, 4);
        EXPECT_EQ(fake::bus().log[0].module, "usbmgrd.c");
    }
}

TEST_F(CommandDispatch, ShorterLengthThanDeclaredReadsAndWritesOnlyThoseBytes) {
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

TEST_F(CommandDispatch, LongerLengthThanDeclaredWritesOnlyTheDeclaredSize) {
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

TEST_F(CommandDispatch, NullPayloadStillRunsTheHandlerAndLogsItsEntryLine) {
    EXPECT_EQ(usbmgr_cmd_table[0].handler(nullptr, usbmgr_cmd_table[0].id, usbmgr_cmd_table[0].size, nullptr), 0);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"cmd - usbmgr_cmd_get_minidlna_conf"});
}
