// Device nodes, mounting and unmounting, as seen through the command runner.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "platform_fake.h"
#include "test_support.h"

using testing_support::Seams;

namespace {

void use_mount_root() { usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk"); }

// Answers "mount | grep TEXT" as grep would, from the folders that "mount
// -v -t auto" was asked to mount and "umount" has not freed: every mount
// line that holds TEXT anywhere, so /tmp/disk/sda1 also finds sda10's line.
struct MountTable {
    std::set<std::string> mounted;
    std::string respond(const std::string& text) {
        static const std::string kMount = "mount -v -t auto -o nosuid,nodev ";
        static const std::string kUmount = "umount ";
        static const std::string kDetach = "umount -l ";
        if (text.rfind(kDetach, 0) == 0) {
            mounted.erase(text.substr(kDetach.size()));
            return "";
        }
        if (text.rfind(kMount, 0) == 0) {
            std::string rest = text.substr(kMount.size());
            mounted.insert(rest.substr(rest.find(' ') + 1));
            return "";
        }
        if (text.rfind(kUmount, 0) == 0) {
            mounted.erase(text.substr(kUmount.size()));
            return "";
        }
        static const std::string kCheck = "mount | grep ";
        if (text.rfind(kCheck, 0) == 0) {
            std::string pattern = text.substr(kCheck.size(), text.find(' ', kCheck.size()) - kCheck.size());
            std::string out;
            for (const auto& folder : mounted) {
                std::string device = "/var/dev/" + folder.substr(folder.rfind('/') + 1);
                std::string line = device + " on " + folder + " type ext4 (rw)\n";
                if (line.find(pattern) != std::string::npos) out += line;
            }
            return out;
        }
        return "";
    }
};

bool ran(const Seams& seams, const std::string& text) {
    auto texts = seams.runner.texts();
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool dir_is_empty(const std::string& dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    return rmdir(dir.c_str()) == 0 && mkdir(dir.c_str(), 0775) == 0;
}

}  // namespace

TEST(DeviceNames, LettersFollowedByDigitsAreAccepted) {
    EXPECT_TRUE(disk_util_device_name_ok("sda"));
    EXPECT_TRUE(disk_util_device_name_ok("sda1"));
    EXPECT_TRUE(disk_util_device_name_ok("sdb12"));
    EXPECT_TRUE(disk_util_device_name_ok("ttyUSB0"));
    EXPECT_TRUE(disk_util_device_name_ok(std::string(31, 'a').c_str()));
}

TEST(DeviceNames, ShellSyntaxPathsEmptyAndLeadingDigitsAreRefused) {
    EXPECT_FALSE(disk_util_device_name_ok("sda;rm"));
    EXPECT_FALSE(disk_util_device_name_ok("../x"));
    EXPECT_FALSE(disk_util_device_name_ok(""));
    EXPECT_FALSE(disk_util_device_name_ok(nullptr));
    EXPECT_FALSE(disk_util_device_name_ok("1sda"));
    EXPECT_FALSE(disk_util_device_name_ok("sda1a"));
    EXPECT_FALSE(disk_util_device_name_ok("sda 1"));
    EXPECT_FALSE(disk_util_device_name_ok(std::string(32, 'a').c_str()));
}

TEST(DeviceNames, ListsAreNamesSeparatedByCommasAndEmptyPiecesAreSkippedAsTheSplitSkipsThem) {
    EXPECT_TRUE(disk_util_device_list_ok("sda"));
    EXPECT_TRUE(disk_util_device_list_ok("sda,sda1,sda2"));
    EXPECT_TRUE(disk_util_device_list_ok("sda,"));
    EXPECT_TRUE(disk_util_device_list_ok(",sda"));
    EXPECT_TRUE(disk_util_device_list_ok("sda,,sda1"));
    EXPECT_FALSE(disk_util_device_list_ok(""));
    EXPECT_FALSE(disk_util_device_list_ok(","));
    EXPECT_FALSE(disk_util_device_list_ok(",,"));
    EXPECT_FALSE(disk_util_device_list_ok(nullptr));
    EXPECT_FALSE(disk_util_device_list_ok("sda,sda1;touch /tmp/pwned"));
    EXPECT_FALSE(disk_util_device_list_ok("sda,sda1,"  "sd a"));
    EXPECT_FALSE(disk_util_device_list_ok("sda\r\n"));
    EXPECT_FALSE(disk_util_device_list_ok(("sda," + std::string(32, 'a')).c_str()));
}

TEST(DeviceNames, BlockNamesAreSdOneLetterAndAPartitionFromOneToFifteen) {
    for (const char* ok : {"sda", "sdz", "sda1", "sdb9", "sda10", "sdz15"})
        EXPECT_TRUE(disk_util_block_name_ok(ok)) << ok;
    for (const char* bad : {"sdA", "sd1", "sd", "sdaa", "sda0", "sda01", "sda16", "sda99", "sda100", "sdz2147483647",
                            "sda99999999999999999999", "hda1", "ttyUSB0", "sda1a", ""})
        EXPECT_FALSE(disk_util_block_name_ok(bad)) << bad;
    EXPECT_FALSE(disk_util_block_name_ok(nullptr));
}

TEST(DeviceNames, SerialNamesAreTtyUsbAndAMinorNumber) {
    for (const char* ok : {"ttyUSB0", "ttyUSB2", "ttyUSB10", "ttyUSB1048575"})
        EXPECT_TRUE(disk_util_serial_name_ok(ok)) << ok;
    for (const char* bad : {"ttyUSB", "ttyUSB01", "ttyUSB1048576", "ttyUSB99999999999999999999", "ttyACM0", "sda1",
                            "ttyUSB1x"})
        EXPECT_FALSE(disk_util_serial_name_ok(bad)) << bad;
}

TEST(Folders, DeviceFolderThatExistsReportsSeventeen) {
    Seams seams;
    EXPECT_EQ(disk_util_create_dev_folder(), 17);
}

TEST(Folders, MountRootIsCreatedOnceThenReportsSeventeen) {
    Seams seams;
    use_mount_root();
    EXPECT_EQ(disk_util_create_root_folder(), 0);
    EXPECT_EQ(disk_util_create_root_folder(), 17);
}

TEST(Mounting, DiskWithTwoPartitionsGetsThreeNodesAndBothPartitionsMounted) {
    Seams seams;
    use_mount_root();
    MountTable table;
    seams.runner.respond = [&](const std::string& t) { return table.respond(t); };

    char list[] = "sda,sda1,sda2";
    disk_util_mount_storage(list);

    std::vector<std::string> expected = {
        "ls /var/dev | grep sda 2>&1",
        "mknod /var/dev/sda b 8 0",
        "ls /var/dev | grep sda1 2>&1",
        "mknod /var/dev/sda1 b 8 1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "mount -v -t auto -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "ls /var/dev | grep sda2 2>&1",
        "mknod /var/dev/sda2 b 8 2",
        "mount | grep /tmp/disk/sda2 2>&1",
        "mount -v -t auto -o nosuid,nodev /var/dev/sda2 /tmp/disk/sda2",
        "mount | grep /tmp/disk/sda2 2>&1",
    };
    EXPECT_EQ(seams.runner.texts(), expected);

    // Only the pipes go through the shell; mknod and mount run as argv.
    for (const auto& call : seams.runner.calls()) {
        bool pipe = call.text.find('|') != std::string::npos;
        EXPECT_EQ(call.shell, pipe) << call.text;
    }

    std::vector<std::string> logs = {
        "mount_storage",
        "create folder /tmp/disk success",
        "the /tmp/disk exist.",
        "run command : mknod /var/dev/sda b 8 0",
        "create folder /tmp/disk/sda1 success",
        "run command : mknod /var/dev/sda1 b 8 1",
        "mount_fs",
        "mount /var/dev/sda1 auto /tmp/disk/sda1 success",
        "create folder /tmp/disk/sda2 success",
        "run command : mknod /var/dev/sda2 b 8 2",
        "mount_fs",
        "mount /var/dev/sda2 auto /tmp/disk/sda2 success",
    };
    EXPECT_EQ(fake::log_texts(), logs);
    for (const auto& line : fake::bus().log) EXPECT_EQ(line.module, "disk_util.c");
    EXPECT_TRUE(dir_is_empty("/tmp/disk/sda1"));
    EXPECT_TRUE(dir_is_empty("/tmp/disk/sda2"));
}

TEST(Mounting, SecondDiskPartitionGetsMinorFromItsLetterAndNumber) {
    Seams seams;
    use_mount_root();
    char list[] = "sdb,sdb2";
    disk_util_mount_storage(list);
    auto texts = seams.runner.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "mknod /var/dev/sdb2 b 8 18"), texts.end());
}

