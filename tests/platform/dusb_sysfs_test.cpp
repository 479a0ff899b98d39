// libdusb on a fake sysfs tree (DUSB_SYSFS_ROOT).
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dusb_api.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

class FakeSysfs : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        setenv("DUSB_SYSFS_ROOT", root_.c_str(), 1);

        attr("usb1", "busnum", "1\n");
        attr("usb1", "devnum", "1\n");
        attr("usb1", "version", " 2.00\n");
        attr("usb1", "bcdDevice", "0602\n");
        attr("usb1", "manufacturer", "Linux 6.1.0 xhci-hcd\n");
        attr("usb1", "product", "xHCI Host Controller\n");
        attr("usb1", "serial", "0000:00:14.0\n");
        attr("1-1", "busnum", "1\n");
        attr("1-1", "devnum", "3\n");
        attr("1-1", "version", " 2.10\n");
        attr("1-1", "bcdDevice", "0100\n");
        attr("1-1", "manufacturer", "SanDisk\n");
        attr("1-1", "product", "Cruzer Blade\n");
        attr("1-1", "serial", "4C530001230518117223\n");
        // An interface directory: never a device, whatever it holds.
        attr("1-1:1.0", "busnum", "9\n");
        attr("1-1:1.0", "devnum", "3\n");
        attr("usb2", "busnum", "2\n");
        attr("usb2", "devnum", "1\n");
    }
    void TearDown() override {
        unsetenv("DUSB_SYSFS_ROOT");
    }
    void attr(const std::string& dev, const std::string& name, const std::string& text) {
        fs::create_directories(root_ + "/" + dev);
        std::ofstream(root_ + "/" + dev + "/" + name) << text;
    }
    DusbDeviceInfo query(uint8_t bus, uint8_t address, int* result) {
        DusbDeviceInfo rec{};
        rec.bus = bus;
        rec.address = address;
        *result = ApiGetUsbDeviceInfo(nullptr, sizeof rec, &rec);
        return rec;
    }

    TempDir dir_{"dusb-test"};
    const std::string& root_ = dir_.path();
};

TEST_F(FakeSysfs, SummaryReportsHighestBusPlusOne) {
    DusbUsbInfo info{};
    ASSERT_EQ(ApiGetUsbInfo(nullptr, sizeof info, &info), 0);
    EXPECT_EQ(info.number_of_bus, 3);
}

TEST_F(FakeSysfs, SummaryOfEmptyTreeIsZeroBuses) {
    std::error_code ec;
    fs::remove_all(root_, ec);
    fs::create_directories(root_);
    DusbUsbInfo info{};
    info.number_of_bus = 77;
    ASSERT_EQ(ApiGetUsbInfo(nullptr, sizeof info, &info), 0);
    EXPECT_EQ(info.number_of_bus, 0);
}

TEST_F(FakeSysfs, UnreadableRootFailsSummary) {
    setenv("DUSB_SYSFS_ROOT", (root_ + "/missing").c_str(), 1);
    DusbUsbInfo info{};
    EXPECT_NE(ApiGetUsbInfo(nullptr, sizeof info, &info), 0);
}

TEST_F(FakeSysfs, DeviceRecordCarriesVersionReleaseStringsAndPortPath) {
    int r = -1;
    DusbDeviceInfo rec = query(1, 3, &r);
    ASSERT_EQ(r, 0);
    EXPECT_STREQ(rec.usb_version, "2.10");
    EXPECT_EQ(rec.release_number, 256);
    EXPECT_STREQ(rec.manufacturer, "SanDisk");
    EXPECT_STREQ(rec.product, "Cruzer Blade");
    EXPECT_STREQ(rec.serial_number, "4C530001230518117223");
    EXPECT_STREQ(rec.port_path, "usb:1-1");
    EXPECT_EQ(rec.status, 0);
    EXPECT_EQ(rec.bus, 1);
    EXPECT_EQ(rec.address, 3);
}

TEST_F(FakeSysfs, RootHubIsADeviceToo) {
    int r = -1;
    DusbDeviceInfo rec = query(1, 1, &r);
    ASSERT_EQ(r, 0);
    EXPECT_STREQ(rec.usb_version, "2.00");
    EXPECT_EQ(rec.release_number, 0x602);
    EXPECT_STREQ(rec.port_path, "usb:usb1");
}

TEST_F(FakeSysfs, AbsentDeviceIsReportedAsFailure) {
    int r = 0;
    query(1, 127, &r);
    EXPECT_NE(r, 0);
    query(9, 3, &r);  // only the interface directory claims bus 9
    EXPECT_NE(r, 0);
}

TEST_F(FakeSysfs, OverlongStringsAreCutToTheirFields) {
    attr("1-1", "manufacturer", std::string(100, 'M') + "\n");
    int r = -1;
    DusbDeviceInfo rec = query(1, 3, &r);
    ASSERT_EQ(r, 0);
    EXPECT_EQ(std::string(rec.manufacturer), std::string(63, 'M'));
    EXPECT_STREQ(rec.product, "Cruzer Blade");
}

TEST_F(FakeSysfs, ShortBuffersAreRefused) {
    DusbUsbInfo info{};
    EXPECT_NE(ApiGetUsbInfo(nullptr, sizeof info - 1, &info), 0);
    DusbDeviceInfo rec{};
    rec.bus = 1;
    rec.address = 3;
    EXPECT_NE(ApiGetUsbDeviceInfo(nullptr, sizeof rec - 1, &rec), 0);
    EXPECT_EQ(rec.port_path[0], '\0');
}

}  // namespace
