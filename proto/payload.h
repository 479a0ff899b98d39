// Wire layouts of the daemon's bus traffic: the hot-plug device record and
// the payload of every command. Shared by the daemon and usbmgrctl; all
// integers are in the host's byte order, strings NUL-terminated in fixed fields.
#ifndef USBMGR_PROTO_PAYLOAD_H
#define USBMGR_PROTO_PAYLOAD_H

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)
// Payload of the DUSB_DMON events 0, 6, 7 and 13.
struct DusbDeviceRecord {
    uint8_t Index;
    uint8_t ArrivedOrLeft;
    uint16_t ProductID;
    uint16_t VendorID;
    uint8_t DeviceClass;
    uint8_t DeviceSubClass;
    uint8_t DeviceProtocol;
    char AttachDevice[64];
    char USBVersion[7];
    int32_t DeviceVersion;
    char Manufacturer[64];
    char ProductClass[64];
    char SerialNumber[64];
    int8_t HostIndexInDB;
    int8_t DeviceIndexInDB;
    int8_t PortIndexInDB;
    uint8_t HostNumberOfEntries;
    uint8_t PortNumberOfEntries;
    uint8_t DeviceNumberOfEntries;
};
#pragma pack(pop)
static_assert(offsetof(DusbDeviceRecord, ProductID) == 2);
static_assert(offsetof(DusbDeviceRecord, VendorID) == 4);
static_assert(offsetof(DusbDeviceRecord, DeviceClass) == 6);
static_assert(offsetof(DusbDeviceRecord, AttachDevice) == 9);
static_assert(offsetof(DusbDeviceRecord, USBVersion) == 73);
static_assert(offsetof(DusbDeviceRecord, DeviceVersion) == 80);
static_assert(offsetof(DusbDeviceRecord, Manufacturer) == 84);
static_assert(offsetof(DusbDeviceRecord, ProductClass) == 148);
static_assert(offsetof(DusbDeviceRecord, SerialNumber) == 212);
static_assert(offsetof(DusbDeviceRecord, HostIndexInDB) == 276);
static_assert(offsetof(DusbDeviceRecord, DeviceNumberOfEntries) == 281);
static_assert(sizeof(DusbDeviceRecord) == 282);

inline constexpr uint32_t DUSB_DEVICE_RECORD_SIZE = sizeof(DusbDeviceRecord);

// Events of DUSB_DMON this daemon handles.
enum : uint32_t {
    DUSB_EVT_NEW_STORAGE_INTERFACE = 0,
    DUSB_EVT_NEW_USB_SERIAL_INTERFACE = 6,
    DUSB_EVT_REMOVE_STORAGE_INTERFACE = 7,
    DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE = 13,
};

// Events this daemon declares (only 0 is sent), payload one 32-bit change kind.
enum : uint32_t {
    USBMGR_EVT_SERVICE_STATE_CHANGE = 0,
    USBMGR_EVT_MINIDLNA_RELOAD_CONF = 1,
    USBMGR_EVT_SAMBA_RELOAD_CONF = 2,
    USBMGR_EVT_MOUNT_DISK = 3,
    USBMGR_EVT_UMOUNTED_DISK = 4,
};
inline constexpr uint32_t USBMGR_EVT_PAYLOAD_SIZE = 4;

// Storage service change kinds (payload of event 0).
enum : int32_t {
    USBMGR_TR140_ADD_STORAGE = 0,
    USBMGR_TR140_REMOVE_STORAGE = 1,
    USBMGR_TR140_SERVICE_CHANGE = 2,
    USBMGR_TR140_NETINFO_CHANGE = 3,
    USBMGR_TR140_NETWORK_SERVICE_CHANGE = 4,
    USBMGR_TR140_ADD_USER = 5,
    USBMGR_TR140_REMOVE_USER = 6,
    USBMGR_TR140_MODIFY_USER = 7,
    USBMGR_TR140_PHYSICAL_MEDIUM_CHANGE = 8,
    USBMGR_TR140_LOGICAL_VOLUME_CHANGE = 9,
    USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE = 10,
    USBMGR_TR140_ADD_USER_ACCESS = 11,
    USBMGR_TR140_REMOVE_USER_ACCESS = 12,
    USBMGR_TR140_MODIFY_USER_ACCES = 13,
    USBMGR_TR140_STORAGE_SAFE_REMOVE = 14,
};
inline constexpr int USBMGR_TR140_KIND_COUNT = 15;

