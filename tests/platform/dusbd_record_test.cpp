// dusbd's record builder: the 282-byte record from a USB device's sysfs
// files, and where a block device's USB device and port are.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "dusbd_fake_sysfs.h"
#include "temp_dir.h"
#include "usb_record.h"

namespace {

using dusbd_test::FakeSysfs;

std::string field(const char* f, std::size_t n) { return std::string(f, strnlen(f, n)); }

class UsbRecord : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
    TempDir dir_{"dusbd-record"};
    FakeSysfs sys_{dir_.path()};
};

TEST_F(UsbRecord, RecordHoldsTheUsbDevicesDescriptorFiles) {
    const std::string usb = sys_.usb_device("1-2");
    sys_.file(usb, "bDeviceClass", "ef\n");
    sys_.file(usb, "bDeviceSubClass", "02\n");
    sys_.file(usb, "bDeviceProtocol", "01\n");
    DusbDeviceRecord r = dusb::build_usb_record(dir_.path() + usb, "sdb,sdb1", true);
    EXPECT_EQ(r.Index, 5);
    EXPECT_EQ(r.ArrivedOrLeft, 1);
    EXPECT_EQ(r.VendorID, 0x0781);
    EXPECT_EQ(r.ProductID, 0x5567);
    EXPECT_EQ(r.DeviceClass, 0xef);
    EXPECT_EQ(r.DeviceSubClass, 0x02);
    EXPECT_EQ(r.DeviceProtocol, 0x01);
    EXPECT_EQ(field(r.AttachDevice, 64), "sdb,sdb1");
    EXPECT_EQ(field(r.USBVersion, 7), "2.00") << "version trimmed";
    EXPECT_EQ(r.DeviceVersion, 0x100) << "bcdDevice read as hex";
    EXPECT_EQ(field(r.Manufacturer, 64), "SanDisk");
    EXPECT_EQ(field(r.ProductClass, 64), "Cruzer Blade");
    EXPECT_EQ(field(r.SerialNumber, 64), "4C530001230518117223");
    EXPECT_EQ(r.HostIndexInDB, 0);
    EXPECT_EQ(r.DeviceNumberOfEntries, 0);
}

TEST_F(UsbRecord, MissingFilesGiveZeroesAndEmptyTexts) {
    sys_.file("/devices/pci0000:00/0000:00:14.0/usb1/1-7", "idVendor", "abcd\n");
    DusbDeviceRecord r = dusb::build_usb_record(dir_.path() + "/devices/pci0000:00/0000:00:14.0/usb1/1-7", "sdb", false);
    EXPECT_EQ(r.VendorID, 0xabcd);
    EXPECT_EQ(r.ProductID, 0);
    EXPECT_EQ(r.ArrivedOrLeft, 0);
    EXPECT_EQ(field(r.SerialNumber, 64), "");
    EXPECT_EQ(field(r.USBVersion, 7), "");
}

TEST_F(UsbRecord, ControlCharactersInTextsAreNeverPassedOn) {
    const std::string usb = sys_.usb_device("1-2");
    sys_.file(usb, "manufacturer", std::string("Evil\x1b[2J\tCorp\x7f", 14) + "\n");
    sys_.file(usb, "serial", std::string("SER\rIAL\0hidden", 14));
    DusbDeviceRecord r = dusb::build_usb_record(dir_.path() + usb, "sdb", true);
    EXPECT_EQ(field(r.Manufacturer, 64), "Evil_[2J_Corp_");
    EXPECT_EQ(field(r.SerialNumber, 64), "SER") << "a text ends at its line end and at a NUL";
}

TEST_F(UsbRecord, LongTextsAreCutToTheirFieldsOnACharacterBoundary) {
    const std::string usb = sys_.usb_device("1-2");
    sys_.file(usb, "product", std::string(62, 'p') + "\xc3\xa9\xc3\xa9" + std::string(300, 'q') + "\n");
    sys_.file(usb, "version", "  2.00000000\n");
    sys_.file(usb, "bcdDevice", "123456789\n");
    DusbDeviceRecord r = dusb::build_usb_record(dir_.path() + usb, "sdb", true);
    EXPECT_EQ(field(r.ProductClass, 64), std::string(62, 'p')) << "no half character at the cut";
    EXPECT_EQ(r.ProductClass[63], '\0');
    EXPECT_EQ(field(r.USBVersion, 7), "2.0000");
    EXPECT_EQ(r.USBVersion[6], '\0');
    EXPECT_EQ(r.DeviceVersion, 0) << "a release number beyond 16 bits is not one";
}

TEST_F(UsbRecord, DeviceListTooLongLosesWholeNames) {
    const std::string usb = sys_.usb_device("1-2");
    std::string list = "sdb";
    for (int i = 1; i <= 20; ++i) list += ",sdb" + std::to_string(i);
    DusbDeviceRecord r = dusb::build_usb_record(dir_.path() + usb, list, true);
    std::string got = field(r.AttachDevice, 64);
    EXPECT_LT(got.size(), 64u);
    EXPECT_EQ(got, list.substr(0, got.size()));
    EXPECT_EQ(list[got.size()], ',');
}

TEST_F(UsbRecord, UsbDeviceOfAStickIsTheFolderWithIdVendorAndItsNameThePort) {
    const std::string usb = sys_.usb_device("1-1.4");
    const std::string disk = sys_.disk(FakeSysfs::scsi_device(usb, "1-1.4", 6, 0), "sdb", 1);
    EXPECT_EQ(dusb::find_usb_device(dir_.path(), disk + "/sdb1"), dir_.path() + usb);
    EXPECT_EQ(dusb::find_usb_device(dir_.path(), disk), dir_.path() + usb);
    EXPECT_EQ(dusb::usb_port_name(dir_.path() + usb), "1-1.4");
}

TEST_F(UsbRecord, InternalDiskAndLoopDeviceHaveNoUsbDevice) {
    const std::string sata = sys_.disk("/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0", "sda", 1);
    sys_.file("/devices/virtual/block/loop0", "size", "8\n");
    // Even with a stray idVendor at the sysfs root or beside /devices.
    sys_.file("", "idVendor", "1234\n");
    sys_.file("/devices", "idVendor", "1234\n");
    EXPECT_EQ(dusb::find_usb_device(dir_.path(), sata), "");
    EXPECT_EQ(dusb::find_usb_device(dir_.path(), "/devices/virtual/block/loop0"), "");
}

TEST_F(UsbRecord, PortNamesThatCannotBeFileNamesAreRefused) {
    EXPECT_EQ(dusb::usb_port_name("/sys/devices/x/1-2"), "1-2");
    EXPECT_EQ(dusb::usb_port_name("/sys/devices/x/.."), "");
    EXPECT_EQ(dusb::usb_port_name("/sys/devices/x/a b"), "");
    EXPECT_EQ(dusb::usb_port_name("/sys/devices/x/" + std::string(20, '1')), "");
}

}  // namespace
