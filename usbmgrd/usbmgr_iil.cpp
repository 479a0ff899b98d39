// The daemon's binding to the message bus: its command and event tables,
// the events it declares and subscribes to, and the one notification it sends.
#include "db_util/log.h"
#include "usbmgrd/usbmgrd.h"

namespace {
constexpr const char kLogModule[] = "usbmgrd.c";
}

// Declared sizes are the payload layouts; a unit test holds them to the
// sizes the bus mapping publishes.
const OrbIilCmdEntry usbmgr_cmd_table[USBMGR_COMMAND_COUNT] = {
    {2, usbmgr_cmd_get_minidlna_conf, 868},
    {3, usbmgr_cmd_get_samba_conf, 748},
    {4, usbmgr_cmd_get_usb_serial_enable, 4},
    {5, usbmgr_cmd_set_minidlna_conf, sizeof(CmdSetConf)},
    {6, usbmgr_cmd_set_samba_conf, sizeof(CmdSetConf)},
    {7, usbmgr_cmd_set_usb_serial_enable, sizeof(CmdUsbSerialEnable)},
    {8, usbmgr_cmd_get_samba_number_of_users, sizeof(CmdNumber)},
    {9, usbmgr_cmd_get_samba_user_info, sizeof(CmdSambaUserSlot)},
    {10, usbmgr_cmd_add_samba_user, sizeof(CmdSambaUser)},
    {11, usbmgr_cmd_remove_samba_user, sizeof(CmdSambaUser)},
    {12, usbmgr_cmd_modify_samba_user, sizeof(CmdSambaUser)},
    {14, usbmgr_cmd_get_number_of_storage_servive, sizeof(CmdNumberOfStorageService)},
    {15, usbmgr_cmd_get_storage_service, sizeof(CmdStorageService)},
    {16, usbmgr_cmd_get_storage_capabilities, sizeof(CmdStorageCapabilities)},
    {17, usbmgr_cmd_get_storage_netinfo, sizeof(CmdStorageNetInfo)},
    {18, usbmgr_cmd_get_storage_network_server, sizeof(CmdStorageNetworkServer)},
    {19, usbmgr_cmd_get_user_account, sizeof(CmdUserAccount)},
    {20, usbmgr_cmd_get_physical_medium, sizeof(CmdPhysicalMedium)},
    {21, usbmgr_cmd_get_logical_volume, sizeof(CmdLogicalVolume)},
    {22, usbmgr_cmd_get_logical_volume_folder, sizeof(CmdLogicalVolumeFolder)},
    {23, usbmgr_cmd_get_storage_user_access, sizeof(CmdStorageUserAccess)},
    {24, usbmgr_cmd_set_storage_service, sizeof(CmdSetStorageService)},
    {25, usbmgr_cmd_set_storage_netinfo, sizeof(CmdStorageNetInfo)},
    {26, usbmgr_cmd_set_storage_network_server, sizeof(CmdSetStorageNetworkServer)},
    {27, usbmgr_cmd_set_add_storage_user_account, sizeof(CmdSambaUser)},
    {28, usbmgr_cmd_set_remove_storage_user_account, sizeof(CmdSambaUser)},
    {29, usbmgr_cmd_set_modify_storage_user_account, sizeof(CmdSambaUser)},
    {30, usbmgr_cmd_set_physical_medium, sizeof(CmdSetPhysicalMedium)},
    {31, usbmgr_cmd_set_logical_volume, sizeof(CmdSetLogicalVolume)},
    {32, usbmgr_cmd_set_logical_volume_folder, sizeof(CmdLogicalVolumeFolder)},
    {33, usbmgr_cmd_set_storage_add_user_access, sizeof(CmdAddUserAccess)},
    {34, usbmgr_cmd_set_storage_remove_user_access, sizeof(CmdRemoveUserAccess)},
    {35, usbmgr_cmd_set_storage_modify_user_access, sizeof(CmdStorageUserAccess)},
    {36, usbmgr_cmd_set_storage_safe_remove, sizeof(CmdSafeRemove)},
};

