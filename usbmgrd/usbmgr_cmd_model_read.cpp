// Bus commands 14 to 23: reads of the storage service model. Each handler
// gets a copy of its payload from the dispatch and answers in place.
#include "db_util/db_util.h"
#include "usbmgrd/usbmgrd.h"

void usbmgr_cmd_get_number_of_storage_servive(CmdNumberOfStorageService& cmd) {
    cmd.number = StorageServiceNumberOfEntries;
}

// The reads below come with the model; until then they answer nothing and
// leave the buffer as the request had it.
void usbmgr_cmd_get_storage_service(CmdStorageService&) {}
void usbmgr_cmd_get_storage_capabilities(CmdStorageCapabilities&) {}
void usbmgr_cmd_get_storage_netinfo(CmdStorageNetInfo&) {}
void usbmgr_cmd_get_storage_network_server(CmdStorageNetworkServer&) {}
void usbmgr_cmd_get_user_account(CmdUserAccount&) {}
void usbmgr_cmd_get_physical_medium(CmdPhysicalMedium&) {}
void usbmgr_cmd_get_logical_volume(CmdLogicalVolume&) {}
void usbmgr_cmd_get_logical_volume_folder(CmdLogicalVolumeFolder&) {}
void usbmgr_cmd_get_storage_user_access(CmdStorageUserAccess&) {}
