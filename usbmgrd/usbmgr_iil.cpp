// The daemon's binding to the message bus: its command and event tables,
// the events it declares and subscribes to, and the one notification it sends.
#include "db_util/log.h"
#include "usbmgrd/usbmgr_dispatch.h"
#include "usbmgrd/usbmgrd.h"

namespace {
constexpr const char kLogModule[] = "usbmgrd.c";
}

// Expanded from the command list: each id served by the typed dispatch of
// its handler, declared with the size of its payload struct.
const OrbIilCmdEntry usbmgr_cmd_table[USBMGR_COMMAND_COUNT] = {
#define USBMGR_COMMAND(id, handler, payload, flags) \
    {id, usbmgr_dispatch<id, payload, handler>, static_cast<uint32_t>(sizeof(payload))},
#include "proto/commands.def"
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