TEST(Mounting, DiskWithoutPartitionsGetsANodeAndNothingIsMounted) {
    Seams seams;
    use_mount_root();
    char list[] = "sdb";
    disk_util_mount_storage(list);
    std::vector<std::string> expected = {"ls /var/dev | grep sdb 2>&1", "mknod /var/dev/sdb b 8 16"};
    EXPECT_EQ(seams.runner.texts(), expected);
}

TEST(Mounting, PartitionThatNothingMountsIsLoggedAsFailedAndLeavesNoFolder) {
    Seams seams;
    use_mount_root();
    char list[] = "sda,sda1";
    disk_util_mount_storage(list);

    std::vector<std::string> expected = {
        "ls /var/dev | grep sda 2>&1",
        "mknod /var/dev/sda b 8 0",
        "ls /var/dev | grep sda1 2>&1",
        "mknod /var/dev/sda1 b 8 1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "mount -v -t auto -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "/bin/ntfs-3g -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "mount.exfat-fuse -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
    };
    EXPECT_EQ(seams.runner.texts(), expected);
    // mount, ntfs-3g and mount.exfat-fuse run as system() would: output not captured.
    auto calls = seams.runner.calls();
    EXPECT_FALSE(calls[5].capture);
    EXPECT_FALSE(calls[7].capture);
    EXPECT_FALSE(calls[9].capture);
    EXPECT_FALSE(calls[9].shell);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "mount /var/dev/sda1 fail"));
    EXPECT_FALSE(fake::logged("mount /var/dev/sda1 NTFS /tmp/disk/sda1 success"));
    // None of the three runs is announced.
    EXPECT_FALSE(fake::logged("run command : mount -v -t auto -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1"));
    EXPECT_FALSE(fake::logged("run command : /bin/ntfs-3g -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1"));
    EXPECT_FALSE(fake::logged("run command : mount.exfat-fuse -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1"));
    // No writable folder stands where the volume would have been.
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sda1"));
    EXPECT_EQ(disk_util_mount_fs("/var/dev/sda1", "/tmp/disk/sda1"), -1);
}

