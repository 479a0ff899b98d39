// Fake sysfs trees shaped like the kernel's, and the uevents the kernel
// sends for them in its own order, for the tests of dusbd's pieces.
#ifndef USBMGR_TESTS_PLATFORM_DUSBD_FAKE_SYSFS_H
#define USBMGR_TESTS_PLATFORM_DUSBD_FAKE_SYSFS_H

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "uevent.h"

namespace dusbd_test {

inline constexpr const char kHub[] = "/devices/pci0000:00/0000:00:14.0/usb1";

struct UsbIds {
    const char* vendor = "0781";
    const char* product = "5567";
    const char* manufacturer = "SanDisk";
    const char* name = "Cruzer Blade";
    const char* serial = "4C530001230518117223";
    const char* version = " 2.00";
    const char* bcd = "0100";
    const char* device_class = "00";
};

class FakeSysfs {
public:
    explicit FakeSysfs(std::string root) : root_(std::move(root)) {}
    const std::string& root() const { return root_; }

    void file(const std::string& devpath, const std::string& name, const std::string& text) const {
        std::filesystem::create_directories(root_ + devpath);
        std::ofstream(root_ + devpath + "/" + name) << text;
    }
    void remove(const std::string& devpath) const { std::filesystem::remove_all(root_ + devpath); }

