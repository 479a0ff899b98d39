// dusbd's collector on fake sysfs trees fed with the kernel's uevents in
// the kernel's order: what it tells, when, and what the port files say.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "collector.h"
#include "dusbd_fake_sysfs.h"
#include "temp_dir.h"

namespace {

using dusb::Clock;
using dusbd_test::ev;
using dusbd_test::FakeSysfs;
using dusbd_test::kHub;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

class Recorder : public dusb::HotplugSink {
public:
    void write_port(const std::string& port, const std::string& list) override {
        lines.push_back("port " + port + " = " + list);
    }
    void remove_port(const std::string& port) override { lines.push_back("port " + port + " removed"); }
    void send(uint32_t event, const DusbDeviceRecord& record) override {
        char list[sizeof record.AttachDevice + 1] = {};
        std::memcpy(list, record.AttachDevice, sizeof record.AttachDevice);
        lines.push_back("event " + std::to_string(event) + " " + list);
        records.push_back(record);
    }
    Lines take() {
        Lines out;
        out.swap(lines);
        return out;
    }
    Lines lines;
    std::vector<DusbDeviceRecord> records;
};

class Collector : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }

    void feed(const std::vector<dusb::Uevent>& events) {
        for (const auto& e : events) {
            collector_.handle(e, now_);
            now_ += 2ms;  // the kernel's pace, well inside the settle time
        }
    }
    // Lets the settle time pass.
    void settle() {
        now_ += 600ms;
        collector_.tick(now_);
    }

    TempDir dir_{"dusbd-collector"};
    FakeSysfs sys_{dir_.path()};
    Recorder out_;
    Clock::time_point now_{Clock::time_point{} + 1h};
    dusb::Collector collector_{dir_.path(), out_, 500ms};
};

struct Stick {
    std::string usb, scsi, disk;
    std::vector<std::string> parts;
};

Stick make_stick(const FakeSysfs& sys, const std::string& port, int host, const std::string& name, int parts) {
    Stick s;
    s.usb = sys.usb_device(port);
    s.scsi = FakeSysfs::scsi_device(s.usb, port, host, 0);
    s.disk = sys.disk(s.scsi, name, parts);
    for (int p = 1; p <= parts; ++p) s.parts.push_back(name + std::to_string(p));
    return s;
}

TEST_F(Collector, StickWithTwoPartitionsIsToldOnceAfterSettleWithPortFileFirst) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 2);
    feed(dusbd_test::storage_added(s.usb, "1-2", {s.scsi}, {"sdb"}, {s.parts}));
    EXPECT_TRUE(out_.take().empty()) << "nothing before the disk has settled";
    collector_.tick(now_ + 100ms);
    EXPECT_TRUE(out_.take().empty());
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-2 = sdb,sdb1,sdb2", "event 0 sdb,sdb1,sdb2"}));
    settle();
    EXPECT_TRUE(out_.take().empty()) << "told once";
}

TEST_F(Collector, StickWithOnePartitionAndRemovalInKernelOrder) {
    Stick s = make_stick(sys_, "1-1.4", 6, "sdb", 1);
    feed(dusbd_test::storage_added(s.usb, "1-1.4", {s.scsi}, {"sdb"}, {s.parts}));
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-1.4 = sdb,sdb1", "event 0 sdb,sdb1"}));
    sys_.remove(s.usb);
    feed(dusbd_test::storage_removed(s.usb, "1-1.4", {s.scsi}, {"sdb"}, {s.parts}));
    EXPECT_EQ(out_.take(), (Lines{"port 1-1.4 removed", "event 7 sdb,sdb1"}));
    ASSERT_EQ(out_.records.size(), 2u);
    EXPECT_EQ(out_.records[0].ArrivedOrLeft, 1);
    EXPECT_EQ(out_.records[1].ArrivedOrLeft, 0);
    EXPECT_EQ(0, std::memcmp(out_.records[0].SerialNumber, out_.records[1].SerialNumber, 64))
        << "the removal carries the arrival's record";
    settle();
    EXPECT_TRUE(out_.take().empty());
}