TEST(Mounting, FolderThatWasThereBeforeIsKeptWhenNothingMounts) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    char list[] = "sda,sda1";
    disk_util_mount_storage(list);
    EXPECT_TRUE(fake::logged("mount /var/dev/sda1 fail"));
    EXPECT_TRUE(dir_is_empty("/tmp/disk/sda1"));
}

TEST(Mounting, NtfsCountsOnlyWhenTheFolderIsThenMounted) {
    Seams seams;
    use_mount_root();
    bool ntfs_ran = false;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "/bin/ntfs-3g -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1") ntfs_ran = true;
        if (t == "mount | grep /tmp/disk/sda1 2>&1" && ntfs_ran)
            return std::string("/dev/sda1 on /tmp/disk/sda1 type fuseblk (rw)\n");
        return std::string();
    };
    EXPECT_EQ(disk_util_mount_fs("/var/dev/sda1", "/tmp/disk/sda1"), 0);
    EXPECT_TRUE(fake::logged("mount /var/dev/sda1 NTFS /tmp/disk/sda1 success"));
    EXPECT_FALSE(ran(seams, "mount.exfat-fuse -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1"));
}

TEST(Mounting, ExfatIsMountedThroughFuseAfterTheNtfsAttempt) {
    Seams seams;
    use_mount_root();
    bool exfat_ran = false;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "mount.exfat-fuse -o nosuid,nodev /var/dev/sdb1 /tmp/disk/sdb1") exfat_ran = true;
        if (t == "mount | grep /tmp/disk/sdb1 2>&1" && exfat_ran)
            return std::string("/dev/sdb1 on /tmp/disk/sdb1 type fuseblk (rw)\n");
        return std::string();
    };
    char list[] = "sdb,sdb1";
    disk_util_mount_storage(list);
    auto texts = seams.runner.texts();
    ASSERT_GE(texts.size(), 2u);
    EXPECT_EQ(texts[texts.size() - 2], "mount.exfat-fuse -o nosuid,nodev /var/dev/sdb1 /tmp/disk/sdb1");
    EXPECT_TRUE(fake::logged("mount /var/dev/sdb1 exFAT /tmp/disk/sdb1 success"));
    EXPECT_FALSE(fake::logged("mount /var/dev/sdb1 NTFS /tmp/disk/sdb1 success"));
    EXPECT_FALSE(fake::logged("mount /var/dev/sdb1 fail"));
    EXPECT_TRUE(dir_is_empty("/tmp/disk/sdb1"));
}

TEST(Mounting, FolderAlreadyMountedIsLeftAsItIs) {
    Seams seams;
    use_mount_root();
    seams.runner.respond = [](const std::string& t) {
        return t == "mount | grep /tmp/disk/sda1 2>&1" ? std::string("/dev/sda1 on /tmp/disk/sda1 type ext4\n")
                                                       : std::string();
    };
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    char list[] = "sda,sda1";
    disk_util_mount_storage(list);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "folder /tmp/disk/sda1 exist"));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "/tmp/disk/sda1 already exist"));
    auto texts = seams.runner.texts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [](const std::string& t) { return t.rfind("mount -v", 0) == 0; }),
              0);
}