    // A USB device on port (1-2) with its descriptor files; returns its devpath.
    std::string usb_device(const std::string& port, const UsbIds& ids = {}) const {
        std::string dev = std::string(kHub) + "/" + port;
        file(dev, "idVendor", std::string(ids.vendor) + "\n");
        file(dev, "idProduct", std::string(ids.product) + "\n");
        file(dev, "bDeviceClass", std::string(ids.device_class) + "\n");
        file(dev, "bDeviceSubClass", "00\n");
        file(dev, "bDeviceProtocol", "00\n");
        file(dev, "version", std::string(ids.version) + "\n");
        file(dev, "bcdDevice", std::string(ids.bcd) + "\n");
        file(dev, "busnum", "1\n");
        file(dev, "devnum", "5\n");
        file(dev, "manufacturer", std::string(ids.manufacturer) + "\n");
        file(dev, "product", std::string(ids.name) + "\n");
        file(dev, "serial", std::string(ids.serial) + "\n");
        file(dev + "/" + port + ":1.0", "bInterfaceClass", "08\n");
        return dev;
    }
    // The SCSI device of a mass-storage interface: usb/port:1.0/hostH/targetH:0:0/H:0:0:L.
    static std::string scsi_device(const std::string& usb, const std::string& port, int host, int lun) {
        const std::string h = std::to_string(host);
        return usb + "/" + port + ":1.0/host" + h + "/target" + h + ":0:0/" + h + ":0:0:" + std::to_string(lun);
    }
    // A disk below a SCSI device with partitions 1..parts; returns its devpath.
    std::string disk(const std::string& scsi, const std::string& name, int parts, long sectors = 15633408) const {
        std::string d = scsi + "/block/" + name;
        file(d, "size", std::to_string(sectors) + "\n");
        file(d, "removable", "1\n");
        for (int p = 1; p <= parts; ++p) {
            file(d + "/" + name + std::to_string(p), "partition", std::to_string(p) + "\n");
            file(d + "/" + name + std::to_string(p), "size", "2048\n");
        }
        // Not partitions: folders and files every disk has.
        file(d + "/queue", "rotational", "1\n");
        file(d + "/holders", ".keep", "");
        return d;
    }

private:
    std::string root_;
};

inline dusb::Uevent ev(const std::string& action, const std::string& devpath, const std::string& subsystem,
                       const std::string& devtype = "", const std::string& devname = "") {
    return dusb::Uevent{action, devpath, subsystem, devname, devtype};
}

// What the kernel sends when a USB disk appears: the USB device and its
// interface, the SCSI host, target and device with their class devices,
// the disk, then its partitions.
inline std::vector<dusb::Uevent> storage_added(const std::string& usb, const std::string& port,
                                               const std::vector<std::string>& scsi_devs,
                                               const std::vector<std::string>& disks,
                                               const std::vector<std::vector<std::string>>& parts) {
    const std::string intf = usb + "/" + port + ":1.0";
    std::vector<dusb::Uevent> out = {
        ev("add", usb, "usb", "usb_device", "bus/usb/001/005"),
        ev("add", intf, "usb", "usb_interface"),
    };
    const std::string host = scsi_devs.front().substr(0, scsi_devs.front().find("/target"));
    out.push_back(ev("add", host, "scsi", "scsi_host"));
    out.push_back(ev("add", host + "/scsi_host/" + host.substr(host.rfind('/') + 1), "scsi_host"));
    out.push_back(ev("bind", intf, "usb", "usb_interface"));
    out.push_back(ev("bind", usb, "usb", "usb_device", "bus/usb/001/005"));
    const std::string target = scsi_devs.front().substr(0, scsi_devs.front().rfind('/'));
    out.push_back(ev("add", target, "scsi", "scsi_target"));
    for (std::size_t i = 0; i < scsi_devs.size(); ++i) {
        const std::string& sd = scsi_devs[i];
        const std::string hctl = sd.substr(sd.rfind('/') + 1);
        out.push_back(ev("add", sd, "scsi", "scsi_device"));
        out.push_back(ev("add", sd + "/scsi_disk/" + hctl, "scsi_disk"));
        out.push_back(ev("add", sd + "/scsi_device/" + hctl, "scsi_device"));
        out.push_back(ev("add", sd + "/scsi_generic/sg" + std::to_string(i + 1), "scsi_generic", "", "sg1"));
        out.push_back(ev("add", sd + "/bsg/" + hctl, "bsg", "", "bsg/" + hctl));
    }
    for (std::size_t i = 0; i < disks.size(); ++i) {
        const std::string d = scsi_devs[i] + "/block/" + disks[i];
        out.push_back(ev("add", "/devices/virtual/bdi/8:" + std::to_string(16 * (i + 1)), "bdi"));
        out.push_back(ev("add", d, "block", "disk", disks[i]));
        for (const auto& p : parts[i]) out.push_back(ev("add", d + "/" + p, "block", "partition", p));
        out.push_back(ev("bind", scsi_devs[i], "scsi", "scsi_device"));
    }
    return out;
}

// What the kernel sends when it goes: partitions first, then the disk, the
// SCSI devices, the host, the interface and the USB device last.
inline std::vector<dusb::Uevent> storage_removed(const std::string& usb, const std::string& port,
                                                 const std::vector<std::string>& scsi_devs,
                                                 const std::vector<std::string>& disks,
                                                 const std::vector<std::vector<std::string>>& parts) {
    std::vector<dusb::Uevent> out;
    for (std::size_t i = 0; i < disks.size(); ++i) {
        const std::string d = scsi_devs[i] + "/block/" + disks[i];
        for (const auto& p : parts[i]) out.push_back(ev("remove", d + "/" + p, "block", "partition", p));
        out.push_back(ev("remove", "/devices/virtual/bdi/8:" + std::to_string(16 * (i + 1)), "bdi"));
        out.push_back(ev("remove", d, "block", "disk", disks[i]));
        out.push_back(ev("unbind", scsi_devs[i], "scsi", "scsi_device"));
        out.push_back(ev("remove", scsi_devs[i], "scsi", "scsi_device"));
    }
    const std::string target = scsi_devs.front().substr(0, scsi_devs.front().rfind('/'));
    const std::string host = scsi_devs.front().substr(0, scsi_devs.front().find("/target"));
    out.push_back(ev("remove", target, "scsi", "scsi_target"));
    out.push_back(ev("remove", host, "scsi", "scsi_host"));
    out.push_back(ev("unbind", usb + "/" + port + ":1.0", "usb", "usb_interface"));
    out.push_back(ev("remove", usb + "/" + port + ":1.0", "usb", "usb_interface"));
    out.push_back(ev("unbind", usb, "usb", "usb_device", "bus/usb/001/005"));
    out.push_back(ev("remove", usb, "usb", "usb_device", "bus/usb/001/005"));
    return out;
}

}  // namespace dusbd_test

#endif
