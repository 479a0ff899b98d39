// Queries about disks, volumes, folders, sizes, file systems and ports, and
// the start-up listing of serial adapters.
#include <sys/stat.h>

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
using testing_support::write_file;

namespace {

void make_dev(std::initializer_list<const char*> names) {
    for (const char* n : names) write_file(std::string("/var/dev/") + n, "");
}

void make_port_file(const std::string& port, const std::string& line) {
    mkdir("/tmp/usb", 0755);
    write_file("/tmp/usb/" + port, line);
}

}  // namespace

TEST(DiskQueries, DevFolderWithDiskPartitionsAndSerialAdapterCountsOneDiskAndTwoVolumes) {
    Seams seams;
    make_dev({"sda", "sda1", "sda2", "ttyUSB0"});
    EXPECT_EQ(disk_util_get_count_of_physical(), 1);
    EXPECT_EQ(disk_util_get_count_of_volume(), 2);

    char name[20] = {};
    EXPECT_EQ(disk_util_get_physical_name_by_index(0, name, sizeof name), 0);
    EXPECT_STREQ(name, "sda");
    EXPECT_EQ(disk_util_get_physical_name_by_index(1, name, sizeof name), -1);

    std::set<std::string> volumes;
    for (int i = 0; i < 2; ++i) {
        char v[20] = {};
        EXPECT_EQ(disk_util_get_volume_name_by_index(i, v, sizeof v), 0);
        volumes.insert(v);
    }
    EXPECT_EQ(volumes, (std::set<std::string>{"sda1", "sda2"}));
    char v[20] = {};
    EXPECT_EQ(disk_util_get_volume_name_by_index(2, v, sizeof v), -1);
}

TEST(DiskQueries, MissingDevFolderCountsNothing) {
    Seams seams;
    rmdir("/var/dev");
    EXPECT_EQ(disk_util_get_count_of_physical(), 0);
    EXPECT_EQ(disk_util_get_count_of_volume(), 0);
    char name[20] = {};
    EXPECT_EQ(disk_util_get_physical_name_by_index(0, name, sizeof name), -1);
    mkdir("/var/dev", 0775);
}

TEST(DiskQueries, VolumeWithMusicTrashAndBackupFolderHasOneTopFolder) {
    Seams seams;
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    mkdir("/tmp/disk/sda1/Music", 0775);
    mkdir("/tmp/disk/sda1/.Trash", 0775);
    mkdir("/tmp/disk/sda1/notes~", 0775);
    write_file("/tmp/disk/sda1/song.mp3", "x");
    EXPECT_EQ(disk_util_get_count_of_folder_by_name("sda1"), 1);

    char name[64] = {};
    EXPECT_EQ(disk_util_get_folder_name_by_index(0, "sda1", name, sizeof name), 0);
    EXPECT_STREQ(name, "Music");
    char other[64] = {};
    EXPECT_EQ(disk_util_get_folder_name_by_index(1, "sda1", other, sizeof other), 1);
    EXPECT_STREQ(other, "");
}

TEST(DiskQueries, VolumeThatCannotBeReadHasNoFolders) {
    Seams seams;
    EXPECT_EQ(disk_util_get_count_of_folder_by_name("sdz1"), 0);
    char name[64] = {};
    EXPECT_EQ(disk_util_get_folder_name_by_index(0, "sdz1", name, sizeof name), 0);
    EXPECT_EQ(disk_util_get_count_of_folder_by_name("../etc"), 0);
}

TEST(DiskQueries, FolderNamesAreCutToFiftyFourCharacters) {
    Seams seams;
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    std::string long_name(70, 'f');
    mkdir(("/tmp/disk/sda1/" + long_name).c_str(), 0775);
    char name[100] = {};
    EXPECT_EQ(disk_util_get_folder_name_by_index(0, "sda1", name, sizeof name), 0);
    EXPECT_EQ(std::string(name), std::string(54, 'f'));
}

TEST(DiskQueries, DfLineOfSda10DoesNotCountForSda1) {
    Seams seams;
    seams.runner.respond = [](const std::string& t) {
        if (t != "df -m | grep sda1 2>&1") return std::string();
        return std::string(
            "/var/dev/sda1            100        40        60  40% /tmp/disk/sda1\n"
            "/var/dev/sda10           200        10       190   5% /tmp/disk/sda10\n");
    };
    DiskSize size{7, 7};
    DiskSize r = disk_util_get_disk_size(&size, "sda1");
    EXPECT_EQ(size.total, 100u);
    EXPECT_EQ(size.used, 40u);
    EXPECT_EQ(r.total, 100u);
    EXPECT_EQ(r.used, 40u);
    EXPECT_EQ(seams.runner.texts(), std::vector<std::string>{"df -m | grep sda1 2>&1"});
    EXPECT_TRUE(seams.runner.calls()[0].shell);
}

