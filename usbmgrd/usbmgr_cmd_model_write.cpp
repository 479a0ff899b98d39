// Bus commands 24 to 35: changes to the storage service, made to its sources
// (settings, history file, Samba users) and followed by a model rebuild.
// Each handler gets a copy of its payload from the dispatch and answers in
// place. The model is never changed in place: the source is written, the
// model rebuilt, and only then is the change kind published, so that a
// subscriber reading the model on the event sees the new state.
//
// Two ways of publishing are used on purpose: changes to what Samba shares
// wait for the deferred Samba reload, which flushes the ring after it;
// everything else flushes at once.
#include <cstring>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/str.h"
#include "usbmgrd/usbmgr_address.h"
#include "usbmgrd/usbmgr_tr140.h"
#include "usbmgrd/usbmgrd.h"

namespace {

using usbmgr::service_ok;

// Reload target of the deferred worker: Samba only.
constexpr int32_t kReloadSamba = 2;

// Name fields of the payload are read whole, up to their end
// (usbmgr::FieldText); the Samba user layer checks the result, so a 64-byte
// name is refused there rather than cut here.
using usbmgr::FieldText;

// A name that becomes a value of the history file: cut to the model's
// 64-byte field and cleaned of control characters, so it never adds a line
// to the history file or a section to the Samba configuration.
template <std::size_t N>
void clean_name(char (&out)[N], const char (&field)[N]) {
    FieldText<N> name(field);
    usbmgr::clean_copy(out, name.text);
}

void publish_now(int32_t kind) {
    dp_util_evt_buf_write(kind);
    usbmgr_flush_notify();
}

// The volume slot's partition name, in a cleared 10-character buffer, and
// the serial number of its disk, in a cleared 64-character one.
struct VolumeTarget {
    char device[10] = {};
    char serial[64] = {};
};

// The service and volume slot checks of the volume commands: false with
// the status written for a bad service number or an empty slot.
bool volume_device(int32_t service, int32_t slot, int32_t* status, VolumeTarget* t) {
    if (!service_ok(service)) {
        *status = usbmgr::STORAGE_BAD_SERVICE;
        return false;
    }
    const UsbVolumeInfo* row = usbmgr::volume_row(slot);
    if (row != nullptr) usbmgr::copy_str(t->device, row->name);
    if (t->device[0] == '\0') {
        *status = usbmgr::STORAGE_NO_VOLUME;
        return false;
    }
    return true;
}

// The user-access commands stop without a status when the volume's disk has
// no serial number to find its record by: the lookup tells "not found" only
// by the cleared buffer staying empty, so a disk without a serial number
// counts as not found too.
bool volume_target(int32_t service, int32_t slot, int32_t* status, VolumeTarget* t) {
    if (!volume_device(service, slot, status, t)) return false;
    db_util_get_device_serial_number(t->device, t->serial);
    return t->serial[0] != '\0';
}

}  // namespace

void usbmgr_cmd_set_storage_service(CmdSetStorageService& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (service != 0) return;
    const int32_t enable = static_cast<int32_t>(cmd.Enable);
    if (enable == SAMBA_CONF.enable) return;
    SAMBA_CONF.enable = enable;
    usbmgr_conf_save();
    usbmgr_tr140_db_build();
    usbmgr_arm_reload(kReloadSamba, UsbmgrReloadCause::settings);
}

// Accepted and ignored: the host and domain names are not the daemon's to set.
void usbmgr_cmd_set_storage_netinfo(CmdStorageNetInfo&) {}

void usbmgr_cmd_set_storage_network_server(CmdSetStorageNetworkServer& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (service != 0) return;
    SAMBA_CONF.enable = static_cast<int32_t>(cmd.SMBEnable);
    std::memset(SAMBA_CONF.security, 0, sizeof SAMBA_CONF.security);
    usbmgr::copy_str(SAMBA_CONF.security, cmd.NetworkProtocolAuthReq == 1 ? "user" : "share");
    usbmgr_conf_save();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_NETWORK_SERVICE_CHANGE);
    usbmgr_arm_reload(kReloadSamba, UsbmgrReloadCause::settings);
}

void usbmgr_cmd_set_add_storage_user_account(CmdSambaUser& cmd) {
    usbmgr::DaemonLock lock;
    FieldText name(cmd.name);
    FieldText password(cmd.password);
    cmd.result = app_util_add_samba_user(name.text, password.text, static_cast<int>(cmd.enable));
    if (cmd.result != -1) usbmgr_tr140_db_build();
    // Published whatever the result: subscribers re-read the accounts.
    publish_now(USBMGR_TR140_ADD_USER);
}

