// The storage service model: the TR-140 "StorageService" tree the read
// commands answer from. It is never edited in place: after any change of
// its sources (device tables, history file, settings, Samba users) the
// builder throws it away and builds it again, under usbmgr_mutex.
//
// The records keep the field order of the published objects. The lists are
// owned by the record that points at them, so that freeing or replacing a
// record can never leak or leave a dangling list; only the builder
// allocates them.
#ifndef USBMGR_USBMGRD_TR140_H
#define USBMGR_USBMGRD_TR140_H

#include <cstdint>
#include <memory>

struct tr140_user_access {
    uint32_t tr140_index;  // entry number in the history file (0..24), the number the commands take
    char UserReference[256];
    uint32_t Permissions;
};

struct tr140_folder {
    char Name[64];
    uint32_t Enable;
    uint32_t UserAccountAccess;
    uint32_t UserAccessNumberOfEntries;
    std::unique_ptr<tr140_user_access[]> UserAccess;  // root folder only; absent when none
};

struct tr140_logical_volume {
    char Name[64];
    char Status[64];
    uint32_t Enable;
    char PhysicalReference[256];
    char FileSystem[12];
    uint32_t Capacity;
    uint32_t UsedSpace;
    uint32_t Encrypted;
    uint32_t FolderNumberOfEntries;  // top folders plus the root (entry 0)
    // FolderNumberOfEntries + 1 entries (one spare behind the last); absent
    // when the volume's folders could not be counted.
    std::unique_ptr<tr140_folder[]> Folder;
};

struct tr140_physical_medium {
    char Name[64];
    char Vendor[64];
    char Model[128];
    char SerialNumber[64];
    char FirmwareVersion[64];
    char ConnectionType[20];
    uint32_t Removable;
    uint32_t Capacity;
    char Status[12];
    uint32_t SMARTCapable;
    uint32_t HotSwappable;
};

struct tr140_user_account {
    uint32_t Enable;
    char Name[64];
    char Password[64];
};

struct tr140_capabilities {
    uint32_t FTPCapable;
    uint32_t SFTPCapable;
    uint32_t HTTPCapable;
    uint32_t HTTPSCapable;
    uint32_t HTTPWritable;
    char SupportedNetworkProtocols[6];
    char SupportedFileSystemTypes[64];
    uint32_t VolumeEncryptionCapable;
};

struct tr140_netinfo {
    char HostName[64];
    char DomainName[256];
};

struct tr140_network_server {
    uint32_t word1;  // never written: always 0
    uint32_t AFPEnable;
    uint32_t NFSEnable;
    uint32_t SMBEnable;
    uint32_t NetworkProtocolAuthReq;
};

struct tr140_storage_service {
    uint32_t Enable;
    uint32_t PhysicalMediumNumberOfEntries;
    uint32_t LogicalVolumeNumberOfEntries;
    uint32_t UserAccountNumberOfEntries;
    tr140_capabilities Capabilities;
    tr140_netinfo NetInfo;
    tr140_network_server NetworkServer;
    std::unique_ptr<tr140_physical_medium[]> PhysicalMedium;  // absent when the count is 0
    std::unique_ptr<tr140_logical_volume[]> LogicalVolume;
    std::unique_ptr<tr140_user_account[]> UserAccount;
};

inline constexpr int USBMGR_TR140_SERVICE_COUNT = 2;

// Indexed by the service number of the storage commands; only service 0 is
// ever filled, service 1 stays all zero.
extern tr140_storage_service usbmgr_tr140_db[USBMGR_TR140_SERVICE_COUNT];

// Releases every list of service 0 (logging each) and zeroes its counts. 0.
int usbmgr_tr140_db_free();
// Counts disks, volumes, folders, user-access records and users and
// allocates service 0's lists for them, zero-filled. 0.
int usbmgr_tr140_db_alloc();
// Frees, allocates and fills service 0, writes each disk's and volume's
// model index back into its device-table row, then logs the tree and the
// device tables. The caller holds usbmgr_mutex. 0.
int usbmgr_tr140_db_build();
// Logs service 0's tree at DEBUG.
void usbmgr_tr140_db_print();

#endif
