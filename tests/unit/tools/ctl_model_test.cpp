// usbmgrctl's tree walk against a stand-in daemon, and the tree as text and JSON.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "db_util/str.h"
#include "proto/payload.h"
#include "tests/support/payload_bytes.h"
#include "tools/ctl_model.h"

using usbmgrctl::Node;

using testing_support::bytes_of;
using testing_support::cmd_of;

namespace {

// Answers the reads as a daemon with service 0 holding disk slot 0 (sda),
// volume slot 1 (sda1, two folders, user access 4 and 9) and Samba user 2.
struct StandInDaemon {
    std::vector<uint32_t> calls;
    uint32_t fail_on = 0;  // a command that fails on the bus

    int operator()(uint32_t id, std::vector<unsigned char>& p) {
        calls.push_back(id);
        if (id == fail_on) return 4;
        switch (id) {
            case 15: {
                auto c = cmd_of<CmdStorageService>(p);
                if (c.service < 0 || c.service > 1) {
                    c.status = -1;
                } else if (c.service == 0) {
                    c.Enable = 1;
                    c.PhysicalMediumNumberOfEntries = 1;
                    c.LogicalVolumeNumberOfEntries = 1;
                    c.UserAccountNumberOfEntries = 1;
                }
                p = bytes_of(c);
                return 0;
            }
            case 16: {
                auto c = cmd_of<CmdStorageCapabilities>(p);
                std::strcpy(c.SupportedNetworkProtocols, "SMB");
                std::strcpy(c.SupportedFileSystemTypes, "ext4");
                p = bytes_of(c);
                return 0;
            }
            case 17:
            case 18:
                return 0;  // all zero
            case 19: {
                auto c = cmd_of<CmdUserAccount>(p);
                if (c.user != 2) {
                    c.status = -5;
                } else {
                    c.Enable = 1;
                    std::strcpy(c.Name, "alice");
                    std::strcpy(c.Password, "pw");
                }
                p = bytes_of(c);
                return 0;
            }
            case 20: {
                auto c = cmd_of<CmdPhysicalMedium>(p);
                if (c.slot != 0) {
                    c.status = -2;
                } else {
                    std::strcpy(c.Name, "sda");
                    std::strcpy(c.Status, "Online");
                    c.Capacity = 60;
                }
                p = bytes_of(c);
                return 0;
            }
            case 21: {
                auto c = cmd_of<CmdLogicalVolume>(p);
                if (c.slot != 1) {
                    c.status = -3;
                } else {
                    std::strcpy(c.Name, "sda1");
                    std::strcpy(c.FileSystem, "ext4");
                    c.FolderNumberOfEntries = 2;
                }
                p = bytes_of(c);
                return 0;
            }
            case 22: {
                auto c = cmd_of<CmdLogicalVolumeFolder>(p);
                if (c.folder >= 2) {
                    c.status = -4;
                } else {
                    usbmgr::copy_str(c.Name, c.folder == 0 ? "/disk/sda1" : "/disk/sda1/Music");
                    c.UserAccessNumberOfEntries = c.folder == 0 ? 2 : 0;
                }
                p = bytes_of(c);
                return 0;
            }
            case 23: {
                auto c = cmd_of<CmdStorageUserAccess>(p);
                if (c.number != 4 && c.number != 9) {
                    c.status = -6;
                } else {
                    c.tr140_index = static_cast<uint32_t>(c.number);
                    std::strcpy(c.UserReference, "StorageService.0.UserAccess.2");
                    c.Permissions = 3;
                }
                p = bytes_of(c);
                return 0;
            }
            default:
                return 4;
        }
    }
};

usbmgrctl::Call call_of(StandInDaemon& d) {
    return [&d](uint32_t id, std::vector<unsigned char>& p) { return d(id, p); };
}

}  // namespace