void usbmgr_cmd_set_remove_storage_user_account(CmdSambaUser& cmd) {
    usbmgr::DaemonLock lock;
    FieldText name(cmd.name);
    // The user's access records go first, while the user still has its
    // account number to find them by.
    dp_util_get_tr140_remove_useraccess_by_username(name.text);
    cmd.result = app_util_remove_samba_user(name.text);
    usbmgr_tr140_db_build();
    publish_now(USBMGR_TR140_REMOVE_USER);
}

void usbmgr_cmd_set_modify_storage_user_account(CmdSambaUser& cmd) {
    usbmgr::DaemonLock lock;
    FieldText name(cmd.name);
    FieldText password(cmd.password);
    cmd.result = app_util_modify_samba_user(name.text, password.text, static_cast<int>(cmd.enable));
    usbmgr_tr140_db_build();
    publish_now(USBMGR_TR140_MODIFY_USER);
}

// A bad service number answers -2 here, like a bad slot.
void usbmgr_cmd_set_physical_medium(CmdSetPhysicalMedium& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    const UsbPhysicalInfo* row = usbmgr::disk_row(cmd.slot);
    if (!service_ok(service) || row == nullptr) {
        cmd.status = usbmgr::STORAGE_NO_DISK;
        return;
    }
    char name[sizeof cmd.Name];
    clean_name(name, cmd.Name);
    char serial[sizeof row->serial_number + 1] = {};
    std::memcpy(serial, row->serial_number, usbmgr::field_len(row->serial_number));
    db_util_set_tr140_physical_name(serial, name);
    usbmgr_cfg_save();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_PHYSICAL_MEDIUM_CHANGE);
    cmd.status = usbmgr::STORAGE_OK;
    usbmgr_flush_notify();
}

void usbmgr_cmd_set_logical_volume(CmdSetLogicalVolume& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    VolumeTarget t;
    if (!volume_device(service, cmd.slot, &cmd.status, &t)) return;
    // Not checked: a volume of no known disk matches no record and changes nothing.
    db_util_get_device_serial_number(t.device, t.serial);
    char name[sizeof cmd.Name];
    clean_name(name, cmd.Name);
    db_util_set_tr140_volume_info(t.serial, t.device, static_cast<int>(cmd.Enable), name);
    usbmgr_cfg_save();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_LOGICAL_VOLUME_CHANGE);
    usbmgr_arm_reload(kReloadSamba, UsbmgrReloadCause::shares);
    cmd.status = usbmgr::STORAGE_OK;
}

// Accepted and ignored: folders are not set over the bus.
void usbmgr_cmd_set_logical_volume_folder(CmdLogicalVolumeFolder&) {}

void usbmgr_cmd_set_storage_add_user_access(CmdAddUserAccess& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    VolumeTarget t;
    if (!volume_target(service, cmd.slot, &cmd.status, &t)) return;
    char user[sizeof cmd.UserName];
    clean_name(user, cmd.UserName);
    const int id = db_util_get_tr140_device_id_by_serial_number(t.serial);
    const int item = dp_util_get_tr140_useraccess_free_item(id, t.device);
    const int r = dp_util_get_tr140_add_useraccess(id, t.device, item, user, static_cast<int>(cmd.Permissions));
    if (r == -1) {
        cmd.status = usbmgr::STORAGE_ADD_FAILED;
        return;
    }
    usbmgr_cfg_save();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_ADD_USER_ACCESS);
    cmd.status = usbmgr::STORAGE_OK;
    usbmgr_flush_notify();
}

void usbmgr_cmd_set_storage_remove_user_access(CmdRemoveUserAccess& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    VolumeTarget t;
    if (!volume_target(service, cmd.slot, &cmd.status, &t)) return;
    const int id = db_util_get_tr140_device_id_by_serial_number(t.serial);
    const int r = dp_util_get_tr140_remove_useraccess(id, t.device, cmd.number);
    if (r == -1) {
        cmd.status = usbmgr::STORAGE_REMOVE_FAILED;
        return;
    }
    usbmgr_cfg_save();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_REMOVE_USER_ACCESS);
    cmd.status = usbmgr::STORAGE_OK;
    usbmgr_flush_notify();
}

// Accepted and ignored: permissions are changed by revoking and granting.
void usbmgr_cmd_set_storage_modify_user_access(CmdStorageUserAccess&) {}