// Name of change kind k (0 to 14), as logged; nullptr outside.
const char* usbmgr_tr140_kind_name(int32_t kind);

// Name of a bus code as every failure message prints it; "Unknown" outside 0 to 21.
const char* usbmgr_iil_err_str(int code);

// ---------------------------------------------------------------------------
// Settings records of the media and file servers; also the replies of
// commands 2 and 3, whose first path field is left as the request had it.

struct MiniDlnaConf {
    int32_t enable;
    char conf_dir[64];
    char db_dir[64];
    char log_dir[64];
    char media_dir[64];
    char log_level[64];
    char root_container[64];
    char port[10];
    char friendly_name[64];
    char serial[128];
    char model_name[128];
    char model_number[128];
    char inotify[10];
    char notify_interval[10];
};
static_assert(offsetof(MiniDlnaConf, conf_dir) == 4);
static_assert(offsetof(MiniDlnaConf, db_dir) == 68);
static_assert(offsetof(MiniDlnaConf, log_dir) == 132);
static_assert(offsetof(MiniDlnaConf, media_dir) == 196);
static_assert(offsetof(MiniDlnaConf, log_level) == 260);
static_assert(offsetof(MiniDlnaConf, root_container) == 324);
static_assert(offsetof(MiniDlnaConf, port) == 388);
static_assert(offsetof(MiniDlnaConf, friendly_name) == 398);
static_assert(offsetof(MiniDlnaConf, serial) == 462);
static_assert(offsetof(MiniDlnaConf, model_name) == 590);
static_assert(offsetof(MiniDlnaConf, model_number) == 718);
static_assert(offsetof(MiniDlnaConf, inotify) == 846);
static_assert(offsetof(MiniDlnaConf, notify_interval) == 856);
static_assert(sizeof(MiniDlnaConf) == 868);

struct SambaConf {
    int32_t enable;
    char conf_dir[64];
    char log_file[64];
    char max_log_size[32];
    char log_level[10];
    char load_printers[10];
    char printcap_name[64];
    char printing[10];
    char security[10];
    char workgroup[64];
    char disable_netbios[10];
    char netbios_name[64];
    char server_string[64];
    char usershare_allow_guests[10];
    char guest_account[64];
    char interfaces[64];
    char bind_interfaces_only[10];
    char username_map[64];
    char username_map_dir[64];
};
static_assert(offsetof(SambaConf, conf_dir) == 4);
static_assert(offsetof(SambaConf, log_file) == 68);
static_assert(offsetof(SambaConf, max_log_size) == 132);
static_assert(offsetof(SambaConf, log_level) == 164);
static_assert(offsetof(SambaConf, load_printers) == 174);
static_assert(offsetof(SambaConf, printcap_name) == 184);
static_assert(offsetof(SambaConf, printing) == 248);
static_assert(offsetof(SambaConf, security) == 258);
static_assert(offsetof(SambaConf, workgroup) == 268);
static_assert(offsetof(SambaConf, disable_netbios) == 332);
static_assert(offsetof(SambaConf, netbios_name) == 342);
static_assert(offsetof(SambaConf, server_string) == 406);
static_assert(offsetof(SambaConf, usershare_allow_guests) == 470);
static_assert(offsetof(SambaConf, guest_account) == 480);
static_assert(offsetof(SambaConf, interfaces) == 544);
static_assert(offsetof(SambaConf, bind_interfaces_only) == 608);
static_assert(offsetof(SambaConf, username_map) == 618);
static_assert(offsetof(SambaConf, username_map_dir) == 682);
static_assert(sizeof(SambaConf) == 748);

// ---------------------------------------------------------------------------
// Command payloads, one struct a command form (proto/commands.def names the
// struct of each command). Requests and replies share one buffer.

// 4: the serial login switch as read.
struct CmdGetUsbSerialEnable {
    int32_t enable;
};
static_assert(sizeof(CmdGetUsbSerialEnable) == 4);

// 7: the serial login switch as set, with the save's status.
struct CmdSetUsbSerialEnable {
    int32_t enable;
    int32_t status;  // 0 or -7
};
static_assert(offsetof(CmdSetUsbSerialEnable, status) == 4 && sizeof(CmdSetUsbSerialEnable) == 8);