TEST(Mounting, MountRootThatCannotBeCreatedStopsTheMount) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/missing/disk");
    char list[] = "sda,sda1";
    disk_util_mount_storage(list);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "create folder /tmp/missing/disk fail .. 2"));
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(Mounting, DiskCountsAsExistingWhenOnlyItsFirstPartitionIsListed) {
    Seams seams;
    // "ls | grep" really runs here, over the private /var/dev.
    seams.runner.pass_through = [](const std::string& t) {
        return testing_support::is_file_command(t) || t.rfind("ls ", 0) == 0;
    };
    testing_support::write_file("/var/dev/sda1", "");
    EXPECT_EQ(disk_util_dev_node_exist("sda"), 1);
    EXPECT_EQ(disk_util_dev_node_exist("sda1"), 1);
    EXPECT_EQ(disk_util_dev_node_exist("sdb"), 0);
    disk_util_create_block_dev_node("sda");
    std::vector<std::string> expected = {"ls /var/dev | grep sda 2>&1", "ls /var/dev | grep sda1 2>&1",
                                         "ls /var/dev | grep sdb 2>&1", "ls /var/dev | grep sda 2>&1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "the device node sda exist already"));
}

TEST(Mounting, NodeSda1IsMadeWhenOnlySda10IsListed) {
    Seams seams;
    seams.runner.pass_through = [](const std::string& t) { return t.rfind("ls ", 0) == 0; };
    testing_support::write_file("/var/dev/sda10", "");
    EXPECT_EQ(disk_util_dev_node_exist("sda1"), 0);
    EXPECT_EQ(disk_util_dev_node_exist("sda10"), 1);
    disk_util_create_block_dev_node("sda1");
    EXPECT_TRUE(ran(seams, "mknod /var/dev/sda1 b 8 1"));
}

TEST(Mounting, PluggingSda10BeforeSda1MountsBoth) {
    Seams seams;
    use_mount_root();
    MountTable table;
    seams.runner.respond = [&](const std::string& t) { return table.respond(t); };
    char list[] = "sda,sda10,sda1";
    disk_util_mount_storage(list);
    EXPECT_EQ(table.mounted, (std::set<std::string>{"/tmp/disk/sda1", "/tmp/disk/sda10"}));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "mount /var/dev/sda10 auto /tmp/disk/sda10 success"));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "mount /var/dev/sda1 auto /tmp/disk/sda1 success"));
    EXPECT_FALSE(fake::logged("/tmp/disk/sda1 already exist"));
    EXPECT_TRUE(ran(seams, "mknod /var/dev/sda10 b 8 10"));
}

TEST(Mounting, PartitionTenDoesNotCountAsPartitionOneMounted) {
    Seams seams;
    seams.runner.respond = [](const std::string& t) {
        if (t != "mount | grep /tmp/disk/sda1 2>&1") return std::string();
        return std::string("/var/dev/sda10 on /tmp/disk/sda10 type ext4 (rw)\n");
    };
    EXPECT_EQ(disk_util_is_mounted("/tmp/disk/sda1"), 0);
    seams.runner.respond = [](const std::string&) {
        return std::string(
            "/var/dev/sda10 on /tmp/disk/sda10 type ext4 (rw)\n"
            "/var/dev/sda1 on /tmp/disk/sda1 type vfat (rw)\n");
    };
    EXPECT_EQ(disk_util_is_mounted("/tmp/disk/sda1"), 1);
    // A folder below a mount point is not that mount point.
    EXPECT_EQ(disk_util_is_mounted("/tmp/disk"), 0);
}

TEST(Mounting, UnmountingSda1WhileSda10StaysMountedEndsAfterOneTry) {
    Seams seams;
    use_mount_root();
    MountTable table;
    seams.runner.respond = [&](const std::string& t) { return table.respond(t); };
    char plug[] = "sda,sda1,sda10";
    disk_util_mount_storage(plug);
    ASSERT_EQ(table.mounted.size(), 2u);
    seams.runner.clear();
    fake::reset();

    char unplug[] = "sda,sda1";
    disk_util_umount_storage(unplug);

    EXPECT_TRUE(seams.clock.sleeps().empty());
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "try to umount /tmp/disk/sda1 , count = 1"));
    EXPECT_FALSE(fake::logged("try to umount /tmp/disk/sda1 , count = 2"));
    EXPECT_EQ(table.mounted, std::set<std::string>{"/tmp/disk/sda10"});
    std::vector<std::string> expected = {"rm -f /var/dev/sda", "umount /tmp/disk/sda1",
                                         "mount | grep /tmp/disk/sda1 2>&1", "rm -f /var/dev/sda1"};
    EXPECT_EQ(seams.runner.texts(), expected);
}