const OrbIilEvtEntry usbmgr_evt_table[USBMGR_EVENT_COUNT] = {
    {"DUSB_DMON", DUSB_EVT_NEW_STORAGE_INTERFACE, usbmgr_evt_new_storage_interface},
    {"DUSB_DMON", DUSB_EVT_NEW_USB_SERIAL_INTERFACE, usbmgr_evt_new_usb_serial_interface},
    {"DUSB_DMON", DUSB_EVT_REMOVE_STORAGE_INTERFACE, usbmgr_evt_remove_storage_interface},
    {"DUSB_DMON", DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE, usbmgr_evt_remove_usb_serial_interface},
};

int usbmgr_issue_event() {
    static constexpr struct {
        uint32_t id;
        const char* failure;
    } kEvents[] = {
        {USBMGR_EVT_SERVICE_STATE_CHANGE, "fail to OrbIilIssueEvent() - USBMGR_EVT_SERVICE_STATE_CHANGE , ret = %s"},
        {USBMGR_EVT_MINIDLNA_RELOAD_CONF, "fail to OrbIilIssueEvent() - USBMGR_EVT_MINIDLNA_RELOAD_CONF , ret = %s"},
        {USBMGR_EVT_SAMBA_RELOAD_CONF, "fail to OrbIilIssueEvent() - USBMGR_EVT_SAMBA_RELOAD_CONF , ret = %s"},
        {USBMGR_EVT_MOUNT_DISK, "fail to OrbIilIssueEvent() - USBMGR_EVT_MOUNT_DISK , ret = %s"},
        {USBMGR_EVT_UMOUNTED_DISK, "fail to OrbIilIssueEvent() - USBMGR_EVT_UMOUNTED_DISK , ret = %s"},
    };
    for (const auto& e : kEvents) {
        int ret = OrbIilIssueEvent(&usbmgr_iil_handle, e.id, USBMGR_EVT_PAYLOAD_SIZE);
        if (ret != ORBIIL_OK) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            USBMGR_TRACE(USBMGR_LOG_ERROR, e.failure, usbmgr_iil_err_str(ret));
#pragma GCC diagnostic pop
            return 0;
        }
    }
    return 1;
}

int usbmgr_subscribe_event() {
    static constexpr struct {
        uint32_t id;
        const char* failure;
    } kEvents[] = {
        {DUSB_EVT_NEW_STORAGE_INTERFACE, "fail to OrbIilSubscribeEvent() - DUSB_EVT_NEW_STORAGE_INTERFACE, ret = %s"},
        {DUSB_EVT_NEW_USB_SERIAL_INTERFACE, "fail to OrbIilSubscribeEvent() - DUSB_EVT_NEW_USB_SERIAL_INTERFACE, ret = %s"},
        {DUSB_EVT_REMOVE_STORAGE_INTERFACE, "fail to OrbIilSubscribeEvent() - DUSB_EVT_REMOVE_STORAGE_INTERFACE, ret = %s"},
        {DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE,
         "fail to OrbIilSubscribeEvent() - DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE, ret = %s"},
    };
    for (const auto& e : kEvents) {
        int ret = OrbIilSubscribeEvent(&usbmgr_iil_handle, DUSB_BUS_NAME, e.id);
        if (ret != ORBIIL_OK) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            USBMGR_TRACE(USBMGR_LOG_QUITE, e.failure, usbmgr_iil_err_str(ret));
#pragma GCC diagnostic pop
            return 0;
        }
    }
    return 1;
}

int usbmgr_notify_tr140_event(int32_t kind) {
    int ret = OrbIilNotify(&usbmgr_iil_handle, USBMGR_EVT_SERVICE_STATE_CHANGE, sizeof kind, &kind);
    // The message names the execute call although this is a notify; other
    // tools grep for this text.
    if (ret != ORBIIL_OK) USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to OrbIilExecute(), err = %s", usbmgr_iil_err_str(ret));
    return 0;
}
