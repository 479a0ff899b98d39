// Hot-plug intake for USB storage: the arrival and removal handlers, which
// do the disk work at once (tables, history, mounts, folder watches, model)
// and leave the server reloads and the notification to the deferred reload;
// and the checks every hot-plug record passes first (serial adapters too).
#include <cstring>

#include <string>
#include <vector>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/log.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "usbmgrd/usbmgrd.h"

std::atomic<int32_t> usbmgr_evt_in_progress;

namespace {

constexpr const char kLogModule[] = "usbmgrd.c";

// Holds the daemon lock for a storage handler and marks the handler as
// running: the flag is up before the lock is taken and down just before it
// is released, so that the deferred worker can see it without waiting.
class StorageEventScope {
public:
    StorageEventScope() : lock_(usbmgr_evt_in_progress) {}

private:
    usbmgr::DaemonLock lock_;
};

// Calls fn with each partition name of a device list; returns their number.
// The list functions split their argument in place, so each call gets a copy.
template <typename Fn>
int for_each_volume(const char* device_list, Fn fn) {
    char list[sizeof DusbDeviceRecord::AttachDevice];
    usbmgr::copy_str(list, device_list);
    int n = disk_util_get_number_of_disk_volume(list);
    for (int i = 0; i < n; ++i) {
        char volume[64] = {};
        usbmgr::copy_str(list, device_list);
        if (disk_util_get_disk_volume_by_index(i, list, volume, sizeof volume) == 0) fn(volume);
    }
    return n;
}

}  // namespace

bool usbmgr_take_device_record(uint32_t len, const void* payload, DusbDeviceRecord* rec, const char* event) {
    if (payload == nullptr || len < sizeof(DusbDeviceRecord)) {
        USBMGR_TRACE(USBMGR_LOG_ERROR, "%s: device record of %u bytes ignored, %zu expected", event, len,
                     sizeof(DusbDeviceRecord));
        return false;
    }
    std::memcpy(rec, payload, sizeof *rec);
    if (strnlen(rec->AttachDevice, sizeof rec->AttachDevice) == sizeof rec->AttachDevice) {
        USBMGR_TRACE(USBMGR_LOG_ERROR, "%s: AttachDevice not terminated, record ignored", event);
        return false;
    }
    if (!disk_util_device_list_ok(rec->AttachDevice)) {
        char shown[sizeof rec->AttachDevice];
        usbmgr::copy_str(shown, rec->AttachDevice);
        usbmgr::sanitize_value_text(shown, sizeof shown);
        USBMGR_TRACE(USBMGR_LOG_ERROR, "%s: refusing AttachDevice '%s', record ignored", event, shown);
        return false;
    }
    rec->USBVersion[sizeof rec->USBVersion - 1] = '\0';
    rec->Manufacturer[sizeof rec->Manufacturer - 1] = '\0';
    rec->ProductClass[sizeof rec->ProductClass - 1] = '\0';
    rec->SerialNumber[sizeof rec->SerialNumber - 1] = '\0';
    usbmgr::sanitize_value_text(rec->USBVersion, sizeof rec->USBVersion);
    usbmgr::sanitize_value_text(rec->Manufacturer, sizeof rec->Manufacturer);
    usbmgr::sanitize_value_text(rec->ProductClass, sizeof rec->ProductClass);
    usbmgr::sanitize_value_text(rec->SerialNumber, sizeof rec->SerialNumber);
    return true;
}