TEST(Mounting, PartitionNumberBeyondAnIntIsRefusedAndGetsNoNode) {
    Seams seams;
    use_mount_root();
    char list[] = "sdz,sdz2147483647";
    disk_util_mount_storage(list);
    std::vector<std::string> expected = {"ls /var/dev | grep sdz 2>&1", "mknod /var/dev/sdz b 8 400"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sdz2147483647'"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sdz2147483647"));

    seams.runner.clear();
    char again[] = "sdz,sdz2147483647";
    disk_util_umount_storage(again);
    EXPECT_EQ(seams.runner.texts(), std::vector<std::string>{"rm -f /var/dev/sdz"});
}

TEST(Mounting, NamesWhoseMinorWouldBeNegativeOrOverflowGetNoNode) {
    Seams seams;
    use_mount_root();
    const std::vector<std::string> names = {"sdA", "sd1", "sda16", "sda0", "sda" + std::string(25, '9')};
    for (const std::string& name : names) {
        fake::reset();
        seams.runner.clear();
        EXPECT_EQ(disk_util_create_block_dev_node(name.c_str()), -1) << name;
        EXPECT_TRUE(seams.runner.texts().empty()) << name;
        EXPECT_TRUE(fake::logged("refusing device name '" + name + "'")) << name;
        EXPECT_EQ(fake::bus().log.at(0).level, 1);
    }
    char list[] = "sdA,sdA1";
    disk_util_mount_storage(list);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sdA1'"));
}

TEST(Mounting, BusyFolderOfADiskThatIsGoneIsDetachedWithOneLogLine) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    bool detached = false;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "umount -l /tmp/disk/sda1") detached = true;
        if (t == "mount | grep /tmp/disk/sda1 2>&1" && !detached)
            return std::string("/dev/sda1 on /tmp/disk/sda1 type ext4 (rw)\n");
        return std::string();
    };

    char list[] = "sda,sda1";
    EXPECT_EQ(disk_util_umount_storage(list), 0);

    std::vector<std::string> expected = {"rm -f /var/dev/sda",
                                         "umount /tmp/disk/sda1",
                                         "mount | grep /tmp/disk/sda1 2>&1",
                                         "umount -l /tmp/disk/sda1",
                                         "mount | grep /tmp/disk/sda1 2>&1",
                                         "rm -f /var/dev/sda1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    // Nothing waits for the disk.
    EXPECT_TRUE(seams.clock.sleeps().empty());
    std::vector<std::string> logs = {
        "umount_storage",
        "run command : rm -f /var/dev/sda",
        "umount_fs",
        "try to umount /tmp/disk/sda1 , count = 1",
        "umount /tmp/disk/sda1 busy, detached",
        "umount /tmp/disk/sda1 success",
        "remove folder /tmp/disk/sda1 success",
        "run command : rm -f /var/dev/sda1",
    };
    EXPECT_EQ(fake::log_texts(), logs);
    EXPECT_TRUE(fake::logged(2, "disk_util.c", "umount /tmp/disk/sda1 busy, detached"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sda1"));
}

TEST(Mounting, BusyFolderThatIsToBeKeptStaysMountedWithItsFolderAndNode) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    seams.runner.respond = [&](const std::string& t) {
        return t == "mount | grep /tmp/disk/sda1 2>&1" ? std::string("/dev/sda1 on /tmp/disk/sda1 type ext4 (rw)\n")
                                                        : std::string();
    };
    char list[] = "sda,sda1";
    EXPECT_EQ(disk_util_umount_storage(list, DiskBusy::keep), -1);
    std::vector<std::string> expected = {"rm -f /var/dev/sda", "umount /tmp/disk/sda1",
                                         "mount | grep /tmp/disk/sda1 2>&1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged("umount /tmp/disk/sda1 fail"));
    EXPECT_TRUE(seams.clock.sleeps().empty());
    EXPECT_TRUE(dir_is_empty("/tmp/disk/sda1"));
}

TEST(Mounting, UnmountingAFolderThatIsGoneReportsItsRemovalFailure) {
    Seams seams;
    use_mount_root();
    char list[] = "sda,sda1";
    disk_util_umount_storage(list);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "remove folder /tmp/disk/sda1 fail"));
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST(Mounting, RefusedDeviceNamesRunNothingAndLogTheRefusal) {
    Seams seams;
    use_mount_root();
    char bad[] = "sda;rm";
    disk_util_mount_storage(bad);
    char dots[] = "../x";
    disk_util_umount_storage(dots);
    char empty[] = "";
    disk_util_mount_storage(empty);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sda;rm'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name '../x'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name ''"));
    for (const auto& line : fake::bus().log) {
        if (line.text.rfind("refusing", 0) == 0) {
            EXPECT_EQ(line.level, 1);
        }
    }
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk"));
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("tty;x"), -1);
    EXPECT_EQ(disk_util_remove_usb_serial_dev_node("../tty"), -1);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(Mounting, DeviceListWithShellSyntaxIsRefusedWhole) {
    Seams seams;
    use_mount_root();
    char list[] = "sda,sda1;touch /tmp/pwned";
    disk_util_mount_storage(list);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sda1;touch /tmp/pwned'"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/pwned"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk"));
}

TEST(Mounting, RefusedNamesAreShownWithControlCharactersReplaced) {
    Seams seams;
    char list[] = "sda,sd\x1b[2Jx";
    disk_util_umount_storage(list);
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sd_[2Jx'"));
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(Mounting, MountRootThatIsNotAPlainWordIsNeverPutInAShellLine) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk;x");
    EXPECT_EQ(disk_util_umount_fs("/tmp/disk;x/sda1"), -1);
    EXPECT_EQ(remove_all_mount_disk(), -1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing command line 'mount | grep /tmp/disk;x/sda1 2>&1'"));
}

TEST(SerialNodes, AdapterGetsACharacterNodeWithItsNumberAsMinor) {
    Seams seams;
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("ttyUSB1"), 0);
    std::vector<std::string> expected = {"ls /var/dev | grep ttyUSB1 2>&1", "mknod /var/dev/ttyUSB1 c 188 1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "run command : mknod /var/dev/ttyUSB1 c 188 1"));
}

TEST(SerialNodes, AdapterNumberBeyondTheLargestMinorIsRefusedAndGetsNoNode) {
    Seams seams;
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("ttyUSB99999999999999999999"), -1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'ttyUSB99999999999999999999'"));
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("ttyUSB1048575"), 0);
    EXPECT_TRUE(ran(seams, "mknod /var/dev/ttyUSB1048575 c 188 1048575"));
}

TEST(SerialNodes, ExistingAdapterNodeIsReportedAsFailure) {
    Seams seams;
    seams.runner.respond = [](const std::string& t) {
        return t == "ls /var/dev | grep ttyUSB0 2>&1" ? std::string("ttyUSB0\n") : std::string();
    };
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("ttyUSB0"), -1);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "the device node ttyUSB0 exist already"));
    EXPECT_EQ(seams.runner.texts().size(), 1u);
}

