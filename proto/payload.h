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
// The settings records of the media and file servers and the command
// payloads, from their one declaration in proto/payloads.def.

#define USBMGR_PAYLOAD_MEMBER_INT(name, width) int32_t name
#define USBMGR_PAYLOAD_MEMBER_UINT(name, width) uint32_t name
#define USBMGR_PAYLOAD_MEMBER_TEXT(name, width) char name[width]
#define USBMGR_PAYLOAD_MEMBER_UNUSED_UINT(name, width) uint32_t name
#define USBMGR_PAYLOAD_MEMBER_UNUSED_TEXT(name, width) char name[width]

#define USBMGR_PAYLOAD(S, size) struct S {
#define USBMGR_FIELD(S, kind, name, width, offset) USBMGR_PAYLOAD_MEMBER_##kind(name, width);
#define USBMGR_PAYLOAD_END(S) };
#include "proto/payloads.def"

#undef USBMGR_PAYLOAD_MEMBER_INT
#undef USBMGR_PAYLOAD_MEMBER_UINT
#undef USBMGR_PAYLOAD_MEMBER_TEXT
#undef USBMGR_PAYLOAD_MEMBER_UNUSED_UINT
#undef USBMGR_PAYLOAD_MEMBER_UNUSED_TEXT

// The wire layout: every member at its declared offset with its declared
// width, every struct of its declared size, on every target.
#define USBMGR_PAYLOAD(S, size) static_assert(sizeof(S) == (size), #S ": size");
#define USBMGR_FIELD(S, kind, name, width, offset)                                  \
    static_assert(offsetof(S, name) == (offset), #S "::" #name ": offset"); \
    static_assert(sizeof(S::name) == (width), #S "::" #name ": width");
#define USBMGR_PAYLOAD_END(S)
#include "proto/payloads.def"

#endif
