// The start-up scan of disks attached before the daemon came up.
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

void history_settings() {
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 10;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
}

void make_dev(std::initializer_list<const char*> names) {
    for (const char* n : names) write_file(std::string("/var/dev/") + n, "");
}

void make_port_file(const std::string& port, const std::string& line) {
    mkdir("/tmp/usb", 0755);
    write_file("/tmp/usb/" + port, line);
}

DusbDeviceInfo stick(uint8_t bus, uint8_t address, const char* port_path, const char* serial) {
    DusbDeviceInfo d;
    std::memset(&d, 0, sizeof d);
    d.bus = bus;
    d.address = address;
    usbmgr::copy_str(d.usb_version, "2.00");
    d.release_number = 256;
    usbmgr::copy_str(d.manufacturer, "Acme");
    usbmgr::copy_str(d.product, "Stick");
    usbmgr::copy_str(d.serial_number, serial);
    usbmgr::copy_str(d.port_path, port_path);
    d.status = 0;
    return d;
}

bool all_zero(const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < n; ++i)
        if (b[i]) return false;
    return true;
}

std::vector<std::string> history() { return testing_support::read_lines(TR140_CONF_PATH); }

bool ran(const Seams& seams, const std::string& text) {
    for (const auto& t : seams.runner.texts())
        if (t == text) return true;
    return false;
}

}  // namespace

TEST(StartUpScan, NoDiskLeavesBothTablesZeroAndTheHistoryUntouched) {
    Seams seams;
    history_settings();
    std::memset(usb_physical_info, 0x5a, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0x5a, sizeof usb_volume_info);
    make_dev({"ttyUSB0"});

    EXPECT_EQ(usbmgr_scan_exist_device(), 0);

    EXPECT_TRUE(all_zero(usb_physical_info, sizeof usb_physical_info));
    EXPECT_TRUE(all_zero(usb_volume_info, sizeof usb_volume_info));
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
    EXPECT_FALSE(ran(seams, "orbcm_util cfg save"));
    for (const auto& t : fake::log_texts()) EXPECT_EQ(t.rfind("index", 0), std::string::npos) << t;
    EXPECT_TRUE(fake::logged("=========== usb_physical_info ================\n"));
    EXPECT_TRUE(fake::logged("=========== usb_volume_info ================\n"));
}

TEST(StartUpScan, DiskWithTwoPartitionsGivesOneDiskEntryOneHistoryRecordAndTwoVolumes) {
    Seams seams;
    history_settings();
    make_dev({"sda", "sda1", "sda2"});
    make_port_file("1-1", "sda,sda1,sda2\r\n");
    fake::dusb().number_of_bus = 2;
    fake::dusb().devices.push_back(stick(1, 1, "usb:1", "NOTME"));
    fake::dusb().devices.push_back(stick(1, 3, "usb:1-1", "SN123"));

    EXPECT_EQ(usbmgr_scan_exist_device(), 0);

    const UsbPhysicalInfo& disk = usb_physical_info[0];
    EXPECT_EQ(disk.index, 0);
    EXPECT_STREQ(disk.attach_device, "sda,sda1,sda2");
    EXPECT_STREQ(disk.vendor, "Acme");
    EXPECT_STREQ(disk.model, "Stick");
    EXPECT_STREQ(disk.usb_version, "2.0");  // the field holds three characters
    EXPECT_STREQ(disk.serial_number, "SN123");
    EXPECT_STREQ(disk.firmware_version, "256");
    EXPECT_TRUE(all_zero(&usb_physical_info[1], sizeof(UsbPhysicalInfo) * (USB_TABLE_SIZE - 1)));

    std::vector<std::string> expected = {
        "USBMGR.0.SERIAL_NUMBER=SN123", "USBMGR.0.PNAME=",    "USBMGR.0.NAME.0=",
        "USBMGR.0.ENABLE.0=1",          "USBMGR.0.NAME.1=",   "USBMGR.0.ENABLE.1=1",
    };
    EXPECT_EQ(history(), expected);

    std::set<std::string> volumes;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(usb_volume_info[i].index, i);
        volumes.insert(usb_volume_info[i].name);
    }
    EXPECT_EQ(volumes, (std::set<std::string>{"sda1", "sda2"}));
    EXPECT_STREQ(usb_volume_info[2].name, "");
    EXPECT_TRUE(fake::logged(4, "db_util.c", "attach_device       = sda,sda1,sda2"));
}

