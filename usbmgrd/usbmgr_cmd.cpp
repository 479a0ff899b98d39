// Bus command handlers. Each runs on the bus library's thread with one
// buffer that holds the request and receives the reply, and returns 0.
#include <cstring>

#include "db_util/db_util.h"
#include "db_util/log.h"
#include "usbmgrd/usbmgrd.h"

namespace {
constexpr const char kLogModule[] = "usbmgrd.c";

// A command whose work comes with a later part of the daemon: it is served
// under its id and name, logs its entry line and leaves the buffer alone.
#define USBMGR_CMD_NOT_YET(name)                         \
    USBMGR_CMD_HANDLER(name) {                           \
        (void)payload;                                   \
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "cmd - " #name); \
        return 0;                                        \
    }
}  // namespace

USBMGR_CMD_HANDLER(usbmgr_cmd_get_number_of_storage_servive) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "cmd - usbmgr_cmd_get_number_of_storage_servive");
    CmdNumberOfStorageService reply{StorageServiceNumberOfEntries};
    std::memcpy(payload, &reply, sizeof reply);
    return 0;
}

USBMGR_CMD_NOT_YET(usbmgr_cmd_get_minidlna_conf)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_samba_conf)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_usb_serial_enable)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_minidlna_conf)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_samba_conf)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_usb_serial_enable)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_samba_number_of_users)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_samba_user_info)
USBMGR_CMD_NOT_YET(usbmgr_cmd_add_samba_user)
USBMGR_CMD_NOT_YET(usbmgr_cmd_remove_samba_user)
// This one writes no entry line.
USBMGR_CMD_HANDLER(usbmgr_cmd_modify_samba_user) {
    (void)payload;
    return 0;
}
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_storage_service)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_storage_capabilities)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_storage_netinfo)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_storage_network_server)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_user_account)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_physical_medium)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_logical_volume)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_logical_volume_folder)
USBMGR_CMD_NOT_YET(usbmgr_cmd_get_storage_user_access)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_storage_service)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_storage_netinfo)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_storage_network_server)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_add_storage_user_account)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_remove_storage_user_account)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_modify_storage_user_account)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_physical_medium)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_logical_volume)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_logical_volume_folder)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_storage_add_user_access)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_storage_remove_user_access)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_storage_modify_user_access)
USBMGR_CMD_NOT_YET(usbmgr_cmd_set_storage_safe_remove)
