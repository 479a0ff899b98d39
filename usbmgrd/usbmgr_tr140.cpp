// The storage service model: free, allocate, fill and print service 0 of
// usbmgr_tr140_db. Every caller holds usbmgr_mutex, so a reader never sees a
// half-built tree.
#include "usbmgrd/usbmgr_tr140.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include <string_view>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/log.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"

static constexpr const char kLogModule[] = "usbmgrd.c";

tr140_storage_service usbmgr_tr140_db[USBMGR_TR140_SERVICE_COUNT];

namespace {

// Buffer sizes of the names the builder works with.
constexpr std::size_t kDeviceNameSize = 10;
constexpr std::size_t kFolderNameSize = 100;
constexpr std::size_t kSerialSize = 64;
constexpr std::size_t kTr140NameSize = 64;
// User-access entry numbers searched per volume.
constexpr int kUserAccessItems = 25;

constexpr const char kOnline[] = "Online";
constexpr const char kOffline[] = "Offline";

// Copies a fixed source field into a fixed destination, bounded by both
// (a source field need not be terminated), always terminated.
template <std::size_t N, std::size_t M>
void copy_field(char (&dst)[N], const char (&src)[M]) {
    std::size_t n = strnlen(src, M);
    if (n > N - 1) n = N - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

template <typename T>
std::unique_ptr<T[]> zeroed_list(int count) {
    // make_unique<T[]> value-initialises: every field zero, every list absent.
    return count > 0 ? std::make_unique<T[]>(static_cast<std::size_t>(count)) : nullptr;
}

uint32_t as_count(int n) { return n > 0 ? static_cast<uint32_t>(n) : 0; }

bool slot_ok(int slot) { return slot >= 0 && slot < USB_TABLE_SIZE; }

// Disk serial number and history-file record number of a volume.
int volume_device_id(const char* volume, char (&serial)[kSerialSize]) {
    std::memset(serial, 0, sizeof serial);
    db_util_get_device_serial_number(volume, serial);
    serial[sizeof serial - 1] = '\0';
    return db_util_get_tr140_device_id_by_serial_number(serial);
}

void fill_physical_medium(tr140_physical_medium& pm, int i) {
    char name[kDeviceNameSize] = {};
    disk_util_get_physical_name_by_index(i, name, sizeof name);
    // A disk the table does not know gets no back-reference and no row data.
    static const UsbPhysicalInfo kNoRow{};
    const UsbPhysicalInfo* row = &kNoRow;
    int slot = db_util_get_usb_physical_info_index_by_device(name);
    if (slot_ok(slot)) {
        usb_physical_info[slot].tr140_db_address = i;
        row = &usb_physical_info[slot];
    }

    char tr140_name[kTr140NameSize] = {};
    if (row != &kNoRow) {
        char serial[sizeof row->serial_number];
        copy_field(serial, row->serial_number);
        db_util_get_tr140_physical_name(serial, tr140_name);
        tr140_name[sizeof tr140_name - 1] = '\0';
    }
    usbmgr::copy_str(pm.Name, tr140_name[0] != '\0' ? tr140_name : name);
    copy_field(pm.Vendor, row->vendor);
    copy_field(pm.Model, row->model);
    copy_field(pm.SerialNumber, row->serial_number);
    copy_field(pm.FirmwareVersion, row->firmware_version);
    usbmgr::format_str(pm.ConnectionType, "USB %.*s", static_cast<int>(usbmgr::field_len(row->usb_version)),
                       row->usb_version);
    pm.Removable = 1;
    DiskSize size{};
    disk_util_get_disk_size(&size, name);
    pm.Capacity = size.total;
    usbmgr::copy_str(pm.Status, kOnline);
    pm.SMARTCapable = 0;
    pm.HotSwappable = 0;
}

// Root folder user access: the records of entry numbers 0 to 24 in order,
// as many as were counted when the list was allocated.
void fill_user_access(tr140_folder& root, int device_id, const char* volume) {
    uint32_t count = 0;
    for (int item = 0; item < kUserAccessItems; ++item) {
        UserAccessInfo record{};
        if (db_util_get_user_access_info_by_index(item, device_id, volume, &record) != -1 &&
            count < root.UserAccessNumberOfEntries) {
            tr140_user_access& ua = root.UserAccess[count];
            ua.tr140_index = static_cast<uint32_t>(item);
            copy_field(ua.UserReference, record.user_reference);
            ua.Permissions = static_cast<uint32_t>(record.permissions);
            ++count;
        }
        if (count == root.UserAccessNumberOfEntries) break;
    }
}

void fill_logical_volume(tr140_logical_volume& lv, int i, uint32_t auth_req) {
    char name[kDeviceNameSize] = {};
    disk_util_get_volume_name_by_index(i, name, sizeof name);
    int slot = db_util_get_usb_volume_info_index_by_device(name);
    if (slot_ok(slot)) usb_volume_info[slot].tr140_db_address = i;

    char serial[kSerialSize];
    int device_id = volume_device_id(name, serial);
    char tr140_name[kTr140NameSize] = {};
    db_util_get_tr140_volume_name(name, serial, tr140_name);
    tr140_name[sizeof tr140_name - 1] = '\0';
    const char* display = tr140_name[0] != '\0' ? tr140_name : name;
    usbmgr::copy_str(lv.Name, display);

    // Only a stored 0 disables: a volume the history file does not know is enabled.
    const bool enabled = db_util_get_tr140_volume_status(name, serial) != 0;
    usbmgr::copy_str(lv.Status, enabled ? kOnline : kOffline);
    lv.Enable = enabled ? 1 : 0;
    usbmgr::format_str(lv.PhysicalReference, "StorageService.0.PhysicalMedium.{%d}.",
                       db_util_get_usb_physical_reference_by_name(name));
    disk_util_get_storage_file_system(name, lv.FileSystem, sizeof lv.FileSystem);
    DiskSize size{};
    disk_util_get_disk_size(&size, name);
    lv.Capacity = size.total;
    lv.UsedSpace = size.used;
    lv.Encrypted = 0;

    // The folder list was sized when it was allocated: a folder made since
    // then is left for the next build, and no entry is written beyond it.
    if (!lv.Folder) {
        lv.FolderNumberOfEntries = 0;
        return;
    }
    const int capacity = static_cast<int>(lv.FolderNumberOfEntries);
    // One read of the volume gives the count and every name: naming folder
    // j by index would read the folder again for each of them.
    const std::vector<std::string> folders = disk_util_get_folder_names(name);
    const int k = std::min(static_cast<int>(folders.size()), capacity - 1);
    lv.FolderNumberOfEntries = static_cast<uint32_t>(k + 1);

    tr140_folder& root = lv.Folder[0];
    usbmgr::format_str(root.Name, "/disk/%s", display);
    root.Enable = lv.Enable;
    root.UserAccountAccess = auth_req == 1 ? 3 : 0;
    fill_user_access(root, device_id, name);

    for (int j = 1; j <= k; ++j) {
        tr140_folder& f = lv.Folder[j];
        usbmgr::format_str(f.Name, "/disk/%s/%s", display, folders[static_cast<std::size_t>(j - 1)].c_str());
        f.Enable = lv.Enable;
        f.UserAccountAccess = 0;
    }
}

void fill_user_account(tr140_user_account& ua, int i) {
    SambaUserInfo user{};
    app_util_get_samba_user_by_index(i, &user);
    copy_field(ua.Name, user.name);
    copy_field(ua.Password, user.password);
    ua.Enable = user.enable;
}

int as_int(uint32_t v) { return static_cast<int>(v); }

}  // namespace

int usbmgr_tr140_db_free() {
    tr140_storage_service& s = usbmgr_tr140_db[0];
    if (s.LogicalVolume) {
        for (uint32_t i = 0; i < s.LogicalVolumeNumberOfEntries; ++i) {
            tr140_logical_volume& lv = s.LogicalVolume[i];
            if (!lv.Folder) continue;
            tr140_folder& root = lv.Folder[0];
            if (root.UserAccess) {
                USBMGR_TRACE(USBMGR_LOG_DEBUG, "free logicalvolume_folder_useraccess = %p",
                             static_cast<void*>(root.UserAccess.get()));
                root.UserAccess.reset();
                root.UserAccessNumberOfEntries = 0;
            }
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "free logicalvolume_folder = %p", static_cast<void*>(lv.Folder.get()));
            lv.Folder.reset();
        }
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "free logicalvolume = %p", static_cast<void*>(s.LogicalVolume.get()));
        s.LogicalVolume.reset();
    }
    s.LogicalVolumeNumberOfEntries = 0;
    if (s.PhysicalMedium) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "free physicalmedium = %p", static_cast<void*>(s.PhysicalMedium.get()));
        s.PhysicalMedium.reset();
    }
    s.PhysicalMediumNumberOfEntries = 0;
    if (s.UserAccount) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "free useraccount = %p", static_cast<void*>(s.UserAccount.get()));
        s.UserAccount.reset();
    }
    s.UserAccountNumberOfEntries = 0;
    return 0;
}