TEST(SerialNodes, RemovalDeletesTheNode) {
    Seams seams;
    testing_support::write_file("/var/dev/ttyUSB1", "");
    EXPECT_EQ(disk_util_remove_usb_serial_dev_node("ttyUSB1"), 0);
    EXPECT_EQ(seams.runner.texts(), std::vector<std::string>{"rm -f /var/dev/ttyUSB1"});
    EXPECT_FALSE(testing_support::file_exists("/var/dev/ttyUSB1"));
}

TEST(SerialNodes, RemovalRefusesANameThatIsNotAnAdapter) {
    Seams seams;
    testing_support::write_file("/var/dev/sda", "");
    EXPECT_EQ(disk_util_remove_usb_serial_dev_node("sda"), -1);
    EXPECT_EQ(disk_util_remove_usb_serial_dev_node("ttyS0"), -1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sda'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'ttyS0'"));
    EXPECT_TRUE(testing_support::file_exists("/var/dev/sda"));
}

TEST(SerialNodes, CommandThatCannotStartGivesMinusOneAndNoRunLine) {
    Seams seams;
    seams.runner.fail_start = true;
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("ttyUSB0"), -1);
    EXPECT_EQ(disk_util_remove_usb_serial_dev_node("ttyUSB0"), -1);
    for (const auto& t : fake::log_texts()) EXPECT_EQ(t.rfind("run command", 0), std::string::npos) << t;
}

TEST(StartUpMount, DisksListedInPortFilesAreMountedAndSerialAdaptersAreNot) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-1", "sda,sda1\r\n");
    testing_support::write_file("/tmp/usb/1-2", "ttyUSB0\r\n");
    EXPECT_EQ(disk_util_init_mount_exist_disk(), 0);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "Check Exist Disk ..."));
    auto texts = seams.runner.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "mknod /var/dev/sda b 8 0"), texts.end());
    EXPECT_NE(std::find(texts.begin(), texts.end(), "mknod /var/dev/sda1 b 8 1"), texts.end());
    for (const auto& t : texts) EXPECT_EQ(t.find("ttyUSB"), std::string::npos) << t;
}

TEST(MountStorage, PortLineCutAtNineteenCharactersStillMountsTheFirstPartitions) {
    Seams seams;
    use_mount_root();
    MountTable table;
    seams.runner.respond = [&](const std::string& t) { return table.respond(t); };
    mkdir("/tmp/usb", 0755);
    // The list kept at start-up is "sda,sda1,sda2,sda3,": its last name is empty.
    testing_support::write_file("/tmp/usb/1-1", "sda,sda1,sda2,sda3,sda4\r\n");
    EXPECT_EQ(disk_util_init_mount_exist_disk(), 0);
    EXPECT_TRUE(ran(seams, "mknod /var/dev/sda b 8 0"));
    EXPECT_EQ(table.mounted, (std::set<std::string>{"/tmp/disk/sda1", "/tmp/disk/sda2", "/tmp/disk/sda3"}));
    for (const auto& t : fake::log_texts()) EXPECT_EQ(t.rfind("refusing", 0), std::string::npos) << t;
}

