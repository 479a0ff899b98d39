// The one command list: ids, payload sizes, handler names and flags.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "proto/commands.h"
#include "proto/payload.h"

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
        ASSERT_NE(info, nullptr) << (id);                           \
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