int usbmgr_tr140_db_alloc() {
    tr140_storage_service& s = usbmgr_tr140_db[0];

    int disks = disk_util_get_count_of_physical();
    s.PhysicalMediumNumberOfEntries = as_count(disks);
    s.PhysicalMedium = zeroed_list<tr140_physical_medium>(disks);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "allocate physicalmedium = %p, size = %d",
                 static_cast<void*>(s.PhysicalMedium.get()), as_int(s.PhysicalMediumNumberOfEntries));

    int volumes = disk_util_get_count_of_volume();
    s.LogicalVolumeNumberOfEntries = as_count(volumes);
    s.LogicalVolume = zeroed_list<tr140_logical_volume>(volumes);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "allocate logicalvolume = %p, size = %d",
                 static_cast<void*>(s.LogicalVolume.get()), as_int(s.LogicalVolumeNumberOfEntries));

    for (uint32_t i = 0; i < s.LogicalVolumeNumberOfEntries; ++i) {
        tr140_logical_volume& lv = s.LogicalVolume[i];
        char name[kFolderNameSize] = {};
        disk_util_get_volume_name_by_index(static_cast<int>(i), name, sizeof name);
        int k = disk_util_get_count_of_folder_by_name(name);
        if (k < 0) {
            // No folder list, so nothing later looks for a root folder.
            lv.FolderNumberOfEntries = 0;
        } else {
            lv.FolderNumberOfEntries = static_cast<uint32_t>(k + 1);
            // One entry more than the count: a spare behind the last.
            lv.Folder = zeroed_list<tr140_folder>(k + 2);
            char serial[kSerialSize];
            int device_id = volume_device_id(name, serial);
            int n = db_util_get_number_of_user_access(device_id, name);
            tr140_folder& root = lv.Folder[0];
            if (n >= 1) {
                root.UserAccess = zeroed_list<tr140_user_access>(n);
                root.UserAccessNumberOfEntries = static_cast<uint32_t>(n);
                USBMGR_TRACE(USBMGR_LOG_DEBUG, "allocate %s logicalvolume_folder_useraccess = %p, size = %d", name,
                             static_cast<void*>(root.UserAccess.get()), n);
            }
        }
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "allocate %s logicalvolume_folder = %p, size = %d", name,
                     static_cast<void*>(lv.Folder.get()), k + 1);
    }

    int users = app_util_get_number_of_samba_users();
    s.UserAccountNumberOfEntries = as_count(users);
    s.UserAccount = zeroed_list<tr140_user_account>(users);
    return 0;
}