TEST(MountStorage, PortLineEndingInAnEmptyNameMountsItsPartitions) {
    Seams seams;
    use_mount_root();
    MountTable table;
    seams.runner.respond = [&](const std::string& t) { return table.respond(t); };
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-1", "sda,sda1,sda2,sda3,\r\n");
    disk_util_init_mount_exist_disk();
    EXPECT_EQ(table.mounted, (std::set<std::string>{"/tmp/disk/sda1", "/tmp/disk/sda2", "/tmp/disk/sda3"}));
}

TEST(MountStorage, PortLineOfFiftyCharactersAndMoreMountsOnlyWholeNames) {
    Seams seams;
    use_mount_root();
    MountTable table;
    seams.runner.respond = [&](const std::string& t) { return table.respond(t); };
    mkdir("/tmp/usb", 0755);
    // Cut to nineteen characters this is "sda,sda10,sda11,sda": the last
    // "sda" is a piece of sda12, not a partition.
    testing_support::write_file("/tmp/usb/1-1", "sda,sda10,sda11,sda12,sda13,sda14,sda15,sda1,sda2,sda3\r\n");
    disk_util_init_mount_exist_disk();
    EXPECT_EQ(table.mounted, (std::set<std::string>{"/tmp/disk/sda10", "/tmp/disk/sda11"}));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sda"));
    EXPECT_FALSE(ran(seams, "mount -v -t auto -o nosuid,nodev /var/dev/sda /tmp/disk/sda"));
}

TEST(MountStorage, PortLineCutByTheReadMountsOnlyWholeNames) {
    Seams seams;
    use_mount_root();
    MountTable table;
    seams.runner.respond = [&](const std::string& t) { return table.respond(t); };
    mkdir("/tmp/usb", 0755);
    // Forty-nine characters are read: the list is cut inside the line and the
    // start-up list of nineteen ends at a whole name.
    testing_support::write_file("/tmp/usb/1-1", "sda,sda1,sda2,sda13,sda14,sda15,sda5,sda6,sda7,sda8,sda9\r\n");
    disk_util_init_mount_exist_disk();
    EXPECT_EQ(table.mounted, (std::set<std::string>{"/tmp/disk/sda1", "/tmp/disk/sda2", "/tmp/disk/sda13"}));
}

TEST(StartUpMount, MissingPortFolderDoesNothing) {
    Seams seams;
    use_mount_root();
    EXPECT_EQ(disk_util_init_mount_exist_disk(), 0);
    EXPECT_TRUE(fake::log_texts().empty());
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(StartUpMount, PortFileWithShellSyntaxIsRefused) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-1", "sda,sda1;reboot\r\n");
    disk_util_init_mount_exist_disk();
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sda1;reboot'"));
}

TEST(Shutdown, EveryMountUnderTheRootIsUnmountedAndItsEmptyFolderRemoved) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    mkdir("/tmp/disk/sdb1", 0775);
    const std::string listing = "mount | grep \"/tmp/disk\" | awk -F \"[ ]\" '{print $3}' 2>&1";
    seams.runner.respond = [&](const std::string& t) {
        return t == listing ? std::string("/tmp/disk/sda1\n/tmp/disk/sdb1\n") : std::string();
    };
    EXPECT_EQ(remove_all_mount_disk(), -1);
    std::vector<std::string> expected = {listing, "umount /tmp/disk/sda1", "mount | grep /tmp/disk/sda1 2>&1",
                                         "umount /tmp/disk/sdb1", "mount | grep /tmp/disk/sdb1 2>&1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "run command : umount /tmp/disk/sda1"));
    for (const auto& t : seams.runner.texts()) EXPECT_EQ(t.find("rm "), std::string::npos) << t;
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sda1"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sdb1"));
}

TEST(Shutdown, BusyMountIsDetachedAndAFolderThatHoldsFilesIsLeftAloneWithOneLogLine) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    testing_support::write_file("/tmp/disk/sda1/photo.jpg", "data");
    const std::string listing = "mount | grep \"/tmp/disk\" | awk -F \"[ ]\" '{print $3}' 2>&1";
    seams.runner.respond = [&](const std::string& t) {
        if (t == listing) return std::string("/tmp/disk/sda1\n");
        if (t == "mount | grep /tmp/disk/sda1 2>&1") return std::string("/dev/sda1 on /tmp/disk/sda1 type ext4 (rw)\n");
        return std::string();
    };
    EXPECT_EQ(remove_all_mount_disk(), -1);
    std::vector<std::string> expected = {listing, "umount /tmp/disk/sda1", "mount | grep /tmp/disk/sda1 2>&1",
                                         "umount -l /tmp/disk/sda1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_EQ(testing_support::read_file("/tmp/disk/sda1/photo.jpg"), "data");
    EXPECT_TRUE(fake::logged(2, "disk_util.c", "folder /tmp/disk/sda1 still holds files, left alone"));
}

