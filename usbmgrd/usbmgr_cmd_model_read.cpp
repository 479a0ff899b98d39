// Bus commands 14 to 23: reads of the storage service model. Each handler
// gets a copy of its payload from the dispatch and answers in place; the
// status word tells success or failure. All but 14 read the service number
// first and then hold the daemon lock, so each reply is a copy of one build.
#include <cstring>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "usbmgrd/usbmgr_address.h"
#include "usbmgrd/usbmgr_tr140.h"
#include "usbmgrd/usbmgrd.h"

namespace {

using usbmgr::resolve_disk;
using usbmgr::resolve_volume;
using usbmgr::resolve_volume_by_model_row;
using usbmgr::service_ok;

// Model strings are terminated inside fields of the same size as the reply's.
template <std::size_t N>
void copy_out(char (&dst)[N], const char (&src)[N]) {
    std::memcpy(dst, src, N);
}

// One Samba user key of the settings file, "USBMGR.SAMBA.<item>.<n>".
template <std::size_t N>
void user_key(char (&key)[N], const char* item, int32_t n) {
    std::memset(key, 0, N);
    usbmgr::format_str(key, "USBMGR.SAMBA.%s.%d", item, static_cast<int>(n));
}

}  // namespace

void usbmgr_cmd_get_number_of_storage_servive(CmdNumberOfStorageService& cmd) {
    cmd.number = StorageServiceNumberOfEntries;
}

void usbmgr_cmd_get_storage_service(CmdStorageService& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (!service_ok(service)) {
        cmd.status = usbmgr::STORAGE_BAD_SERVICE;
        return;
    }
    const tr140_storage_service& s = usbmgr_tr140_db[service];
    cmd.Enable = s.Enable;
    cmd.PhysicalMediumNumberOfEntries = s.PhysicalMediumNumberOfEntries;
    cmd.LogicalVolumeNumberOfEntries = s.LogicalVolumeNumberOfEntries;
    cmd.UserAccountNumberOfEntries = s.UserAccountNumberOfEntries;
    cmd.status = usbmgr::STORAGE_OK;
}

void usbmgr_cmd_get_storage_capabilities(CmdStorageCapabilities& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (!service_ok(service)) {
        cmd.status = usbmgr::STORAGE_BAD_SERVICE;
        return;
    }
    const tr140_capabilities& c = usbmgr_tr140_db[service].Capabilities;
    cmd.FTPCapable = c.FTPCapable;
    cmd.SFTPCapable = c.SFTPCapable;
    cmd.HTTPCapable = c.HTTPCapable;
    cmd.HTTPSCapable = c.HTTPSCapable;
    cmd.HTTPWritable = c.HTTPWritable;
    copy_out(cmd.SupportedNetworkProtocols, c.SupportedNetworkProtocols);
    copy_out(cmd.SupportedFileSystemTypes, c.SupportedFileSystemTypes);
    cmd.VolumeEncryptionCapable = c.VolumeEncryptionCapable;
    cmd.status = usbmgr::STORAGE_OK;
}

void usbmgr_cmd_get_storage_netinfo(CmdStorageNetInfo& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (!service_ok(service)) {
        cmd.status = usbmgr::STORAGE_BAD_SERVICE;
        return;
    }
    const tr140_netinfo& n = usbmgr_tr140_db[service].NetInfo;
    copy_out(cmd.HostName, n.HostName);
    copy_out(cmd.DomainName, n.DomainName);
    cmd.status = usbmgr::STORAGE_OK;
}

void usbmgr_cmd_get_storage_network_server(CmdStorageNetworkServer& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (!service_ok(service)) {
        cmd.status = usbmgr::STORAGE_BAD_SERVICE;
        return;
    }
    const tr140_network_server& n = usbmgr_tr140_db[service].NetworkServer;
    cmd.word1 = n.word1;
    cmd.AFPEnable = n.AFPEnable;
    cmd.NFSEnable = n.NFSEnable;
    cmd.SMBEnable = n.SMBEnable;
    cmd.NetworkProtocolAuthReq = n.NetworkProtocolAuthReq;
    cmd.status = usbmgr::STORAGE_OK;
}

// Reads the settings file, not the model. On success the status word is
// left as the request had it: requesters clear it before they send.
void usbmgr_cmd_get_user_account(CmdUserAccount& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (service != 0) {
        cmd.status = usbmgr::STORAGE_BAD_SERVICE;
        return;
    }
    char key[DB_UTIL_KEY_SIZE];
    char value[DB_UTIL_VALUE_SIZE];

    user_key(key, "USER_NAME", cmd.user);
    std::memset(value, 0, sizeof value);
    if (db_util_config_get_parameter_s(key, value, sizeof value) == -1) {
        cmd.status = usbmgr::STORAGE_NO_USER;
        return;
    }
    std::memset(cmd.Name, 0, sizeof cmd.Name);
    usbmgr::copy_str(cmd.Name, value);

    user_key(key, "USER_PASSWORD", cmd.user);
    std::memset(value, 0, sizeof value);
    if (db_util_config_get_parameter_s(key, value, sizeof value) == -1) {
        cmd.status = usbmgr::STORAGE_NO_USER;
        return;
    }
    std::memset(cmd.Password, 0, sizeof cmd.Password);
    usbmgr::copy_str(cmd.Password, value);

    user_key(key, "USER_ENABLE", cmd.user);
    cmd.Enable = static_cast<uint32_t>(db_util_config_get_parameter_i(key));
}

