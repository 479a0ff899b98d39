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

// Answers "mount | grep FOLDER" from the folders that "mount -v -t auto"
// was asked to mount.
struct MountTable {
    std::set<std::string> mounted;
    std::string respond(const std::string& text) {
        static const std::string kMount = "mount -v -t auto ";
        if (text.rfind(kMount, 0) == 0) {
            std::string rest = text.substr(kMount.size());
            mounted.insert(rest.substr(rest.find(' ') + 1));
            return "";
        }
        static const std::string kCheck = "mount | grep ";
        if (text.rfind(kCheck, 0) == 0) {
            std::string folder = text.substr(kCheck.size(), text.find(' ', kCheck.size()) - kCheck.size());
            if (mounted.count(folder)) return "/dev/x on " + folder + " type ext4 (rw)\n";
        }
        return "";
    }
};

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

TEST(DeviceNames, ListsAreNamesSeparatedBySingleCommas) {
    EXPECT_TRUE(disk_util_device_list_ok("sda"));
    EXPECT_TRUE(disk_util_device_list_ok("sda,sda1,sda2"));
    EXPECT_FALSE(disk_util_device_list_ok(""));
    EXPECT_FALSE(disk_util_device_list_ok("sda,"));
    EXPECT_FALSE(disk_util_device_list_ok(",sda"));
    EXPECT_FALSE(disk_util_device_list_ok("sda,,sda1"));
    EXPECT_FALSE(disk_util_device_list_ok("sda,sda1;touch /tmp/pwned"));
    EXPECT_FALSE(disk_util_device_list_ok("sda\r\n"));
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
        "mount -v -t auto /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "ls /var/dev | grep sda2 2>&1",
        "mknod /var/dev/sda2 b 8 2",
        "mount | grep /tmp/disk/sda2 2>&1",
        "mount -v -t auto /var/dev/sda2 /tmp/disk/sda2",
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

TEST(Mounting, PartitionThatNothingMountsStillReportsNtfsSuccessAndLeavesAnEmptyFolder) {
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
        "mount -v -t auto /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
        "/bin/ntfs-3g /var/dev/sda1 /tmp/disk/sda1",
        "mount | grep /tmp/disk/sda1 2>&1",
    };
    EXPECT_EQ(seams.runner.texts(), expected);
    // mount and ntfs-3g run as system() would: output not captured.
    auto calls = seams.runner.calls();
    EXPECT_FALSE(calls[5].capture);
    EXPECT_FALSE(calls[7].capture);
    EXPECT_TRUE(fake::logged("mount /var/dev/sda1 NTFS /tmp/disk/sda1 success"));
    EXPECT_FALSE(fake::logged("mount /var/dev/sda1 fail"));
    // Neither system() run is announced.
    EXPECT_FALSE(fake::logged("run command : mount -v -t auto /var/dev/sda1 /tmp/disk/sda1"));
    EXPECT_FALSE(fake::logged("run command : /bin/ntfs-3g /var/dev/sda1 /tmp/disk/sda1"));
    EXPECT_TRUE(dir_is_empty("/tmp/disk/sda1"));
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
    EXPECT_TRUE(fake::logged("folder /tmp/disk/sda1 exist"));
    EXPECT_TRUE(fake::logged("/tmp/disk/sda1 already exist"));
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
    EXPECT_TRUE(fake::logged("create folder /tmp/missing/disk fail .. 2"));
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(Mounting, NodeSdaIsSkippedAsExistingWhenOnlySda1IsListed) {
    Seams seams;
    // "ls | grep" really runs here, over the private /var/dev.
    seams.runner.pass_through = [](const std::string& t) {
        return testing_support::is_file_command(t) || t.rfind("ls ", 0) == 0;
    };
    testing_support::write_file("/var/dev/sda1", "");
    EXPECT_EQ(disk_util_dev_node_exist("sda"), 1);
    EXPECT_EQ(disk_util_dev_node_exist("sdb"), 0);
    disk_util_create_block_dev_node("sda");
    std::vector<std::string> expected = {"ls /var/dev | grep sda 2>&1", "ls /var/dev | grep sdb 2>&1",
                                         "ls /var/dev | grep sda 2>&1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged("the device node sda exist already"));
}

TEST(Mounting, UnmountingABusyFolderRetriesEveryThreeSecondsUntilItIsFree) {
    Seams seams;
    use_mount_root();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    int busy = 3;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "mount | grep /tmp/disk/sda1 2>&1" && busy > 0) {
            --busy;
            return std::string("/dev/sda1 on /tmp/disk/sda1 type ext4 (rw)\n");
        }
        return std::string();
    };

    char list[] = "sda,sda1";
    disk_util_umount_storage(list);

    std::vector<std::string> expected = {"rm -f /var/dev/sda"};
    for (int i = 0; i < 4; ++i) {
        expected.push_back("umount /tmp/disk/sda1");
        expected.push_back("mount | grep /tmp/disk/sda1 2>&1");
    }
    expected.push_back("rm -f /var/dev/sda1");
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{3000000, 3000000, 3000000}));

    std::vector<std::string> logs = {
        "umount_storage",
        "run command : rm -f /var/dev/sda",
        "umount_fs",
        "try to umount /tmp/disk/sda1 , count = 1",
        "try to umount /tmp/disk/sda1 , count = 2",
        "try to umount /tmp/disk/sda1 , count = 3",
        "try to umount /tmp/disk/sda1 , count = 4",
        "umount /tmp/disk/sda1 success",
        "umount /tmp/disk/sda1 success",
        "remove folder /tmp/disk/sda1 success",
        "run command : rm -f /var/dev/sda1",
    };
    EXPECT_EQ(fake::log_texts(), logs);
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sda1"));
}

