#include "usbmgrd/usbmgr_address.h"

#include "usbmgrd/usbmgr_tr140.h"

namespace usbmgr {

namespace {

bool in_table(int32_t slot) { return slot >= 0 && slot < USB_TABLE_SIZE; }

bool in_list(int32_t index, uint32_t count) { return index >= 0 && static_cast<uint32_t>(index) < count; }

int fail(int32_t* status, int32_t code) {
    *status = code;
    return -1;
}

}  // namespace

bool service_ok(int32_t service) { return service >= 0 && service < USBMGR_TR140_SERVICE_COUNT; }

UsbPhysicalInfo* disk_row(int32_t slot) {
    if (!in_table(slot)) return nullptr;
    UsbPhysicalInfo& row = usb_physical_info[slot];
    if (row.attach_device[0] == '\0' && row.serial_number[0] == '\0') return nullptr;
    return &row;
}

UsbPhysicalInfo* attached_disk_row(int32_t slot) {
    if (!in_table(slot)) return nullptr;
    UsbPhysicalInfo& row = usb_physical_info[slot];
    return row.attach_device[0] == '\0' ? nullptr : &row;
}

UsbVolumeInfo* volume_row(int32_t slot) {
    if (!in_table(slot)) return nullptr;
    UsbVolumeInfo& row = usb_volume_info[slot];
    return row.name[0] == '\0' ? nullptr : &row;
}

int resolve_disk(int32_t service, int32_t slot, int32_t* status) {
    if (!service_ok(service)) return fail(status, STORAGE_BAD_SERVICE);
    const UsbPhysicalInfo* row = disk_row(slot);
    const tr140_storage_service& s = usbmgr_tr140_db[service];
    if (row == nullptr || s.PhysicalMediumNumberOfEntries == 0 || !s.PhysicalMedium)
        return fail(status, STORAGE_NO_DISK);
    // A row filled after the last build may still carry an old index.
    if (!in_list(row->tr140_db_address, s.PhysicalMediumNumberOfEntries)) return fail(status, STORAGE_NO_DISK);
    return row->tr140_db_address;
}

int resolve_volume(int32_t service, int32_t slot, int32_t* status) {
    if (!service_ok(service)) return fail(status, STORAGE_BAD_SERVICE);
    const UsbVolumeInfo* row = volume_row(slot);
    const tr140_storage_service& s = usbmgr_tr140_db[service];
    if (row == nullptr || s.LogicalVolumeNumberOfEntries == 0 || !s.LogicalVolume)
        return fail(status, STORAGE_NO_VOLUME);
    if (!in_list(row->tr140_db_address, s.LogicalVolumeNumberOfEntries)) return fail(status, STORAGE_NO_VOLUME);
    return row->tr140_db_address;
}

int resolve_volume_by_model_row(int32_t service, int32_t slot, int32_t* status) {
    if (!service_ok(service)) return fail(status, STORAGE_BAD_SERVICE);
    if (!in_table(slot)) return fail(status, STORAGE_NO_VOLUME);
    const int32_t m = usb_volume_info[slot].tr140_db_address;
    const tr140_storage_service& s = usbmgr_tr140_db[service];
    if (volume_row(m) == nullptr || s.LogicalVolumeNumberOfEntries == 0 || !s.LogicalVolume ||
        !in_list(m, s.LogicalVolumeNumberOfEntries))
        return fail(status, STORAGE_NO_VOLUME);
    return m;
}

}  // namespace usbmgr