TEST(Shutdown, MountsOutsideTheMountRootAreLeftAlone) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    const std::string listing = "mount | grep \"/tmp/disk\" | awk -F \"[ ]\" '{print $3}' 2>&1";
    // grep finds the root in other lines too: a folder whose name begins
    // like the root, and a bind mount of a folder of the disk elsewhere.
    seams.runner.respond = [&](const std::string& t) {
        return t == listing ? std::string("/tmp/disk/sda1\n/tmp/diskette\n/mnt/backup\n/tmp/disk\n/tmp/disk/sda1/x\n")
                            : std::string();
    };
    EXPECT_EQ(remove_all_mount_disk(), -1);
    std::vector<std::string> expected = {listing, "umount /tmp/disk/sda1", "mount | grep /tmp/disk/sda1 2>&1"};
    EXPECT_EQ(seams.runner.texts(), expected);
}

TEST(Runner, StartedCommandIsLoggedAndGivesZero) {
    Seams seams;
    EXPECT_EQ(disk_util_exe_command(usbmgr::CommandLine::exec({"umount", "/tmp/disk/sda1"})), 0);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"run command : umount /tmp/disk/sda1"});
}

TEST(Runner, CommandThatCannotStartGivesMinusOneSilently) {
    Seams seams;
    seams.runner.fail_start = true;
    EXPECT_EQ(disk_util_exe_command(usbmgr::CommandLine::exec({"umount", "/tmp/disk/sda1"})), -1);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(Mounting, MountsTakeNosuidAndNodevAsOneOptionArgument) {
    Seams seams;
    use_mount_root();
    char list[] = "sda,sda1";
    disk_util_mount_storage(list);
    auto calls = seams.runner.calls();
    ASSERT_EQ(calls.size(), 11u);
    EXPECT_EQ(calls[5].argv,
              (std::vector<std::string>{"mount", "-v", "-t", "auto", "-o", "nosuid,nodev", "/var/dev/sda1", "/tmp/disk/sda1"}));
    EXPECT_EQ(calls[7].argv,
              (std::vector<std::string>{"/bin/ntfs-3g", "-o", "nosuid,nodev", "/var/dev/sda1", "/tmp/disk/sda1"}));
    EXPECT_EQ(calls[9].argv,
              (std::vector<std::string>{"mount.exfat-fuse", "-o", "nosuid,nodev", "/var/dev/sda1", "/tmp/disk/sda1"}));
}

TEST(Mounting, ALinkPlantedAsAPartitionsFolderGetsNoNodeAndNoMountAndStays) {
    Seams seams;
    use_mount_root();
    ASSERT_EQ(mkdir("/tmp/disk", 0755), 0);
    ASSERT_EQ(mkdir("/tmp/elsewhere", 0755), 0);
    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/disk/sda1"), 0);
    char list[] = "sda,sda1,sda2";
    disk_util_mount_storage(list);
    for (const auto& t : seams.runner.texts()) EXPECT_EQ(t.find("sda1"), std::string::npos) << t;
    EXPECT_TRUE(ran(seams, "mount -v -t auto -o nosuid,nodev /var/dev/sda2 /tmp/disk/sda2"));
    EXPECT_TRUE(fake::logged("folder /tmp/disk/sda1 exist"));
    EXPECT_TRUE(fake::logged("refusing folder /tmp/disk/sda1: a link"));
    struct stat st {};
    ASSERT_EQ(lstat("/tmp/disk/sda1", &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST(Mounting, AFolderWritableByOthersIsNotMountedOn) {
    Seams seams;
    use_mount_root();
    ASSERT_EQ(mkdir("/tmp/disk", 0755), 0);
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    chmod("/tmp/disk/sda1", 0777);
    char list[] = "sda,sda1";
    disk_util_mount_storage(list);
    EXPECT_FALSE(ran(seams, "mount -v -t auto -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1"));
    EXPECT_TRUE(fake::logged("refusing folder /tmp/disk/sda1: writable by others"));
}

TEST(Mounting, AMountRootThatIsALinkMountsNothing) {
    Seams seams;
    use_mount_root();
    ASSERT_EQ(mkdir("/tmp/elsewhere", 0755), 0);
    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/disk"), 0);
    char list[] = "sda,sda1";
    disk_util_mount_storage(list);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_EQ(fake::log_texts(),
              (std::vector<std::string>{"mount_storage", "the /tmp/disk exist.", "refusing folder /tmp/disk: a link"}));
    struct stat st {};
    EXPECT_NE(stat("/tmp/elsewhere/sda1", &st), 0);
}