void print_device_info(const DusbDeviceRecord* r) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   Index                  = %d", r->Index);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   ArrivedOrLeft          = %d", r->ArrivedOrLeft);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   VendorID               = 0x%04X", r->VendorID);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   ProductID              = 0x%04X", r->ProductID);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceClass            = 0x%02X", r->DeviceClass);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceSubClass         = 0x%02X", r->DeviceSubClass);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceProtocol         = 0x%02X", r->DeviceProtocol);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   AttachDevice           = %.*s", static_cast<int>(usbmgr::field_len(r->AttachDevice)),
                 r->AttachDevice);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   USBVersion             = %.*s", static_cast<int>(usbmgr::field_len(r->USBVersion)),
                 r->USBVersion);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceVersion          = %d", static_cast<int>(r->DeviceVersion));
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   Manufacturer           = %.*s", static_cast<int>(usbmgr::field_len(r->Manufacturer)),
                 r->Manufacturer);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   ProductClass           = %.*s", static_cast<int>(usbmgr::field_len(r->ProductClass)),
                 r->ProductClass);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   SerialNumber           = %.*s", static_cast<int>(usbmgr::field_len(r->SerialNumber)),
                 r->SerialNumber);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   HostIndexInDB          = %d", r->HostIndexInDB);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceIndexInDB        = %d", r->DeviceIndexInDB);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   PortIndexInDB          = %d", r->PortIndexInDB);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   HostNumberOfEntries    = %d", r->HostNumberOfEntries);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceNumberOfEntries  = %d", r->DeviceNumberOfEntries);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   PortNumberOfEntries    = %d", r->PortNumberOfEntries);
}

USBMGR_EVT_HANDLER(usbmgr_evt_new_storage_interface) {
    DusbDeviceRecord rec;
    if (!usbmgr_take_device_record(len, payload, &rec, "DUSB_EVT_NEW_STORAGE_INTERFACE")) return 0;
    StorageEventScope scope;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "EVENT - DUSB_EVT_NEW_STORAGE_INTERFACE");
    print_device_info(&rec);

    int slot = db_util_get_usb_physical_info_free_item(rec.AttachDevice);
    if (slot != -1) {
        UsbPhysicalInfo& e = usb_physical_info[slot];
        e.index = slot;
        usbmgr::copy_str(e.attach_device, rec.AttachDevice);
        usbmgr::copy_str(e.vendor, rec.Manufacturer);
        usbmgr::copy_str(e.model, rec.ProductClass);
        usbmgr::copy_str(e.serial_number, rec.SerialNumber);
        usbmgr::format_str(e.firmware_version, "%d", static_cast<int>(rec.DeviceVersion));
        usbmgr::copy_str(e.usb_version, rec.USBVersion);
    }

    int n = for_each_volume(rec.AttachDevice, [](const char* volume) {
        int vslot = db_util_get_usb_volume_info_free_item(volume);
        if (vslot != -1) {
            usb_volume_info[vslot].index = vslot;
            usbmgr::copy_str(usb_volume_info[vslot].name, volume);
        }
    });
    db_util_tr140_conf_record_new_sn(rec.SerialNumber, n);
    char list[sizeof rec.AttachDevice];
    usbmgr::copy_str(list, rec.AttachDevice);
    disk_util_mount_storage(list);
    usbmgr_remove_folder_watches();
    usbmgr_add_folder_watches();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_ADD_STORAGE);
    usbmgr_arm_reload(3, UsbmgrReloadCause::shares);
    return 0;
}

USBMGR_EVT_HANDLER(usbmgr_evt_remove_storage_interface) {
    DusbDeviceRecord rec;
    if (!usbmgr_take_device_record(len, payload, &rec, "DUSB_EVT_REMOVE_STORAGE_INTERFACE")) return 0;
    StorageEventScope scope;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "EVENT - DUSB_EVT_REMOVE_STORAGE_INTERFACE");
    print_device_info(&rec);

    if (db_util_delete_usb_physical_info_item(rec.AttachDevice) == -1) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "device %s not exist ...", rec.AttachDevice);
        return 0;
    }
    // The volumes are still mounted, so they are still found.
    std::vector<std::string> folders;
    for_each_volume(rec.AttachDevice, [&folders](const char* volume) {
        folders.emplace_back(volume);
        db_util_delete_usb_volume_info_item(volume);
    });
    usbmgr_remove_folder_watches();
    app_util_stop_minidllna();
    // With the live reload only the leaving disk's sessions end; the other
    // shares stay served.
    if (app_util_samba_live())
        app_util_samba_close_shares(folders);
    else
        app_util_stop_samba();
    char list[sizeof rec.AttachDevice];
    usbmgr::copy_str(list, rec.AttachDevice);
    disk_util_umount_storage(list);
    usbmgr_add_folder_watches();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_REMOVE_STORAGE);
    usbmgr_arm_reload(3, UsbmgrReloadCause::shares);
    return 0;
}