TEST_F(Collector, StickWithoutPartitionsIsToldAsTheDiskAlone) {
    Stick s = make_stick(sys_, "2-1", 6, "sdb", 0);
    feed(dusbd_test::storage_added(s.usb, "2-1", {s.scsi}, {"sdb"}, {s.parts}));
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 2-1 = sdb", "event 0 sdb"}));
}

TEST_F(Collector, PartitionsArePutInNumberOrder) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 11);
    feed(dusbd_test::storage_added(s.usb, "1-2", {s.scsi}, {"sdb"}, {s.parts}));
    settle();
    ASSERT_EQ(out_.lines.size(), 2u);
    EXPECT_EQ(out_.lines[1], "event 0 sdb,sdb1,sdb2,sdb3,sdb4,sdb5,sdb6,sdb7,sdb8,sdb9,sdb10,sdb11");
}

TEST_F(Collector, ListTooLongForTheRecordLosesWholeNamesAndIsToldOnce) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 15);
    feed(dusbd_test::storage_added(s.usb, "1-2", {s.scsi}, {"sdb"}, {s.parts}));
    settle();
    ASSERT_EQ(out_.lines.size(), 2u);
    EXPECT_EQ(out_.lines[1], "event 0 sdb,sdb1,sdb2,sdb3,sdb4,sdb5,sdb6,sdb7,sdb8,sdb9,sdb10,sdb11");
    out_.take();
    feed({ev("change", s.disk, "block", "disk", "sdb")});
    settle();
    EXPECT_TRUE(out_.take().empty()) << "the same disk is not told again";
}

TEST_F(Collector, PartitionUeventAfterTheDiskRestartsTheSettleTime) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 2);
    feed({ev("add", s.disk, "block", "disk", "sdb")});
    now_ += 450ms;
    feed({ev("add", s.disk + "/sdb1", "block", "partition", "sdb1")});
    now_ += 100ms;
    collector_.tick(now_);
    EXPECT_TRUE(out_.take().empty()) << "a partition came 100 ms ago";
    ASSERT_TRUE(collector_.next_deadline().has_value());
    collector_.tick(*collector_.next_deadline());
    EXPECT_EQ(out_.take(), (Lines{"port 1-2 = sdb,sdb1,sdb2", "event 0 sdb,sdb1,sdb2"}));
    EXPECT_FALSE(collector_.next_deadline().has_value());
}

TEST_F(Collector, CardReaderWithTwoLunsTellsEachDiskWithItsOwnListAndKeepsOnePortFile) {
    const std::string usb = sys_.usb_device("1-4");
    const std::string lun0 = FakeSysfs::scsi_device(usb, "1-4", 7, 0);
    const std::string lun1 = FakeSysfs::scsi_device(usb, "1-4", 7, 1);
    sys_.disk(lun0, "sdc", 1);
    sys_.disk(lun1, "sdd", 2);
    feed(dusbd_test::storage_added(usb, "1-4", {lun0, lun1}, {"sdc", "sdd"}, {{"sdc1"}, {"sdd1", "sdd2"}}));
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-4 = sdc,sdc1", "event 0 sdc,sdc1", "event 0 sdd,sdd1,sdd2"}));
    // The first card taken out: the port file names the one still there.
    sys_.remove(lun0 + "/block/sdc/sdc1");
    sys_.file(lun0 + "/block/sdc", "size", "0\n");
    feed({ev("change", lun0 + "/block/sdc", "block", "disk", "sdc"),
          ev("remove", lun0 + "/block/sdc/sdc1", "block", "partition", "sdc1")});
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-4 = sdd,sdd1,sdd2", "event 7 sdc,sdc1"}));
    sys_.remove(usb);
    feed(dusbd_test::storage_removed(usb, "1-4", {lun0, lun1}, {"sdc", "sdd"}, {{}, {"sdd1", "sdd2"}}));
    EXPECT_EQ(out_.take(), (Lines{"port 1-4 removed", "event 7 sdd,sdd1,sdd2"}));
}