TEST(DiskQueries, DfLinesOfEveryPartitionCountForTheDiskAndNoOtherDisk) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    seams.runner.respond = [](const std::string& t) {
        if (t != "df -m | grep sda 2>&1") return std::string();
        return std::string(
            "/var/dev/sda1            100        40        60  40% /tmp/disk/sda1\n"
            "/var/dev/sda10           200        10       190   5% /tmp/disk/sda10\n"
            "/var/dev/sdb1            400         1       399   1% /mnt/sda\n"
            "tmpfs                    800         2       798   1% /tmp/sdata\n");
    };
    DiskSize size{7, 7};
    disk_util_get_disk_size(&size, "sda");
    EXPECT_EQ(size.total, 300u);  // sda1 and sda10; not sdb1 on a folder named sda
    EXPECT_EQ(size.used, 50u);
}

TEST(DiskQueries, DfLineIsMatchedByItsMountFolderWhenTheDeviceIsNamedOtherwise) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    seams.runner.respond = [](const std::string&) {
        return std::string("/dev/disk/by-uuid/1234     100        40        60  40% /tmp/disk/sda1\n");
    };
    DiskSize size{7, 7};
    disk_util_get_disk_size(&size, "sda1");
    EXPECT_EQ(size.total, 100u);
}

TEST(DiskQueries, VolumeThatDfDoesNotListHasSizeZero) {
    Seams seams;
    DiskSize size{7, 7};
    disk_util_get_disk_size(&size, "sdb1");
    EXPECT_EQ(size.total, 0u);
    EXPECT_EQ(size.used, 0u);
}

TEST(DiskQueries, SizeOfANameWithShellSyntaxRunsNothing) {
    Seams seams;
    DiskSize size{7, 7};
    disk_util_get_disk_size(&size, "sda1;reboot");
    EXPECT_EQ(size.total, 0u);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing command line 'df -m | grep sda1;reboot 2>&1'"));
}

namespace {

std::string file_system_of(Seams& seams, const std::string& mount_type) {
    seams.runner.respond = [mount_type](const std::string& t) {
        if (t == "mount | grep sda1 2>&1" && !mount_type.empty())
            return "/var/dev/sda1 on /tmp/disk/sda1 type " + mount_type + " (rw,relatime)\n";
        return std::string();
    };
    char type[12] = "untouched";
    disk_util_get_storage_file_system("sda1", type, sizeof type);
    return type;
}

}  // namespace

TEST(DiskQueries, VfatReportsFat32AndFuseblkReportsNtfs) {
    Seams seams;
    EXPECT_EQ(file_system_of(seams, "vfat"), "FAT32");
    EXPECT_EQ(file_system_of(seams, "fuseblk"), "NTFS");
    EXPECT_EQ(file_system_of(seams, "fat"), "FAT16");
    EXPECT_EQ(file_system_of(seams, "ext4"), "ext4");
    EXPECT_EQ(seams.runner.texts().front(), "mount | grep sda1 2>&1");
}

TEST(DiskQueries, FileSystemOfSda1IsNotTakenFromTheLineOfSda10) {
    Seams seams;
    seams.runner.respond = [](const std::string& t) {
        if (t != "mount | grep sda1 2>&1") return std::string();
        return std::string(
            "/var/dev/sda10 on /tmp/disk/sda10 type fuseblk (rw)\n"
            "/var/dev/sda1 on /tmp/disk/sda1 type vfat (rw)\n");
    };
    char type[12] = "untouched";
    disk_util_get_storage_file_system("sda1", type, sizeof type);
    EXPECT_STREQ(type, "FAT32");

    seams.runner.respond = [](const std::string&) {
        return std::string("/var/dev/sda10 on /tmp/disk/sda10 type fuseblk (rw)\n");
    };
    char none[12] = "untouched";
    disk_util_get_storage_file_system("sda1", none, sizeof none);
    EXPECT_STREQ(none, "untouched");
}

TEST(DiskQueries, FileSystemOfAnUnmountedVolumeLeavesTheOutputUntouched) {
    Seams seams;
    EXPECT_EQ(file_system_of(seams, ""), "untouched");
}

