// Whether a folder of the mount root may be mounted on or shared.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "db_util/log.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "platform_fake.h"
#include "test_support.h"

using testing_support::Seams;

namespace {

class FolderCheck : public ::testing::Test {
protected:
    FolderCheck() {
        usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
        umask(022);
        mkdir("/tmp/disk", 0755);
        fake::reset();
    }
    Seams seams;

    // The one line logged, with its level.
    static void expect_refusal(const std::string& text, int level) {
        const auto& log = fake::bus().log;
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0].text, text);
        EXPECT_EQ(log[0].level, level);
        EXPECT_EQ(log[0].module, "disk_util.c");
    }
};

}  // namespace

TEST_F(FolderCheck, RootsOwnFolderMayBeMountedOnAndLogsNothing) {
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    EXPECT_TRUE(disk_util_folder_ok(DiskFolderUse::mount_root));
    EXPECT_TRUE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(FolderCheck, GroupWritableIsAcceptedOnlyForRootsGroup) {
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0775), 0);
    chmod("/tmp/disk/sda1", 0775);
    EXPECT_TRUE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    if (chown("/tmp/disk/sda1", 0, 1) != 0) GTEST_SKIP() << "only root's ids are mapped here";
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
}

TEST_F(FolderCheck, ALinkAsAPartitionsFolderIsRefusedWhereverItPoints) {
    ASSERT_EQ(mkdir("/tmp/elsewhere", 0755), 0);
    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/disk/sda1"), 0);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: a link", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, ALinkToAFileIsRefusedAsALink) {
    testing_support::write_file("/tmp/file", "x");
    ASSERT_EQ(symlink("/tmp/file", "/tmp/disk/sda1"), 0);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: a link", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, ALinkAsTheMountRootIsRefused) {
    rmdir("/tmp/disk");
    ASSERT_EQ(mkdir("/tmp/elsewhere", 0755), 0);
    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/disk"), 0);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_root));
    expect_refusal("refusing folder /tmp/disk: a link", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, AFolderBelowALinkedMountRootIsRefusedForTheRoot) {
    rmdir("/tmp/disk");
    ASSERT_EQ(mkdir("/tmp/elsewhere", 0755), 0);
    ASSERT_EQ(mkdir("/tmp/elsewhere/sda1", 0755), 0);
    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/disk"), 0);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    expect_refusal("refusing folder /tmp/disk: a link", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, ARegularFileIsNotAFolder) {
    testing_support::write_file("/tmp/disk/sda1", "x");
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: not a folder", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, AFolderWritableByOthersIsRefused) {
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    chmod("/tmp/disk/sda1", 0777);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: writable by others", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, AMountRootWritableByOthersIsRefused) {
    chmod("/tmp/disk", 01777);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_root));
    expect_refusal("refusing folder /tmp/disk: writable by others", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, AFolderOfAnotherOwnerIsRefused) {
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    if (chown("/tmp/disk/sda1", 1000, 0) != 0) GTEST_SKIP() << "only root's ids are mapped here";
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: not owned by root", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, OnlyAPartitionsNameIsAFolderOfTheMountRoot) {
    for (const char* name : {"sda", "..", "", "sda1/..", "x"}) {
        fake::reset();
        EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::share, name)) << name;
        EXPECT_EQ(fake::log_texts().size(), 1u) << name;
    }
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::mount_on, nullptr));
}

TEST_F(FolderCheck, AFolderIsSharedOnlyWhenAVolumeIsMountedOnIt) {
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::share, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: not a mount point", USBMGR_LOG_DEBUG);
    testing_support::TmpfsMount volume("/tmp/disk/sda1");
    if (!volume.ok()) GTEST_SKIP() << "no tmpfs mounts here";
    fake::reset();
    EXPECT_TRUE(disk_util_folder_ok(DiskFolderUse::share, "sda1"));
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(FolderCheck, AMountedVolumeOfAnyOwnerAndModeMayBeSharedAndNeedsNoSecondMount) {
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    testing_support::TmpfsMount volume("/tmp/disk/sda1");
    if (!volume.ok()) GTEST_SKIP() << "no tmpfs mounts here";
    // The disk's own root folder: its mode is the disk's business.
    chmod("/tmp/disk/sda1", 0777);
    EXPECT_TRUE(disk_util_folder_ok(DiskFolderUse::share, "sda1"));
    EXPECT_TRUE(disk_util_folder_ok(DiskFolderUse::mount_on, "sda1"));
}

TEST_F(FolderCheck, ALinkIsNeverSharedEvenToAMountPoint) {
    ASSERT_EQ(symlink("/", "/tmp/disk/sda1"), 0);
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::share, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: a link", USBMGR_LOG_ERROR);
}

TEST_F(FolderCheck, AMissingFolderToShareIsLoggedAtDebugOnly) {
    EXPECT_FALSE(disk_util_folder_ok(DiskFolderUse::share, "sda1"));
    expect_refusal("refusing folder /tmp/disk/sda1: missing", USBMGR_LOG_DEBUG);
}