TEST_F(Collector, EmptyCardSlotIsToldOnlyWhenACardComes) {
    const std::string usb = sys_.usb_device("1-4");
    const std::string lun0 = FakeSysfs::scsi_device(usb, "1-4", 7, 0);
    const std::string disk = sys_.disk(lun0, "sdc", 0, 0);
    feed(dusbd_test::storage_added(usb, "1-4", {lun0}, {"sdc"}, {{}}));
    settle();
    EXPECT_TRUE(out_.take().empty()) << "no medium, nothing to mount";
    sys_.disk(lun0, "sdc", 1, 31116288);
    feed({ev("change", disk, "block", "disk", "sdc"), ev("add", disk + "/sdc1", "block", "partition", "sdc1")});
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-4 = sdc,sdc1", "event 0 sdc,sdc1"}));
}

TEST_F(Collector, RepartitionedDiskIsToldAsRemovedThenArrivedWithItsNewList) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 1);
    feed(dusbd_test::storage_added(s.usb, "1-2", {s.scsi}, {"sdb"}, {s.parts}));
    settle();
    out_.take();
    sys_.file(s.disk + "/sdb2", "partition", "2\n");
    feed({ev("change", s.disk, "block", "disk", "sdb"), ev("add", s.disk + "/sdb2", "block", "partition", "sdb2")});
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-2 removed", "event 7 sdb,sdb1", "port 1-2 = sdb,sdb1,sdb2",
                                  "event 0 sdb,sdb1,sdb2"}));
}

TEST_F(Collector, SerialAdapterSends6And13AtOnceWithItsPortFile) {
    const std::string usb = sys_.usb_device("1-3", dusbd_test::UsbIds{"0403", "6001", "FTDI", "FT232R USB UART",
                                                                       "A50285BI", " 2.00", "0600", "00"});
    const std::string intf = usb + "/1-3:1.0";
    const std::string tty = intf + "/ttyUSB0/tty/ttyUSB0";
    sys_.file(tty, "dev", "188:0\n");
    feed({ev("add", usb, "usb", "usb_device"), ev("add", intf, "usb", "usb_interface"),
          ev("add", intf + "/ttyUSB0", "usb-serial"), ev("add", tty, "tty", "", "ttyUSB0"),
          ev("bind", intf + "/ttyUSB0", "usb-serial"), ev("bind", intf, "usb", "usb_interface"),
          ev("bind", usb, "usb", "usb_device")});
    EXPECT_EQ(out_.take(), (Lines{"port 1-3 = ttyUSB0", "event 6 ttyUSB0"}));
    EXPECT_EQ(out_.records.back().VendorID, 0x0403);
    EXPECT_EQ(out_.records.back().DeviceVersion, 0x600);
    sys_.remove(usb);
    feed({ev("remove", tty, "tty", "", "ttyUSB0"), ev("unbind", intf + "/ttyUSB0", "usb-serial"),
          ev("remove", intf + "/ttyUSB0", "usb-serial"), ev("remove", intf, "usb", "usb_interface"),
          ev("remove", usb, "usb", "usb_device")});
    EXPECT_EQ(out_.take(), (Lines{"port 1-3 removed", "event 13 ttyUSB0"}));
    EXPECT_EQ(out_.records.back().ArrivedOrLeft, 0);
}

TEST_F(Collector, OtherTtysOnUsbAreNotTold) {
    const std::string usb = sys_.usb_device("1-3");
    const std::string acm = usb + "/1-3:1.0/tty/ttyACM0";
    sys_.file(acm, "dev", "166:0\n");
    feed({ev("add", acm, "tty", "", "ttyACM0")});
    EXPECT_TRUE(out_.take().empty());
}

TEST_F(Collector, InternalSataDiskIsIgnored) {
    const std::string scsi = "/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0";
    const std::string disk = sys_.disk(scsi, "sda", 2);
    feed({ev("add", "/devices/pci0000:00/0000:00:17.0/ata1/host0", "scsi", "scsi_host"),
          ev("add", scsi, "scsi", "scsi_device"), ev("add", disk, "block", "disk", "sda"),
          ev("add", disk + "/sda1", "block", "partition", "sda1"),
          ev("add", disk + "/sda2", "block", "partition", "sda2")});
    settle();
    EXPECT_TRUE(out_.take().empty());
    EXPECT_FALSE(collector_.next_deadline().has_value()) << "not even waited for";
}