TEST(DiskQueries, DeviceListNamesItsPartitionsAfterTheDisk) {
    Seams seams;
    char list[] = "sda,sda1,sda2";
    EXPECT_EQ(disk_util_get_number_of_disk_volume(list), 2);
    EXPECT_EQ(std::memcmp(list, "sda\0sda1\0sda2", 14), 0);  // split in place

    char again[] = "sda,sda1,sda2";
    char name[20] = {};
    EXPECT_EQ(disk_util_get_disk_volume_by_index(1, again, name, sizeof name), 0);
    EXPECT_STREQ(name, "sda2");
    char third[] = "sda,sda1,sda2";
    EXPECT_EQ(disk_util_get_disk_volume_by_index(2, third, name, sizeof name), -1);
    char disk_only[] = "sdb";
    EXPECT_EQ(disk_util_get_number_of_disk_volume(disk_only), 0);
}

TEST(DiskQueries, PortFileOfSdaYieldsItsPortAndDeviceList) {
    Seams seams;
    make_port_file("1-2", "sdb,sdb1\r\n");
    make_port_file("1-1", "sda,sda1\r\n");
    char port[20] = {};
    char list[50] = {};
    EXPECT_EQ(disk_util_get_usbport("sda", port, sizeof port, list, sizeof list), 0);
    EXPECT_STREQ(port, "1-1");
    EXPECT_STREQ(list, "sda,sda1");
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "Check USB Port ..."));

    char none_port[20] = {};
    char none_list[50] = {};
    EXPECT_EQ(disk_util_get_usbport("sdc", none_port, sizeof none_port, none_list, sizeof none_list), -1);
}

TEST(DiskQueries, PortSearchWithoutPortFolderFindsNothingSilently) {
    Seams seams;
    char port[20] = {};
    char list[50] = {};
    EXPECT_EQ(disk_util_get_usbport("sda", port, sizeof port, list, sizeof list), -1);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(SerialListing, AdaptersListedInPortFilesAreCountedAndNamed) {
    Seams seams;
    make_port_file("1-1", "sda,sda1\r\n");
    make_port_file("1-2", "ttyUSB0\r\n");
    EXPECT_EQ(disk_util_count_of_exist_usb_serial(), 1);
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "Check Exist USB Serial ..."));

    char name[20] = {};
    EXPECT_EQ(disk_util_get_usb_serial_name_by_index(0, name, sizeof name), 0);
    EXPECT_STREQ(name, "ttyUSB0");
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "Get USB Serial Name ..."));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "Get USB Serial Name ... ttyUSB0"));

    char other[20] = {};
    EXPECT_EQ(disk_util_get_usb_serial_name_by_index(1, other, sizeof other), -1);
    EXPECT_STREQ(other, "");
}

TEST(SerialListing, LongPortLineIsCutToNineteenCharacters) {
    Seams seams;
    make_port_file("1-3", "ttyUSB1,abcdefghijklmnopqrstuvwxyz\r\n");
    char name[40] = {};
    EXPECT_EQ(disk_util_get_usb_serial_name_by_index(0, name, sizeof name), 0);
    EXPECT_EQ(std::string(name), "ttyUSB1,abcdefghijk");
}

TEST(SerialListing, MissingPortFolderListsNoAdapterAndLogsNothing) {
    Seams seams;
    EXPECT_EQ(disk_util_count_of_exist_usb_serial(), 0);
    char name[20] = {};
    EXPECT_EQ(disk_util_get_usb_serial_name_by_index(0, name, sizeof name), -1);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(DiskQueries, FolderNamesInOneReadAreTheByIndexNamesInTheirOrder) {
    Seams seams;
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    for (const char* f : {"Music", ".Trash", "notes~", "Photos", "Docs"})
        mkdir((std::string("/tmp/disk/sda1/") + f).c_str(), 0775);
    mkdir(("/tmp/disk/sda1/" + std::string(70, 'f')).c_str(), 0775);
    write_file("/tmp/disk/sda1/song.mp3", "x");
    const std::vector<std::string> names = disk_util_get_folder_names("sda1");
    ASSERT_EQ(static_cast<int>(names.size()), disk_util_get_count_of_folder_by_name("sda1"));
    for (std::size_t i = 0; i < names.size(); ++i) {
        char name[100] = {};
        disk_util_get_folder_name_by_index(static_cast<int>(i), "sda1", name, sizeof name);
        EXPECT_EQ(names[i], name);
    }
    EXPECT_TRUE(disk_util_get_folder_names("sdz1").empty());
    EXPECT_TRUE(disk_util_get_folder_names("../etc").empty());
}
