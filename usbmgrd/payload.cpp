#include "usbmgrd/payload.h"

namespace {

constexpr const char* kKindNames[USBMGR_TR140_KIND_COUNT] = {
    "USBMGR_TR140_ADD_STORAGE",
    "USBMGR_TR140_REMOVE_STORAGE",
    "USBMGR_TR140_SERVICE_CHANGE",
    "USBMGR_TR140_NETINFO_CHANGE",
    "USBMGR_TR140_NETWORK_SERVICE_CHANGE",
    "USBMGR_TR140_ADD_USER",
    "USBMGR_TR140_REMOVE_USER",
    "USBMGR_TR140_MODIFY_USER",
    "USBMGR_TR140_PHYSICAL_MEDIUM_CHANGE",
    "USBMGR_TR140_LOGICAL_VOLUME_CHANGE",
    "USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE",
    "USBMGR_TR140_ADD_USER_ACCESS",
    "USBMGR_TR140_REMOVE_USER_ACCESS",
    "USBMGR_TR140_MODIFY_USER_ACCES",
    "USBMGR_TR140_STORAGE_SAFE_REMOVE",
};

constexpr const char* kCodeNames[] = {
    "OK",          "ERR",           "OVERSIZE",      "BAD_PARAM",        "NO_MEM",      "TX_FAIL",
    "RX_FAIL",     "TIMEOUT",       "UNKNOWN_SRC_ID", "UNKNOWN_DST_ID",  "UNKNOWN_COMM", "MISMATCH_COMM",
    "UNSUPPORT",   "UNKNOWN_CMD",   "BAD_CMD",       "BAD_RET",          "MISMATCH_CMD_LEN", "UNKNOWN_EVT",
    "BAD_EVT",     "MISMATCH_EVT_LEN", "CONFLICT_ID", "BUSY",
};

}  // namespace

const char* usbmgr_iil_err_str(int code) {
    if (code < 0 || code >= static_cast<int>(sizeof kCodeNames / sizeof kCodeNames[0])) return "Unknown";
    return kCodeNames[code];
}

const char* usbmgr_tr140_kind_name(int32_t kind) {
    if (kind < 0 || kind >= USBMGR_TR140_KIND_COUNT) return nullptr;
    return kKindNames[kind];
}

const UsbmgrCommandInfo usbmgr_command_info[USBMGR_COMMAND_COUNT] = {
    {2, "usbmgr_cmd_get_minidlna_conf", 868},
    {3, "usbmgr_cmd_get_samba_conf", 748},
    {4, "usbmgr_cmd_get_usb_serial_enable", 4},
    {5, "usbmgr_cmd_set_minidlna_conf", 192},
    {6, "usbmgr_cmd_set_samba_conf", 192},
    {7, "usbmgr_cmd_set_usb_serial_enable", 8},
    {8, "usbmgr_cmd_get_samba_number_of_users", 4},
    {9, "usbmgr_cmd_get_samba_user_info", 140},
    {10, "usbmgr_cmd_add_samba_user", 136},
    {11, "usbmgr_cmd_remove_samba_user", 136},
    {12, "usbmgr_cmd_modify_samba_user", 136},
    {14, "usbmgr_cmd_get_number_of_storage_servive", 4},
    {15, "usbmgr_cmd_get_storage_service", 24},
    {16, "usbmgr_cmd_get_storage_capabilities", 104},
    {17, "usbmgr_cmd_get_storage_netinfo", 328},
    {18, "usbmgr_cmd_get_storage_network_server", 28},
    {19, "usbmgr_cmd_get_user_account", 144},
    {20, "usbmgr_cmd_get_physical_medium", 444},
    {21, "usbmgr_cmd_get_logical_volume", 432},
    {22, "usbmgr_cmd_get_logical_volume_folder", 96},
    {23, "usbmgr_cmd_get_storage_user_access", 280},
    {24, "usbmgr_cmd_set_storage_service", 8},
    {25, "usbmgr_cmd_set_storage_netinfo", 328},
    {26, "usbmgr_cmd_set_storage_network_server", 12},
    {27, "usbmgr_cmd_set_add_storage_user_account", 136},
    {28, "usbmgr_cmd_set_remove_storage_user_account", 136},
    {29, "usbmgr_cmd_set_modify_storage_user_account", 136},
    {30, "usbmgr_cmd_set_physical_medium", 76},
    {31, "usbmgr_cmd_set_logical_volume", 80},
    {32, "usbmgr_cmd_set_logical_volume_folder", 96},
    {33, "usbmgr_cmd_set_storage_add_user_access", 80},
    {34, "usbmgr_cmd_set_storage_remove_user_access", 80},
    {35, "usbmgr_cmd_set_storage_modify_user_access", 280},
    {36, "usbmgr_cmd_set_storage_safe_remove", 12},
};

const UsbmgrCommandInfo* usbmgr_command_find(uint32_t id) {
    for (const auto& c : usbmgr_command_info)
        if (c.id == id) return &c;
    return nullptr;
}