TEST(StartUpScan, DescriptorNotFoundLeavesTheFieldsEmptyButTheHistoryIsStillRecorded) {
    Seams seams;
    history_settings();
    make_dev({"sda", "sda1"});
    make_port_file("1-1", "sda,sda1\r\n");
    fake::dusb().number_of_bus = 1;
    fake::dusb().devices.push_back(stick(0, 2, "usb:2-1", "OTHER"));

    usbmgr_scan_exist_device();

    const UsbPhysicalInfo& disk = usb_physical_info[0];
    EXPECT_STREQ(disk.attach_device, "sda,sda1");
    EXPECT_STREQ(disk.vendor, "");
    EXPECT_STREQ(disk.model, "");
    EXPECT_STREQ(disk.usb_version, "");
    EXPECT_STREQ(disk.serial_number, "");
    EXPECT_STREQ(disk.firmware_version, "");
    auto lines = history();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "USBMGR.0.SERIAL_NUMBER=");
}

TEST(StartUpScan, AddressLoopStopsAt126SoADeviceAt127IsNeverFound) {
    Seams seams;
    history_settings();
    make_dev({"sda"});
    make_port_file("1-1", "sda\r\n");
    fake::dusb().number_of_bus = 2;
    fake::dusb().devices.push_back(stick(1, 127, "usb:1-1", "SN127"));

    usbmgr_scan_exist_device();

    EXPECT_EQ(fake::dusb().device_queries, 2 * 127);
    EXPECT_STREQ(usb_physical_info[0].serial_number, "");
}

TEST(StartUpScan, DeviceThatIsNotPresentIsSkipped) {
    Seams seams;
    history_settings();
    make_dev({"sda"});
    make_port_file("1-1", "sda\r\n");
    fake::dusb().number_of_bus = 1;
    DusbDeviceInfo gone = stick(0, 4, "usb:1-1", "GONE");
    gone.status = 1;
    fake::dusb().devices.push_back(gone);

    usbmgr_scan_exist_device();
    EXPECT_STREQ(usb_physical_info[0].vendor, "");
}

TEST(StartUpScan, BusSummaryFailureLeavesTheDescriptorEmpty) {
    Seams seams;
    UsbPhysicalInfo record;
    std::memset(&record, 0, sizeof record);
    fake::dusb().usb_info_code = 1;
    fake::dusb().number_of_bus = 1;
    fake::dusb().devices.push_back(stick(0, 1, "usb:1-1", "SN"));
    EXPECT_EQ(usbmgr_get_usb_descriptor("1-1", &record), 0);
    EXPECT_STREQ(record.serial_number, "");
    EXPECT_EQ(fake::dusb().device_queries, 0);
}

TEST(StartUpScan, DescriptorTextsHaveControlCharactersReplacedAndKeepTheirEqualsSign) {
    Seams seams;
    fake::dusb().number_of_bus = 1;
    DusbDeviceInfo d = stick(0, 1, "usb:1-1", "SN=1\nX");
    usbmgr::copy_str(d.manufacturer, "Ac\rme");
    fake::dusb().devices.push_back(d);
    UsbPhysicalInfo record;
    std::memset(&record, 0, sizeof record);
    usbmgr_get_usb_descriptor("1-1", &record);
    EXPECT_STREQ(record.serial_number, "SN=1_X");
    EXPECT_STREQ(record.vendor, "Ac_me");
}

TEST(StartUpScan, DescriptorTextsWithoutTerminatorStayInsideTheirFields) {
    Seams seams;
    fake::dusb().number_of_bus = 1;
    DusbDeviceInfo d = stick(0, 1, "usb:1-1", "");
    std::memset(d.serial_number, 'S', sizeof d.serial_number);
    std::memset(d.usb_version, '9', sizeof d.usb_version);
    fake::dusb().devices.push_back(d);
    UsbPhysicalInfo record;
    std::memset(&record, 0, sizeof record);
    usbmgr_get_usb_descriptor("1-1", &record);
    EXPECT_EQ(std::string(record.serial_number), std::string(63, 'S'));
    EXPECT_STREQ(record.usb_version, "999");
}