TEST(CtlModel, TreeWalkReadsDisksVolumesFoldersUserAccessAndUsers) {
    StandInDaemon d;
    Node tree;
    std::string error;
    ASSERT_TRUE(usbmgrctl::walk_tree(0, call_of(d), tree, error)) << error;
    EXPECT_EQ(usbmgrctl::render_tree_text(tree),
              "StorageService.0\n"
              "  Enable = 1\n"
              "  PhysicalMediumNumberOfEntries = 1\n"
              "  LogicalVolumeNumberOfEntries = 1\n"
              "  UserAccountNumberOfEntries = 1\n"
              "  Capabilities\n"
              "    FTPCapable = 0\n"
              "    SFTPCapable = 0\n"
              "    HTTPCapable = 0\n"
              "    HTTPSCapable = 0\n"
              "    HTTPWritable = 0\n"
              "    SupportedNetworkProtocols = \"SMB\"\n"
              "    SupportedFileSystemTypes = \"ext4\"\n"
              "    VolumeEncryptionCapable = 0\n"
              "  NetInfo\n"
              "    HostName = \"\"\n"
              "    DomainName = \"\"\n"
              "  NetworkServer\n"
              "    word1 = 0\n"
              "    AFPEnable = 0\n"
              "    NFSEnable = 0\n"
              "    SMBEnable = 0\n"
              "    NetworkProtocolAuthReq = 0\n"
              "  PhysicalMedium.0\n"
              "    Name = \"sda\"\n"
              "    Vendor = \"\"\n"
              "    Model = \"\"\n"
              "    SerialNumber = \"\"\n"
              "    FirmwareVersion = \"\"\n"
              "    ConnectionType = \"\"\n"
              "    Removable = 0\n"
              "    Capacity = 60\n"
              "    Status = \"Online\"\n"
              "    SMARTCapable = 0\n"
              "    HotSwappable = 0\n"
              "  LogicalVolume.1\n"
              "    Name = \"sda1\"\n"
              "    Status = \"\"\n"
              "    Enable = 0\n"
              "    PhysicalReference = \"\"\n"
              "    FileSystem = \"ext4\"\n"
              "    Capacity = 0\n"
              "    UsedSpace = 0\n"
              "    Encrypted = 0\n"
              "    FolderNumberOfEntries = 2\n"
              "    Folder.0\n"
              "      Name = \"/disk/sda1\"\n"
              "      Enable = 0\n"
              "      UserAccountAccess = 0\n"
              "      UserAccessNumberOfEntries = 2\n"
              "      UserAccess.4\n"
              "        tr140_index = 4\n"
              "        UserReference = \"StorageService.0.UserAccess.2\"\n"
              "        Permissions = 3\n"
              "      UserAccess.9\n"
              "        tr140_index = 9\n"
              "        UserReference = \"StorageService.0.UserAccess.2\"\n"
              "        Permissions = 3\n"
              "    Folder.1\n"
              "      Name = \"/disk/sda1/Music\"\n"
              "      Enable = 0\n"
              "      UserAccountAccess = 0\n"
              "      UserAccessNumberOfEntries = 0\n"
              "  UserAccount.2\n"
              "    Enable = 1\n"
              "    Name = \"alice\"\n"
              "    Password = \"pw\"\n");
}

TEST(CtlModel, TreeWalkStopsAskingForUserAccessOnceTheCountIsFound) {
    StandInDaemon d;
    Node tree;
    std::string error;
    ASSERT_TRUE(usbmgrctl::walk_tree(0, call_of(d), tree, error));
    // Numbers 0 to 9 are tried, up to the second record (9).
    EXPECT_EQ(std::count(d.calls.begin(), d.calls.end(), 23u), 10);
    EXPECT_EQ(std::count(d.calls.begin(), d.calls.end(), 20u), 25);
    EXPECT_EQ(std::count(d.calls.begin(), d.calls.end(), 21u), 25);
    EXPECT_EQ(std::count(d.calls.begin(), d.calls.end(), 19u), 25);
}

TEST(CtlModel, TreeOfAServiceOutOfRangeHoldsOnlyItsStatus) {
    StandInDaemon d;
    Node tree;
    std::string error;
    ASSERT_TRUE(usbmgrctl::walk_tree(2, call_of(d), tree, error));
    EXPECT_EQ(usbmgrctl::render_tree_text(tree), "StorageService.2\n  status = -1 (service number out of range)\n");
    EXPECT_EQ(d.calls, std::vector<uint32_t>{15});
}

TEST(CtlModel, TreeOfServiceOneReadsNoUsers) {
    StandInDaemon d;
    Node tree;
    std::string error;
    ASSERT_TRUE(usbmgrctl::walk_tree(1, call_of(d), tree, error));
    EXPECT_EQ(std::count(d.calls.begin(), d.calls.end(), 19u), 0);
}

TEST(CtlModel, TreeWalkStopsAtTheFirstBusFailureAndNamesTheCommand) {
    StandInDaemon d;
    d.fail_on = 22;
    Node tree;
    std::string error;
    EXPECT_FALSE(usbmgrctl::walk_tree(0, call_of(d), tree, error));
    EXPECT_EQ(error, "command 22 (usbmgr_cmd_get_logical_volume_folder) failed on the bus: 4 NO_MEM");
    EXPECT_EQ(d.calls.back(), 22u);
}

TEST(CtlModel, TreeJsonNestsEveryObjectUnderItsName) {
    Node tree{"StorageService.0", {{"Enable", false, 1, {}}}, {}};
    tree.children.push_back(Node{"LogicalVolume.1", {{"Name", true, 0, "sda1"}}, {Node{"Folder.0", {}, {}}}});
    EXPECT_EQ(usbmgrctl::render_tree_json(tree),
              "{\"StorageService.0\":{\"Enable\":1,\"LogicalVolume.1\":{\"Name\":\"sda1\",\"Folder.0\":{}}}}");
}
