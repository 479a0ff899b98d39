// The one file writer: a new file made exclusively beside its target,
// flushed, then renamed over it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "db_util/file_writer.h"
#include "db_util/owners.h"
#include "test_support.h"

using testing_support::file_exists;
using testing_support::read_file;
using testing_support::Seams;
using testing_support::temp_left_beside;
using testing_support::write_file;

namespace {

constexpr const char kTarget[] = "/var/config/target.conf";
constexpr const char kVictim[] = "/var/victim";

mode_t mode_of(const char* path) {
    struct stat st {};
    return lstat(path, &st) == 0 ? st.st_mode : 0;
}

}  // namespace

TEST(FileWriter, ReplacingWritesTheTextWithTheModeTheCallerNames) {
    Seams seams;
    umask(022);
    ASSERT_TRUE(usbmgr::replace_file(kTarget, "a=1\n", 0600));
    EXPECT_EQ(read_file(kTarget), "a=1\n");
    EXPECT_EQ(mode_of(kTarget) & 07777, 0600u);
    ASSERT_TRUE(usbmgr::replace_file(kTarget, "a=2\n", 0644));
    EXPECT_EQ(read_file(kTarget), "a=2\n");
    EXPECT_EQ(mode_of(kTarget) & 07777, 0644u);
    EXPECT_FALSE(temp_left_beside(kTarget));
}

TEST(FileWriter, AnExistingFileOfLooserModeGetsTheNamedMode) {
    Seams seams;
    write_file(kTarget, "old\n");
    chmod(kTarget, 0666);
    ASSERT_TRUE(usbmgr::replace_file(kTarget, "new\n", usbmgr::kPrivateFileMode));
    EXPECT_EQ(mode_of(kTarget) & 07777, 0600u);
}

TEST(FileWriter, TheNewFileIsMadeInTheTargetsOwnFolderWithARandomSuffix) {
    Seams seams;
    usbmgr::FileReplacement file(kTarget, 0644);
    ASSERT_TRUE(file);
    const std::string& temp = file.temp_path();
    EXPECT_EQ(temp.rfind(std::string(kTarget) + ".", 0), 0u);
    EXPECT_EQ(temp.size(), sizeof kTarget - 1 + 7);
    EXPECT_TRUE(temp_left_beside(kTarget));
    // Owner only while it is written.
    EXPECT_EQ(mode_of(temp.c_str()) & 07777, 0600u);
    usbmgr::FileReplacement other(kTarget, 0644);
    ASSERT_TRUE(other);
    EXPECT_NE(other.temp_path(), temp);
}

TEST(FileWriter, ALinkPlantedAtTheTargetIsReplacedAndWhatItPointsAtIsUntouched) {
    Seams seams;
    write_file(kVictim, "root only\n");
    chmod(kVictim, 0600);
    ASSERT_EQ(symlink(kVictim, kTarget), 0);
    ASSERT_TRUE(usbmgr::replace_file(kTarget, "settings\n", 0600));
    EXPECT_EQ(read_file(kVictim), "root only\n");
    EXPECT_TRUE(S_ISREG(mode_of(kTarget)));
    EXPECT_EQ(read_file(kTarget), "settings\n");
}

TEST(FileWriter, ALinkPlantedAtTheNewFilesNameIsNeverFollowed) {
    Seams seams;
    write_file(kVictim, "root only\n");
    // Every name the writer may pick cannot be planted in advance; a link
    // at the name it did pick shows what the exclusive create does there.
    std::string taken;
    {
        usbmgr::FileReplacement probe(kTarget, 0644);
        ASSERT_TRUE(probe);
        taken = probe.temp_path();
    }
    ASSERT_FALSE(file_exists(taken));
    ASSERT_EQ(symlink(kVictim, taken.c_str()), 0);
    usbmgr::UniqueFd fd(open(taken.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    EXPECT_FALSE(fd);
    EXPECT_EQ(errno, EEXIST);
    ASSERT_TRUE(usbmgr::replace_file(kTarget, "settings\n", 0600));
    EXPECT_EQ(read_file(kVictim), "root only\n");
    EXPECT_EQ(read_file(kTarget), "settings\n");
    // The planted link is someone else's: it stays.
    EXPECT_TRUE(S_ISLNK(mode_of(taken.c_str())));
}

TEST(FileWriter, TheTargetKeepsItsOldContentsUntilTheCommit) {
    Seams seams;
    write_file(kTarget, "old\n");
    usbmgr::FileReplacement file(kTarget, 0644);
    ASSERT_TRUE(file);
    std::fputs("new\n", file.stream());
    std::fflush(file.stream());
    EXPECT_EQ(read_file(kTarget), "old\n");
    ASSERT_TRUE(file.commit());
    EXPECT_EQ(read_file(kTarget), "new\n");
    EXPECT_TRUE(file.temp_path().empty());
    EXPECT_FALSE(temp_left_beside(kTarget));
}

TEST(FileWriter, AReplacementDroppedWithoutCommitLeavesTheTargetAndNoNewFile) {
    Seams seams;
    write_file(kTarget, "old\n");
    {
        usbmgr::FileReplacement file(kTarget, 0644);
        ASSERT_TRUE(file);
        std::fputs("half", file.stream());
    }
    EXPECT_EQ(read_file(kTarget), "old\n");
    EXPECT_FALSE(temp_left_beside(kTarget));
}

TEST(FileWriter, ARenameThatFailsLeavesTheTargetIntactAndNoNewFile) {
    Seams seams;
    // A folder at the target: the rename of a file over it fails.
    ASSERT_EQ(mkdir(kTarget, 0755), 0);
    write_file(std::string(kTarget) + "/inside", "kept\n");
    EXPECT_FALSE(usbmgr::replace_file(kTarget, "new\n", 0644));
    EXPECT_EQ(read_file(std::string(kTarget) + "/inside"), "kept\n");
    EXPECT_FALSE(temp_left_beside(kTarget));
}

TEST(FileWriter, AFolderWhereNoFileCanBeMadeChangesNothing) {
    Seams seams;
    write_file(kTarget, "old\n");
    testing_support::ReadOnlyFolder read_only("/var/config");
    if (!read_only.ok()) GTEST_SKIP() << "no read-only bind mount here";
    usbmgr::FileReplacement file(kTarget, 0644);
    EXPECT_FALSE(file);
    EXPECT_EQ(file.stream(), nullptr);
    EXPECT_FALSE(file.commit());
    EXPECT_FALSE(usbmgr::replace_file(kTarget, "new\n", 0644));
    EXPECT_EQ(read_file(kTarget), "old\n");
}

TEST(FileWriter, AMissingFolderOrAnEmptyPathMakesNothing) {
    Seams seams;
    EXPECT_FALSE(usbmgr::replace_file("/var/config/no/such/file", "x", 0644));
    EXPECT_FALSE(usbmgr::replace_file("", "x", 0644));
    EXPECT_FALSE(usbmgr::replace_file(nullptr, "x", 0644));
    EXPECT_FALSE(usbmgr::replace_file("/var/config/", "x", 0644));
}