TEST(StartUpScan, DiskWithoutPortFileKeepsOnlyItsIndexAndIsNotRecorded) {
    Seams seams;
    history_settings();
    make_dev({"sda"});
    usbmgr_scan_exist_device();
    EXPECT_EQ(usb_physical_info[0].index, 0);
    EXPECT_STREQ(usb_physical_info[0].attach_device, "");
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
}

TEST(StartUpScan, PortFileListWithShellSyntaxIsRefused) {
    Seams seams;
    history_settings();
    make_dev({"sda"});
    make_port_file("1-1", "sda,sda1;touch /tmp/pwned\r\n");
    usbmgr_scan_exist_device();
    EXPECT_STREQ(usb_physical_info[0].attach_device, "");
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sda1;touch /tmp/pwned'"));
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
    EXPECT_FALSE(testing_support::file_exists("/tmp/pwned"));
}

TEST(StartUpScan, PortLineEndingInAnEmptyNameIsStillSeen) {
    Seams seams;
    history_settings();
    make_dev({"sda", "sda1", "sda2", "sda3"});
    // What a start-up mount of a list cut at nineteen characters leaves behind.
    make_port_file("1-1", "sda,sda1,sda2,sda3,\r\n");
    usbmgr_scan_exist_device();
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda,sda1,sda2,sda3,");
    auto lines = history();
    ASSERT_EQ(lines.size(), 2u + 2 * 3);
    EXPECT_EQ(lines.back(), "USBMGR.0.ENABLE.2=1");
    for (const auto& t : fake::log_texts()) EXPECT_EQ(t.rfind("refusing", 0), std::string::npos) << t;
}

TEST(StartUpScan, PortLineCutAtNineteenCharactersIsSeenWithItsWholeList) {
    Seams seams;
    history_settings();
    make_dev({"sda", "sda1", "sda2", "sda3", "sda4"});
    make_port_file("1-1", "sda,sda1,sda2,sda3,sda4\r\n");
    usbmgr_scan_exist_device();
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda,sda1,sda2,sda3,sda4");
    EXPECT_EQ(history().size(), 2u + 2 * 4);
}

TEST(StartUpScan, PortLineOfFiftyCharactersAndMoreKeepsOnlyWholeNames) {
    Seams seams;
    history_settings();
    make_dev({"sda", "sda1"});
    // Forty-nine characters are read: "sda,sda1,...,sda9," and no line end.
    std::string list = "sda";
    for (int i = 1; i <= 15; ++i) list += ",sda" + std::to_string(i);
    make_port_file("1-1", list + "\r\n");
    usbmgr_scan_exist_device();
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda,sda1,sda2,sda3,sda4,sda5,sda6,sda7,sda8,sda9");
    EXPECT_EQ(history().size(), 2u + 2 * 9);
}

TEST(StartUpScan, PortLineCutInsideANameDropsThatName) {
    Seams seams;
    history_settings();
    make_dev({"sda", "sda1"});
    // The read ends inside the line, after "sda2"; the old rule (less two
    // characters) would have kept "sd" as a partition.
    make_port_file("1-1", "sda,sda10,sda11,sda12,sda13,sda14,sda15,sda1,sda2,sda3\r\n");
    usbmgr_scan_exist_device();
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda,sda10,sda11,sda12,sda13,sda14,sda15,sda1");
    EXPECT_EQ(history().size(), 2u + 2 * 7);
}

TEST(StartUpScan, TwentySixthDiskIsSkippedWhenTheTableIsFull) {
    Seams seams;
    history_settings();
    for (char c = 'a'; c <= 'z'; ++c) {
        std::string name = std::string("sd") + c;
        write_file("/var/dev/" + name, "");
        make_port_file(std::string("1-") + c, name + "\r\n");
    }
    EXPECT_EQ(disk_util_get_count_of_physical(), 26);

    EXPECT_EQ(usbmgr_scan_exist_device(), 0);

    int filled = 0;
    for (const auto& e : usb_physical_info)
        if (e.attach_device[0] != '\0') ++filled;
    EXPECT_EQ(filled, USB_TABLE_SIZE);
    int skipped = 0;
    for (const auto& line : fake::bus().log) {
        if (line.text.rfind("no free slot for sd", 0) == 0) {
            ++skipped;
            EXPECT_EQ(line.level, 4);
        }
    }
    EXPECT_EQ(skipped, 1);
}
