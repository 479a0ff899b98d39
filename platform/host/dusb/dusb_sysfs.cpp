// libdusb on sysfs: the USB devices under /sys/bus/usb/devices (or under
// DUSB_SYSFS_ROOT), one directory a device. Interface directories (1-1:1.0)
// carry no device descriptor and are skipped.
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "db_util/owners.h"
#include "db_util/str.h"
#include "dusb_api.h"
#include "platform_export.h"
#include "sysfs_attr.h"

namespace {

constexpr const char kDefaultRoot[] = "/sys/bus/usb/devices";
constexpr int kFailed = 1;

using usbmgr::DirPtr;

std::string sysfs_root() {
    const char* root = getenv("DUSB_SYSFS_ROOT");
    return root && root[0] ? root : kDefaultRoot;
}

bool is_device_entry(const char* name) {
    return name[0] != '.' && strchr(name, ':') == nullptr;
}

// A decimal attribute (busnum, devnum); -1 when missing or not a number.
long read_number(const std::string& dir, const char* attr) { return dusb::read_sysfs_number(dir, attr, 10); }

template <size_t N>
bool read_attr(const std::string& dir, const char* attr, char (&buf)[N]) {
    return dusb::read_sysfs_line(dir, attr, buf);
}

}  // namespace

extern "C" {

PLATFORM_API int ApiGetUsbInfo(OrbIilHandle* /*handle*/, uint32_t len, void* info) {
    if (info == nullptr || len < DUSB_USB_INFO_SIZE) return kFailed;
    std::string root = sysfs_root();
    DirPtr dir(opendir(root.c_str()));
    if (!dir) return kFailed;

    long highest = -1;
    unsigned devices = 0;
    while (struct dirent* e = readdir(dir.get())) {
        if (!is_device_entry(e->d_name)) continue;
        long bus = read_number(root + "/" + e->d_name, "busnum");
        if (bus < 0) continue;
        ++devices;
        if (bus > highest) highest = bus;
    }
    DusbUsbInfo summary{};
    summary.number_of_bus = static_cast<uint8_t>(highest < 0 ? 0 : (highest >= 255 ? 255 : highest + 1));
    summary.number_of_device = static_cast<uint8_t>(devices > 255 ? 255 : devices);
    memcpy(info, &summary, sizeof summary);
    return 0;
}

PLATFORM_API int ApiGetUsbDeviceInfo(OrbIilHandle* /*handle*/, uint32_t len, void* info) {
    if (info == nullptr || len < DUSB_DEVICE_INFO_SIZE) return kFailed;
    DusbDeviceInfo rec;
    memcpy(&rec, info, sizeof rec);
    const uint8_t bus = rec.bus;
    const uint8_t address = rec.address;

    std::string root = sysfs_root();
    DirPtr dir(opendir(root.c_str()));
    if (!dir) return kFailed;
    while (struct dirent* e = readdir(dir.get())) {
        if (!is_device_entry(e->d_name)) continue;
        std::string path = root + "/" + e->d_name;
        if (read_number(path, "busnum") != bus || read_number(path, "devnum") != address) continue;

        DusbDeviceInfo out{};
        out.bus = bus;
        out.address = address;
        char text[256];
        read_attr(path, "version", text);
        dusb::trim_blanks(text);
        usbmgr::copy_str(out.usb_version, text);
        if (read_attr(path, "bcdDevice", text)) out.release_number = static_cast<int32_t>(strtol(text, nullptr, 16));
        read_attr(path, "manufacturer", text);
        usbmgr::copy_str(out.manufacturer, text);
        read_attr(path, "product", text);
        usbmgr::copy_str(out.product, text);
        read_attr(path, "serial", text);
        usbmgr::copy_str(out.serial_number, text);
        usbmgr::format_str(out.port_path, "usb:%s", e->d_name);
        out.status = 0;
        memcpy(info, &out, sizeof out);
        return 0;
    }
    return kFailed;
}

}  // extern "C"