int usbmgr_tr140_db_build() {
    USBMGR_ASSERT_LOCKED();
    usbmgr_tr140_db_free();
    usbmgr_tr140_db_alloc();

    tr140_storage_service& s = usbmgr_tr140_db[0];
    s.Enable = SAMBA_CONF.enable != 0 ? 1 : 0;
    // The counts stay those the lists were just allocated for: the sources
    // cannot change in between, as every change is made under the lock.

    s.Capabilities.FTPCapable = 0;
    s.Capabilities.SFTPCapable = 0;
    s.Capabilities.HTTPCapable = 0;
    s.Capabilities.HTTPSCapable = 0;
    s.Capabilities.HTTPWritable = 0;
    usbmgr::copy_str(s.Capabilities.SupportedNetworkProtocols, "SMB");
    usbmgr::copy_str(s.Capabilities.SupportedFileSystemTypes, "FAT16,FAT32,NTFS,ext2,ext3,ext4");
    s.Capabilities.VolumeEncryptionCapable = 0;
    std::memset(s.NetInfo.HostName, 0, sizeof s.NetInfo.HostName);
    std::memset(s.NetInfo.DomainName, 0, sizeof s.NetInfo.DomainName);
    s.NetworkServer.AFPEnable = 0;
    s.NetworkServer.NFSEnable = 0;
    s.NetworkServer.SMBEnable = s.Enable;
    const std::string_view security(SAMBA_CONF.security, usbmgr::field_len(SAMBA_CONF.security));
    s.NetworkServer.NetworkProtocolAuthReq = security == "user" ? 1 : 0;

    for (uint32_t i = 0; i < s.PhysicalMediumNumberOfEntries; ++i)
        fill_physical_medium(s.PhysicalMedium[i], static_cast<int>(i));
    for (uint32_t i = 0; i < s.LogicalVolumeNumberOfEntries; ++i)
        fill_logical_volume(s.LogicalVolume[i], static_cast<int>(i), s.NetworkServer.NetworkProtocolAuthReq);
    for (uint32_t i = 0; i < s.UserAccountNumberOfEntries; ++i) fill_user_account(s.UserAccount[i], static_cast<int>(i));

    usbmgr_tr140_db_print();
    db_util_print_usb_physical_info();
    return 0;
}