TEST_F(Collector, LoopDeviceIsIgnored) {
    sys_.file("/devices/virtual/block/loop0", "size", "131072\n");
    sys_.file("/devices/virtual/block/loop0/loop0p1", "partition", "1\n");
    feed({ev("add", "/devices/virtual/block/loop0", "block", "disk", "loop0"),
          ev("change", "/devices/virtual/block/loop0", "block", "disk", "loop0"),
          ev("add", "/devices/virtual/block/loop0/loop0p1", "block", "partition", "loop0p1")});
    settle();
    EXPECT_TRUE(out_.take().empty());
}

TEST_F(Collector, DiskLeftUntoldWhenRemovedBeforeItSettled) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 1);
    feed(dusbd_test::storage_added(s.usb, "1-2", {s.scsi}, {"sdb"}, {s.parts}));
    sys_.remove(s.usb);
    feed(dusbd_test::storage_removed(s.usb, "1-2", {s.scsi}, {"sdb"}, {s.parts}));
    settle();
    EXPECT_TRUE(out_.take().empty());
    EXPECT_FALSE(collector_.next_deadline().has_value());
}

TEST_F(Collector, MissedDiskRemovalIsToldWhenItsUsbDeviceGoes) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 1);
    feed(dusbd_test::storage_added(s.usb, "1-2", {s.scsi}, {"sdb"}, {s.parts}));
    settle();
    out_.take();
    sys_.remove(s.usb);
    feed({ev("remove", s.usb, "usb", "usb_device", "bus/usb/001/005")});
    EXPECT_EQ(out_.take(), (Lines{"port 1-2 removed", "event 7 sdb,sdb1"}));
}

TEST_F(Collector, TwoSticksOnTwoPortsEachGetTheirPortFile) {
    Stick a = make_stick(sys_, "1-1", 6, "sdb", 1);
    Stick b = make_stick(sys_, "1-2", 7, "sdc", 2);
    feed(dusbd_test::storage_added(a.usb, "1-1", {a.scsi}, {"sdb"}, {a.parts}));
    feed(dusbd_test::storage_added(b.usb, "1-2", {b.scsi}, {"sdc"}, {b.parts}));
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-1 = sdb,sdb1", "event 0 sdb,sdb1", "port 1-2 = sdc,sdc1,sdc2",
                                  "event 0 sdc,sdc1,sdc2"}));
}

TEST_F(Collector, DevicesPresentAtStartAreFoundThroughTheClassLinks) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 1);
    std::filesystem::create_directories(dir_.path() + "/class/block");
    std::filesystem::create_directory_symlink("../../" + s.disk.substr(1), dir_.path() + "/class/block/sdb");
    std::filesystem::create_directory_symlink("../../" + s.disk.substr(1) + "/sdb1",
                                              dir_.path() + "/class/block/sdb1");
    std::filesystem::create_directory_symlink("../../devices/virtual/block/loop0", dir_.path() + "/class/block/loop0");
    sys_.file("/devices/virtual/block/loop0", "size", "8\n");
    collector_.scan_present(now_);
    settle();
    EXPECT_EQ(out_.take(), (Lines{"port 1-2 = sdb,sdb1", "event 0 sdb,sdb1"}));
}

TEST_F(Collector, UeventsWithHostilePathsAreIgnored) {
    Stick s = make_stick(sys_, "1-2", 6, "sdb", 1);
    feed({ev("add", s.disk + "/../../../../..", "block", "disk", "sdb"),
          ev("add", "/devices/../devices" + s.disk.substr(8), "block", "disk", "sdb"),
          ev("add", s.disk + "/", "block", "disk", "sdb"), ev("add", "devices" + s.disk.substr(8), "block", "disk")});
    settle();
    EXPECT_TRUE(out_.take().empty());
}

}  // namespace