// 5, 6: one setting.
struct CmdSetConf {
    char name[64];
    char value[128];
};
static_assert(offsetof(CmdSetConf, value) == 64 && sizeof(CmdSetConf) == 192);

// 8: number of Samba users.
struct CmdNumber {
    int32_t number;
};
static_assert(sizeof(CmdNumber) == 4);

// 9: one user slot.
struct CmdSambaUserSlot {
    int32_t index;
    int32_t enable;
    char name[64];
    char password[64];
    int32_t result;
};
static_assert(offsetof(CmdSambaUserSlot, name) == 8 && offsetof(CmdSambaUserSlot, password) == 72 &&
              offsetof(CmdSambaUserSlot, result) == 136 && sizeof(CmdSambaUserSlot) == 140);

// 10, 11, 12, 27, 28, 29: one user.
struct CmdSambaUser {
    int32_t enable;
    char name[64];
    char password[64];
    int32_t result;
};
static_assert(offsetof(CmdSambaUser, name) == 4 && offsetof(CmdSambaUser, password) == 68 &&
              offsetof(CmdSambaUser, result) == 132 && sizeof(CmdSambaUser) == 136);

// 14: number of storage services.
struct CmdNumberOfStorageService {
    int32_t number;
};
static_assert(sizeof(CmdNumberOfStorageService) == 4);

// 15
struct CmdStorageService {
    int32_t service;
    uint32_t Enable;
    uint32_t PhysicalMediumNumberOfEntries;
    uint32_t LogicalVolumeNumberOfEntries;
    uint32_t UserAccountNumberOfEntries;
    int32_t status;
};
static_assert(offsetof(CmdStorageService, status) == 20 && sizeof(CmdStorageService) == 24);

// 16
struct CmdStorageCapabilities {
    int32_t service;
    uint32_t FTPCapable;
    uint32_t SFTPCapable;
    uint32_t HTTPCapable;
    uint32_t HTTPSCapable;
    uint32_t HTTPWritable;
    char SupportedNetworkProtocols[6];
    char SupportedFileSystemTypes[64];
    char unused[2];
    uint32_t VolumeEncryptionCapable;
    int32_t status;
};
static_assert(offsetof(CmdStorageCapabilities, SupportedNetworkProtocols) == 24 &&
              offsetof(CmdStorageCapabilities, SupportedFileSystemTypes) == 30 &&
              offsetof(CmdStorageCapabilities, VolumeEncryptionCapable) == 96 &&
              offsetof(CmdStorageCapabilities, status) == 100 && sizeof(CmdStorageCapabilities) == 104);

// 17, 25
struct CmdStorageNetInfo {
    int32_t service;
    char HostName[64];
    char DomainName[256];
    int32_t status;
};
static_assert(offsetof(CmdStorageNetInfo, DomainName) == 68 && offsetof(CmdStorageNetInfo, status) == 324 &&
              sizeof(CmdStorageNetInfo) == 328);

// 18
struct CmdStorageNetworkServer {
    int32_t service;
    uint32_t word1;
    uint32_t AFPEnable;
    uint32_t NFSEnable;
    uint32_t SMBEnable;
    uint32_t NetworkProtocolAuthReq;
    int32_t status;
};
static_assert(offsetof(CmdStorageNetworkServer, status) == 24 && sizeof(CmdStorageNetworkServer) == 28);

// 19
struct CmdUserAccount {
    int32_t service;
    int32_t user;
    uint32_t Enable;
    char Name[64];
    char Password[64];
    int32_t status;
};
static_assert(offsetof(CmdUserAccount, Name) == 12 && offsetof(CmdUserAccount, Password) == 76 &&
              offsetof(CmdUserAccount, status) == 140 && sizeof(CmdUserAccount) == 144);

// 20
struct CmdPhysicalMedium {
    int32_t service;
    int32_t slot;
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
    int32_t status;
};
static_assert(offsetof(CmdPhysicalMedium, Vendor) == 72 && offsetof(CmdPhysicalMedium, Model) == 136 &&
              offsetof(CmdPhysicalMedium, SerialNumber) == 264 && offsetof(CmdPhysicalMedium, FirmwareVersion) == 328 &&
              offsetof(CmdPhysicalMedium, ConnectionType) == 392 && offsetof(CmdPhysicalMedium, Removable) == 412 &&
              offsetof(CmdPhysicalMedium, Status) == 420 && offsetof(CmdPhysicalMedium, status) == 440 &&
              sizeof(CmdPhysicalMedium) == 444);

