// dusbd's port files: one line, the device list and "\r\n", replaced whole.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "port_files.h"
#include "temp_dir.h"

namespace {

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

TEST(PortFiles, PortFileHoldsTheListAndCrLfAndGoesAway) {
    TempDir dir("dusbd-ports");
    ASSERT_FALSE(dir.path().empty());
    const std::string usb = dir.path() + "/usb";
    dusb::PortFiles ports(usb);
    ASSERT_TRUE(ports.write("1-2", "sdb,sdb1,sdb2"));
    EXPECT_EQ(slurp(usb + "/1-2"), "sdb,sdb1,sdb2\r\n");
    ASSERT_TRUE(ports.write("1-2", "sdb"));
    EXPECT_EQ(slurp(usb + "/1-2"), "sdb\r\n");
    struct stat st{};
    ASSERT_EQ(stat((usb + "/1-2").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    int entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(usb)) {
        (void)e;
        ++entries;
    }
    EXPECT_EQ(entries, 1) << "no temporary file is left";
    ASSERT_TRUE(ports.remove("1-2"));
    EXPECT_FALSE(std::filesystem::exists(usb + "/1-2"));
    EXPECT_TRUE(ports.remove("1-2")) << "already gone is fine";
}

TEST(PortFiles, FolderThatIsALinkIsNeverWrittenThrough) {
    TempDir dir("dusbd-ports");
    ASSERT_FALSE(dir.path().empty());
    std::filesystem::create_directory(dir.path() + "/elsewhere");
    std::filesystem::create_directory_symlink(dir.path() + "/elsewhere", dir.path() + "/usb");
    dusb::PortFiles ports(dir.path() + "/usb");
    EXPECT_FALSE(ports.write("1-2", "sdb"));
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/elsewhere/1-2"));
}

TEST(PortFiles, PortFileThatIsALinkIsReplacedNotFollowed) {
    TempDir dir("dusbd-ports");
    ASSERT_FALSE(dir.path().empty());
    const std::string usb = dir.path() + "/usb";
    std::filesystem::create_directory(usb);
    std::ofstream(dir.path() + "/victim") << "keep\n";
    std::filesystem::create_symlink(dir.path() + "/victim", usb + "/1-2");
    dusb::PortFiles ports(usb);
    ASSERT_TRUE(ports.write("1-2", "sdb"));
    EXPECT_EQ(slurp(dir.path() + "/victim"), "keep\n");
    EXPECT_EQ(slurp(usb + "/1-2"), "sdb\r\n");
}

}  // namespace