void usbmgr_cmd_get_physical_medium(CmdPhysicalMedium& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    int32_t status = usbmgr::STORAGE_OK;
    const int index = resolve_disk(service, cmd.slot, &status);
    if (index < 0) {
        cmd.status = status;
        return;
    }
    const tr140_physical_medium& pm = usbmgr_tr140_db[service].PhysicalMedium[index];
    copy_out(cmd.Name, pm.Name);
    copy_out(cmd.Vendor, pm.Vendor);
    copy_out(cmd.Model, pm.Model);
    copy_out(cmd.SerialNumber, pm.SerialNumber);
    copy_out(cmd.FirmwareVersion, pm.FirmwareVersion);
    copy_out(cmd.ConnectionType, pm.ConnectionType);
    cmd.Removable = pm.Removable;
    cmd.Capacity = pm.Capacity;
    copy_out(cmd.Status, pm.Status);
    cmd.SMARTCapable = pm.SMARTCapable;
    cmd.HotSwappable = pm.HotSwappable;
    cmd.status = usbmgr::STORAGE_OK;
}

void usbmgr_cmd_get_logical_volume(CmdLogicalVolume& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    int32_t status = usbmgr::STORAGE_OK;
    const int index = resolve_volume(service, cmd.slot, &status);
    if (index < 0) {
        cmd.status = status;
        return;
    }
    const tr140_logical_volume& lv = usbmgr_tr140_db[service].LogicalVolume[index];
    copy_out(cmd.Name, lv.Name);
    copy_out(cmd.Status, lv.Status);
    cmd.Enable = lv.Enable;
    copy_out(cmd.PhysicalReference, lv.PhysicalReference);
    copy_out(cmd.FileSystem, lv.FileSystem);
    cmd.Capacity = lv.Capacity;
    cmd.UsedSpace = lv.UsedSpace;
    cmd.Encrypted = lv.Encrypted;
    cmd.FolderNumberOfEntries = lv.FolderNumberOfEntries;
    cmd.status = usbmgr::STORAGE_OK;
}

void usbmgr_cmd_get_logical_volume_folder(CmdLogicalVolumeFolder& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    int32_t status = usbmgr::STORAGE_OK;
    const int index = resolve_volume(service, cmd.slot, &status);
    if (index < 0) {
        cmd.status = status;
        return;
    }
    const tr140_logical_volume& lv = usbmgr_tr140_db[service].LogicalVolume[index];
    // The folder number is compared unsigned: a negative one is never below the count.
    if (cmd.folder >= lv.FolderNumberOfEntries || !lv.Folder) {
        cmd.status = usbmgr::STORAGE_NO_FOLDER;
        return;
    }
    const tr140_folder& f = lv.Folder[cmd.folder];
    copy_out(cmd.Name, f.Name);
    cmd.Enable = f.Enable;
    cmd.UserAccountAccess = f.UserAccountAccess;
    cmd.UserAccessNumberOfEntries = f.UserAccessNumberOfEntries;
    cmd.status = usbmgr::STORAGE_OK;
}

void usbmgr_cmd_get_storage_user_access(CmdStorageUserAccess& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    int32_t status = usbmgr::STORAGE_OK;
    const int index = resolve_volume_by_model_row(service, cmd.slot, &status);
    if (index < 0) {
        cmd.status = status;
        return;
    }
    cmd.status = usbmgr::STORAGE_NO_USER_ACCESS;
    const tr140_logical_volume& lv = usbmgr_tr140_db[service].LogicalVolume[index];
    if (!lv.Folder || lv.FolderNumberOfEntries == 0) return;
    // Only the root folder carries user access; records are found by their
    // entry number, not by their place in the list.
    const tr140_folder& root = lv.Folder[0];
    for (uint32_t i = 0; root.UserAccess && i < root.UserAccessNumberOfEntries; ++i) {
        const tr140_user_access& ua = root.UserAccess[i];
        if (cmd.number < 0 || ua.tr140_index != static_cast<uint32_t>(cmd.number)) continue;
        cmd.tr140_index = ua.tr140_index;
        copy_out(cmd.UserReference, ua.UserReference);
        cmd.Permissions = ua.Permissions;
        cmd.status = usbmgr::STORAGE_OK;
        return;
    }
}
