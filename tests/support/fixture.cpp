#include "fixture.h"

#include <cstring>

#include "db_util/bus_handle.h"
#include "db_util/db_util.h"
#include "usbmgrd/usbmgr_tr140.h"
#include "usbmgrd/usbmgrd.h"

namespace testing_support {

void reset_device_tables() {
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0, sizeof usb_volume_info);
    USB_PHYSICAL_INFO_MAX = USB_TABLE_SIZE;
    USB_VOLUME_INFO_MAX = USB_TABLE_SIZE;
}

void reset_ring() { std::memset(&usbmgr_evt_buffer, 0, sizeof usbmgr_evt_buffer); }

void reset_deferred_state() {
    usbmgr_evt_in_progress = 0;
    usbmgr_reload_target = 0;
    usbmgr_reload_restart = false;
}

void reset_settings() {
    std::memset(MOUNT_DISK_PATH, 0, sizeof MOUNT_DISK_PATH);
    StorageServiceNumberOfEntries = 0;
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 0;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
    USB_SERIAL_ENABLE = 0;
    SAMBA_LIVE_RELOAD = 0;
    std::memset(&MINIDLNA_CONF, 0, sizeof MINIDLNA_CONF);
    std::memset(&SAMBA_CONF, 0, sizeof SAMBA_CONF);
}

void reset_daemon_state() {
    std::memset(&usbmgr_iil_handle, 0, sizeof usbmgr_iil_handle);
    usbmgr_daemon_signalled = 0;
    usbmgr_daemon_ready = 0;
    pollfds[0] = {-1, 0, 0};
}

void reset_serial_logins() {
    usbmgr_serial_request_stop_all();
    usbmgr_serial_join_all();
}

void reset_storage_model() {
    for (tr140_storage_service& s : usbmgr_tr140_db) s = tr140_storage_service{};
}

void reset_daemon_globals() {
    reset_serial_logins();
    reset_device_tables();
    reset_ring();
    reset_deferred_state();
    reset_settings();
    reset_daemon_state();
    reset_storage_model();
}

DaemonTest::DaemonTest() { reset_daemon_globals(); }

DaemonTest::~DaemonTest() {
    // A login thread may wait in a held getty: ask every one to stop, let
    // the gettys end, and wait for the threads before anything is reset.
    usbmgr_serial_request_stop_all();
    seams.runner.release();
    reset_daemon_globals();
}

}  // namespace testing_support
