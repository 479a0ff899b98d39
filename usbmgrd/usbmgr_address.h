// How the storage commands address the model: a service number, and disks
// and volumes by their slot in the device tables, which lead to the model
// entry through the index the builder wrote back into the row. Every
// command checks its numbers here, so no command indexes a table or a list
// with a number it was sent.
#ifndef USBMGR_USBMGRD_ADDRESS_H
#define USBMGR_USBMGRD_ADDRESS_H

#include <cstdint>

#include "db_util/db_util.h"

namespace usbmgr {

// Status words of the storage commands.
enum : int32_t {
    STORAGE_OK = 0,
    STORAGE_BAD_SERVICE = -1,      // service number not 0 or 1
    STORAGE_NO_DISK = -2,          // disk slot empty or out of range, or no disk in the model
    STORAGE_NO_VOLUME = -3,        // volume slot empty or out of range, or no volume in the model
    STORAGE_NO_FOLDER = -4,        // folder number not below the volume's folder count
    STORAGE_NO_USER = -5,          // user name or password missing in the settings
    STORAGE_NO_USER_ACCESS = -6,   // no user-access record with that number
    STORAGE_ADD_FAILED = -5,       // the user-access record was not added
    STORAGE_REMOVE_FAILED = -6,    // the user-access record was not removed
};

// True for the service numbers of the model, 0 and 1; negative numbers are
// out of range.
bool service_ok(int32_t service);

// The row of disk slot, or nullptr when the slot is negative, 25 or more, or
// its row is free (device name and serial number both empty).
UsbPhysicalInfo* disk_row(int32_t slot);
// The row of disk slot when it names an attached disk (its device list is
// not empty), or nullptr; negative slots and slots of 25 or more are empty.
UsbPhysicalInfo* attached_disk_row(int32_t slot);
// The row of volume slot, or nullptr when the slot is negative, 25 or more,
// or its row is free (no volume name).
UsbVolumeInfo* volume_row(int32_t slot);

// Index into usbmgr_tr140_db[service].PhysicalMedium of the disk in slot;
// -1 with status set to STORAGE_BAD_SERVICE or STORAGE_NO_DISK (free row,
// no disk in that service, or a row whose model index lies outside it).
int resolve_disk(int32_t service, int32_t slot, int32_t* status);
// Index into usbmgr_tr140_db[service].LogicalVolume of the volume in slot;
// -1 with status set to STORAGE_BAD_SERVICE or STORAGE_NO_VOLUME.
int resolve_volume(int32_t service, int32_t slot, int32_t* status);
// The user-access reads take the model index m of the slot's row and then
// ask whether table row m (not the slot) holds a volume; that mixing is how
// those commands are defined. Index m into the service's LogicalVolume, or
// -1 with status set to STORAGE_BAD_SERVICE or STORAGE_NO_VOLUME (also when
// the slot or m is out of range or the service holds no volume m).
int resolve_volume_by_model_row(int32_t service, int32_t slot, int32_t* status);

}  // namespace usbmgr

#endif
