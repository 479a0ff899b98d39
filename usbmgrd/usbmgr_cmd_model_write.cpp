// Bus commands 24 to 35: changes to the storage service, made to its sources
// (settings, history file, Samba users) and followed by a model rebuild.
// Each handler gets a copy of its payload from the dispatch and answers in
// place.
#include "usbmgrd/usbmgrd.h"

// These come with the model and the user access records; until then they
// answer nothing and leave the buffer as the request had it.
void usbmgr_cmd_set_storage_service(CmdSetStorageService&) {}
void usbmgr_cmd_set_storage_netinfo(CmdStorageNetInfo&) {}
void usbmgr_cmd_set_storage_network_server(CmdSetStorageNetworkServer&) {}
void usbmgr_cmd_set_add_storage_user_account(CmdSambaUser&) {}
void usbmgr_cmd_set_remove_storage_user_account(CmdSambaUser&) {}
void usbmgr_cmd_set_modify_storage_user_account(CmdSambaUser&) {}
void usbmgr_cmd_set_physical_medium(CmdSetPhysicalMedium&) {}
void usbmgr_cmd_set_logical_volume(CmdSetLogicalVolume&) {}
void usbmgr_cmd_set_logical_volume_folder(CmdLogicalVolumeFolder&) {}
void usbmgr_cmd_set_storage_add_user_access(CmdAddUserAccess&) {}
void usbmgr_cmd_set_storage_remove_user_access(CmdRemoveUserAccess&) {}
void usbmgr_cmd_set_storage_modify_user_access(CmdStorageUserAccess&) {}