TEST(Mounting, UnmountingAFolderThatIsGoneReportsItsRemovalFailure) {
    Seams seams;
    use_mount_root();
    char list[] = "sda,sda1";
    disk_util_umount_storage(list);
    EXPECT_TRUE(fake::logged("remove folder /tmp/disk/sda1 fail"));
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
    EXPECT_TRUE(fake::logged("refusing device name 'sda;rm'"));
    EXPECT_TRUE(fake::logged("refusing device name '../x'"));
    EXPECT_TRUE(fake::logged("refusing device name ''"));
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
    EXPECT_TRUE(fake::logged("refusing device name 'sda1;touch /tmp/pwned'"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/pwned"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk"));
}

TEST(Mounting, RefusedNamesAreShownWithControlCharactersReplaced) {
    Seams seams;
    char list[] = "sda,sd\x1b[2Jx";
    disk_util_umount_storage(list);
    EXPECT_TRUE(fake::logged("refusing device name 'sd_[2Jx'"));
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(Mounting, MountRootThatIsNotAPlainWordIsNeverPutInAShellLine) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk;x");
    EXPECT_EQ(disk_util_umount_fs("/tmp/disk;x/sda1"), -1);
    EXPECT_EQ(remove_all_mount_disk(), -1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged("refusing command line 'mount | grep /tmp/disk;x/sda1 2>&1'"));
}

TEST(SerialNodes, AdapterGetsACharacterNodeWithItsNumberAsMinor) {
    Seams seams;
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("ttyUSB1"), 0);
    std::vector<std::string> expected = {"ls /var/dev | grep ttyUSB1 2>&1", "mknod /var/dev/ttyUSB1 c 188 1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged("run command : mknod /var/dev/ttyUSB1 c 188 1"));
}

TEST(SerialNodes, ExistingAdapterNodeIsReportedAsFailure) {
    Seams seams;
    seams.runner.respond = [](const std::string& t) {
        return t == "ls /var/dev | grep ttyUSB0 2>&1" ? std::string("ttyUSB0\n") : std::string();
    };
    EXPECT_EQ(disk_util_create_usb_serial_dev_node("ttyUSB0"), -1);
    EXPECT_TRUE(fake::logged("the device node ttyUSB0 exist already"));
    EXPECT_EQ(seams.runner.texts().size(), 1u);
}

TEST(SerialNodes, RemovalDeletesTheNode) {
    Seams seams;
    testing_support::write_file("/var/dev/ttyUSB1", "");
    EXPECT_EQ(disk_util_remove_usb_serial_dev_node("ttyUSB1"), 0);
    EXPECT_EQ(seams.runner.texts(), std::vector<std::string>{"rm -f /var/dev/ttyUSB1"});
    EXPECT_FALSE(testing_support::file_exists("/var/dev/ttyUSB1"));
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
    EXPECT_TRUE(fake::logged("Check Exist Disk ..."));
    auto texts = seams.runner.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "mknod /var/dev/sda b 8 0"), texts.end());
    EXPECT_NE(std::find(texts.begin(), texts.end(), "mknod /var/dev/sda1 b 8 1"), texts.end());
    for (const auto& t : texts) EXPECT_EQ(t.find("ttyUSB"), std::string::npos) << t;
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
    EXPECT_TRUE(fake::logged("refusing device name 'sda1;reboot'"));
}

TEST(Shutdown, EveryMountUnderTheRootIsUnmountedAndRemovedOnce) {
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
    std::vector<std::string> expected = {listing, "umount /tmp/disk/sda1", "rm -R /tmp/disk/sda1",
                                         "umount /tmp/disk/sdb1", "rm -R /tmp/disk/sdb1"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(fake::logged("run command : umount /tmp/disk/sda1"));
    EXPECT_TRUE(fake::logged("run command : rm -R /tmp/disk/sdb1"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sda1"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sdb1"));
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
