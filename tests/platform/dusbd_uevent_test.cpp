// dusbd's uevent reader: the kernel's netlink messages and the KEY=VALUE
// blocks that udevadm monitor --kernel --property prints.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "uevent.h"

namespace {

const std::string kDisk = "/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0/host6/target6:0:0/6:0:0:0/block/sdb";

std::string kernel_message(const std::vector<std::string>& parts) {
    std::string m;
    for (const auto& p : parts) {
        m += p;
        m.push_back('\0');
    }
    return m;
}

TEST(UeventReader, KernelMessageGivesActionPathAndProperties) {
    std::string m = kernel_message({"add@" + kDisk, "ACTION=add", "DEVPATH=" + kDisk, "SUBSYSTEM=block", "MAJOR=8",
                                    "MINOR=16", "DEVNAME=sdb", "DEVTYPE=disk", "DISKSEQ=12", "SEQNUM=4021"});
    auto ev = dusb::parse_kernel_message(m.data(), m.size());
    ASSERT_TRUE(ev.has_value());
    EXPECT_EQ(ev->action, "add");
    EXPECT_EQ(ev->devpath, kDisk);
    EXPECT_EQ(ev->subsystem, "block");
    EXPECT_EQ(ev->devname, "sdb");
    EXPECT_EQ(ev->devtype, "disk");
}

TEST(UeventReader, MessagesThatAreNotTheKernelsAreDropped) {
    std::string udev = kernel_message({"libudev", "ACTION=add", "DEVPATH=" + kDisk});
    EXPECT_FALSE(dusb::parse_kernel_message(udev.data(), udev.size()));
    std::string disagree = kernel_message({"add@" + kDisk, "ACTION=remove", "DEVPATH=" + kDisk});
    EXPECT_FALSE(dusb::parse_kernel_message(disagree.data(), disagree.size()));
    std::string climbing = kernel_message({"add@/devices/../../etc", "ACTION=add", "DEVPATH=/devices/../../etc"});
    EXPECT_FALSE(dusb::parse_kernel_message(climbing.data(), climbing.size()));
    std::string long_name = kernel_message({"add@" + kDisk, "DEVNAME=" + std::string(100, 'a')});
    EXPECT_FALSE(dusb::parse_kernel_message(long_name.data(), long_name.size()));
    EXPECT_FALSE(dusb::parse_kernel_message("", 0));
    std::string no_path = kernel_message({"add@", "ACTION=add"});
    EXPECT_FALSE(dusb::parse_kernel_message(no_path.data(), no_path.size()));
}

TEST(UeventReader, UdevadmMonitorOutputGivesOneEventABlock) {
    const std::string text =
        "monitor will print the received events for:\n"
        "KERNEL - the kernel uevent\n"
        "\n"
        "KERNEL[4711.123456] add      " + kDisk + " (block)\n"
        "ACTION=add\n"
        "DEVPATH=" + kDisk + "\n"
        "SUBSYSTEM=block\n"
        "MAJOR=8\n"
        "MINOR=16\n"
        "DEVNAME=sdb\n"
        "DEVTYPE=disk\n"
        "SEQNUM=4021\n"
        "\n"
        "KERNEL[4711.123999] add      " + kDisk + "/sdb1 (block)\r\n"
        "ACTION=add\r\n"
        "DEVPATH=" + kDisk + "/sdb1\r\n"
        "SUBSYSTEM=block\r\n"
        "DEVNAME=sdb1\r\n"
        "DEVTYPE=partition\r\n"
        "PARTN=1\r\n";
    std::vector<dusb::Uevent> out;
    dusb::UeventBlockReader reader;
    // Byte by byte, as a FIFO may hand it over.
    for (char c : text) reader.feed(&c, 1, out);
    ASSERT_EQ(out.size(), 1u);
    reader.finish(out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].devtype, "disk");
    EXPECT_EQ(out[1].devpath, kDisk + "/sdb1");
    EXPECT_EQ(out[1].devname, "sdb1");
    EXPECT_EQ(out[1].devtype, "partition");
}

TEST(UeventReader, BlockWithAnOverlongLineOrBadPathIsDroppedWhole) {
    std::vector<dusb::Uevent> out;
    dusb::UeventBlockReader reader;
    std::string text = "ACTION=add\nDEVPATH=" + kDisk + "\nX=" + std::string(10000, 'x') + "\nSUBSYSTEM=block\n\n";
    text += "ACTION=add\nDEVPATH=/etc/passwd\nSUBSYSTEM=block\n\n";
    text += "ACTION=add\nDEVPATH=" + kDisk + "\nSUBSYSTEM=block\nDEVNAME=s\x01" "db\n\n";
    text += "DEVPATH=" + kDisk + "\nSUBSYSTEM=block\n\n";
    text += "ACTION=remove\nDEVPATH=" + kDisk + "\nSUBSYSTEM=block\n\n";
    reader.feed(text.data(), text.size(), out);
    reader.finish(out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].action, "remove");
}

TEST(UeventReader, AnyBytesNeverCrashAndGiveOnlySaneEvents) {
    std::string junk;
    for (int i = 0; i < 20000; ++i) junk.push_back(static_cast<char>((i * 7919 + i / 13) & 0xff));
    junk += "\n\nACTION=add\nDEVPATH=" + kDisk + "\n\n";
    std::vector<dusb::Uevent> out;
    dusb::UeventBlockReader reader;
    reader.feed(junk.data(), junk.size(), out);
    reader.finish(out);
    for (const auto& e : out) EXPECT_TRUE(dusb::uevent_is_sane(e));
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.back().devpath, kDisk);
    auto ev = dusb::parse_kernel_message(junk.data(), junk.size() > dusb::kMaxUeventMessage ? 100 : junk.size());
    if (ev) {
        EXPECT_TRUE(dusb::uevent_is_sane(*ev));
    }
}

}  // namespace
