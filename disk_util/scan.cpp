// Start-up scan: disks that were attached before the daemon came up get no
// hot-plug event, so the device tables are filled from /var/dev, the port
// files and the USB descriptors instead.
#include <cstring>
#include <string_view>

#include "db_util/log.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "dusb_api.h"
#include "db_util/bus_handle.h"

static constexpr const char kLogModule[] = "disk_util.c";

namespace {

constexpr std::size_t kNameSize = 10;
constexpr std::size_t kPortSize = 20;
constexpr std::size_t kListSize = 50;
constexpr int kLastAddress = 126;

// Copies a descriptor text (a fixed field that may lack its terminator)
// into a table field, cut to fit and made safe to store as a value.
template <std::size_t N, std::size_t M>
void take_text(char (&dst)[N], const char (&src)[M]) {
    char text[M + 1] = {};
    std::memcpy(text, src, M);
    usbmgr::copy_str(dst, text);
    usbmgr::sanitize_value_text(dst, N);
}

}  // namespace

int usbmgr_get_usb_descriptor(const char* port, UsbPhysicalInfo* record) {
    DusbUsbInfo summary;
    std::memset(&summary, 0, sizeof summary);
    if (ApiGetUsbInfo(&usbmgr_iil_handle, DUSB_USB_INFO_SIZE, &summary) != 0) return 0;

    char wanted[30];
    if (!usbmgr::format_str(wanted, "usb:%s", port)) return 0;

    DusbDeviceInfo info;
    for (int bus = 0; bus < summary.number_of_bus; ++bus) {
        bool match = false;
        for (int address = 0; address <= kLastAddress; ++address) {
            std::memset(&info, 0, sizeof info);
            info.bus = static_cast<uint8_t>(bus);
            info.address = static_cast<uint8_t>(address);
            if (ApiGetUsbDeviceInfo(&usbmgr_iil_handle, DUSB_DEVICE_INFO_SIZE, &info) != 0 || info.status != 0)
                continue;
            std::string_view path(info.port_path, strnlen(info.port_path, sizeof info.port_path));
            if (path == wanted) {
                match = true;
                break;
            }
        }
        if (!match) continue;
        take_text(record->vendor, info.manufacturer);
        take_text(record->model, info.product);
        take_text(record->usb_version, info.usb_version);
        take_text(record->serial_number, info.serial_number);
        usbmgr::format_str(record->firmware_version, "%d", static_cast<int>(info.release_number));
        break;
    }
    return 0;
}

int usbmgr_scan_exist_device() {
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0, sizeof usb_volume_info);

    int disks = disk_util_get_count_of_physical();
    for (int i = 0; i < disks; ++i) {
        char name[kNameSize] = {};
        if (disk_util_get_physical_name_by_index(i, name, sizeof name) == -1) continue;
        int slot = db_util_get_usb_physical_info_free_item(name);
        if (slot < 0 || slot >= USB_TABLE_SIZE) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "no free slot for %s", name);
            continue;
        }
        UsbPhysicalInfo& entry = usb_physical_info[slot];
        entry.index = slot;

        char list[kListSize] = {};
        char port[kPortSize] = {};
        if (disk_util_get_usbport(name, port, sizeof port, list, sizeof list) != 0) continue;
        // The port file comes from outside: its list must be plain device names.
        if (!disk_util_accept_device_list(list)) continue;

        UsbPhysicalInfo descriptor;
        std::memset(&descriptor, 0, sizeof descriptor);
        usbmgr_get_usb_descriptor(port, &descriptor);

        usbmgr::copy_str(entry.attach_device, list);
        usbmgr::copy_str(entry.vendor, descriptor.vendor);
        usbmgr::copy_str(entry.model, descriptor.model);
        usbmgr::copy_str(entry.usb_version, descriptor.usb_version);
        usbmgr::copy_str(entry.serial_number, descriptor.serial_number);
        usbmgr::copy_str(entry.firmware_version, descriptor.firmware_version);

        int volumes = disk_util_get_number_of_disk_volume(list);
        db_util_tr140_conf_record_new_sn(entry.serial_number, volumes);
    }

    int count = disk_util_get_count_of_volume();
    for (int i = 0; i < count; ++i) {
        char name[kNameSize] = {};
        if (disk_util_get_volume_name_by_index(i, name, sizeof name) == -1) continue;
        int slot = db_util_get_usb_volume_info_free_item(name);
        if (slot < 0 || slot >= USB_TABLE_SIZE) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "no free slot for %s", name);
            continue;
        }
        usb_volume_info[slot].index = slot;
        usbmgr::copy_str(usb_volume_info[slot].name, name);
    }

    db_util_print_usb_physical_info();
    return 0;
}