// 21
struct CmdLogicalVolume {
    int32_t service;
    int32_t slot;
    char Name[64];
    char Status[64];
    uint32_t Enable;
    char PhysicalReference[256];
    char FileSystem[12];
    uint32_t Capacity;
    uint32_t UsedSpace;
    uint32_t Encrypted;
    uint32_t FolderNumberOfEntries;
    uint32_t unused;
    int32_t status;
};
static_assert(offsetof(CmdLogicalVolume, Status) == 72 && offsetof(CmdLogicalVolume, Enable) == 136 &&
              offsetof(CmdLogicalVolume, PhysicalReference) == 140 && offsetof(CmdLogicalVolume, FileSystem) == 396 &&
              offsetof(CmdLogicalVolume, Capacity) == 408 && offsetof(CmdLogicalVolume, FolderNumberOfEntries) == 420 &&
              offsetof(CmdLogicalVolume, status) == 428 && sizeof(CmdLogicalVolume) == 432);

// 22
struct CmdLogicalVolumeFolder {
    int32_t service;
    int32_t slot;
    uint32_t folder;
    char Name[64];
    uint32_t Enable;
    uint32_t UserAccountAccess;
    uint32_t UserAccessNumberOfEntries;
    uint32_t unused;
    int32_t status;
};
static_assert(offsetof(CmdLogicalVolumeFolder, Name) == 12 && offsetof(CmdLogicalVolumeFolder, Enable) == 76 &&
              offsetof(CmdLogicalVolumeFolder, status) == 92 && sizeof(CmdLogicalVolumeFolder) == 96);

// 23, 35
struct CmdStorageUserAccess {
    int32_t service;
    int32_t slot;
    int32_t number;
    uint32_t tr140_index;
    char UserReference[256];
    uint32_t Permissions;
    int32_t status;
};
static_assert(offsetof(CmdStorageUserAccess, UserReference) == 16 && offsetof(CmdStorageUserAccess, Permissions) == 272 &&
              offsetof(CmdStorageUserAccess, status) == 276 && sizeof(CmdStorageUserAccess) == 280);

// 24
struct CmdSetStorageService {
    int32_t service;
    uint32_t Enable;
};
static_assert(sizeof(CmdSetStorageService) == 8);

// 26
struct CmdSetStorageNetworkServer {
    int32_t service;
    uint32_t SMBEnable;
    uint32_t NetworkProtocolAuthReq;
};
static_assert(sizeof(CmdSetStorageNetworkServer) == 12);

// 30
struct CmdSetPhysicalMedium {
    int32_t service;
    int32_t slot;
    char Name[64];
    int32_t status;
};
static_assert(offsetof(CmdSetPhysicalMedium, status) == 72 && sizeof(CmdSetPhysicalMedium) == 76);

// 31
struct CmdSetLogicalVolume {
    int32_t service;
    int32_t slot;
    uint32_t Enable;
    char Name[64];
    int32_t status;
};
static_assert(offsetof(CmdSetLogicalVolume, Name) == 12 && offsetof(CmdSetLogicalVolume, status) == 76 &&
              sizeof(CmdSetLogicalVolume) == 80);

// 33
struct CmdAddUserAccess {
    int32_t service;
    int32_t slot;
    char UserName[64];
    uint32_t Permissions;
    int32_t status;
};
static_assert(offsetof(CmdAddUserAccess, Permissions) == 72 && offsetof(CmdAddUserAccess, status) == 76 &&
              sizeof(CmdAddUserAccess) == 80);

// 34
struct CmdRemoveUserAccess {
    int32_t service;
    int32_t slot;
    int32_t number;
    char unused[64];
    int32_t status;
};
static_assert(offsetof(CmdRemoveUserAccess, status) == 76 && sizeof(CmdRemoveUserAccess) == 80);

// 36
struct CmdSafeRemove {
    int32_t service;
    int32_t slot;
    int32_t status;
};
static_assert(sizeof(CmdSafeRemove) == 12);

#endif