void usbmgr_tr140_db_print() {
    const tr140_storage_service& s = usbmgr_tr140_db[0];
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "=========== PhysicalMedium ================");
    for (uint32_t i = 0; s.PhysicalMedium && i < s.PhysicalMediumNumberOfEntries; ++i) {
        const tr140_physical_medium& pm = s.PhysicalMedium[i];
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Name                    = %s", pm.Name);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Vendor                  = %s", pm.Vendor);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Model                   = %s", pm.Model);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "SerialNumber            = %s", pm.SerialNumber);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "FirmwareVersion         = %s", pm.FirmwareVersion);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "ConnectionType          = %s", pm.ConnectionType);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Removable               = %d", as_int(pm.Removable));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Capacity                = %d", as_int(pm.Capacity));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Status                  = %s", pm.Status);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "SMARTCapable            = %d", as_int(pm.SMARTCapable));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "HotSwappable            = %d", as_int(pm.HotSwappable));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "------------------------------ \n");
    }

    USBMGR_TRACE(USBMGR_LOG_DEBUG, "=========== LogicalVolume ================\n");
    for (uint32_t i = 0; s.LogicalVolume && i < s.LogicalVolumeNumberOfEntries; ++i) {
        const tr140_logical_volume& lv = s.LogicalVolume[i];
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Name                    = %s", lv.Name);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Status                  = %s", lv.Status);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Enable                  = %d", as_int(lv.Enable));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "PhysicalReference       = %s", lv.PhysicalReference);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "FileSystem              = %s", lv.FileSystem);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Capacity                = %d", as_int(lv.Capacity));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "UsedSpace               = %d", as_int(lv.UsedSpace));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Encrypted               = %d", as_int(lv.Encrypted));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "FolderNumberOfEntries   = %d", as_int(lv.FolderNumberOfEntries));
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", "");
        for (uint32_t j = 0; lv.Folder && j < lv.FolderNumberOfEntries; ++j) {
            const tr140_folder& f = lv.Folder[j];
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "        Folder{%d}  Name                       = %s", as_int(j), f.Name);
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "                    Enable                     = %d", as_int(f.Enable));
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "                    UserAccountAccess          = %d",
                         as_int(f.UserAccountAccess));
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "                    UserAccessNumberOfEntries  = %d",
                         as_int(f.UserAccessNumberOfEntries));
            if (j != 0) continue;
            for (uint32_t u = 0; f.UserAccess && u < f.UserAccessNumberOfEntries; ++u) {
                const tr140_user_access& ua = f.UserAccess[u];
                USBMGR_TRACE(USBMGR_LOG_DEBUG, "                       UserAccess{%d}  tr140_index     = %d", as_int(u),
                             as_int(ua.tr140_index));
                USBMGR_TRACE(USBMGR_LOG_DEBUG, "                       UserAccess{%d}  UserReference   = %s", as_int(u),
                             ua.UserReference);
                USBMGR_TRACE(USBMGR_LOG_DEBUG, "                       UserAccess{%d}  Permissions     = %d\n",
                             as_int(u), as_int(ua.Permissions));
            }
        }
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "------------------------------");
    }

    USBMGR_TRACE(USBMGR_LOG_DEBUG, "=========== UserAccount ================\n");
    for (uint32_t i = 0; s.UserAccount && i < s.UserAccountNumberOfEntries; ++i) {
        const tr140_user_account& ua = s.UserAccount[i];
        USBMGR_TRACE(USBMGR_LOG_DEBUG, " %d. Name = %s, Password = %s, Enable = %d", as_int(i), ua.Name, ua.Password,
                     as_int(ua.Enable));
    }
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", "");
}
