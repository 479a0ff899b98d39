/*
 * libdusb: USB descriptors of the devices on the gateway's USB buses.
 */
#ifndef DUSB_API_H
#define DUSB_API_H

#include <stddef.h>
#include <stdint.h>

#include "orbiil.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DUSB_USB_INFO_SIZE 8
#define DUSB_DEVICE_INFO_SIZE 628

/* Bus summary: byte 0 is the number of buses to scan (highest bus number plus one). */
typedef struct DusbUsbInfo {
    uint8_t number_of_bus;
    uint8_t reserved1;
    uint8_t number_of_device;
    uint8_t reserved[5];
} DusbUsbInfo;

/* One device, selected by bus number and address; the rest is filled by the library. */
typedef struct DusbDeviceInfo {
    uint8_t bus;                /* in */
    uint8_t address;            /* in */
    uint8_t reserved0[4];
    char usb_version[6];        /* "2.00" */
    int32_t release_number;     /* bcdDevice */
    uint8_t reserved1[6];
    char manufacturer[64];
    char product[64];
    char serial_number[64];
    uint8_t reserved2;
    char port_path[64];         /* "usb:" and the port name, usb:1-1 */
    uint8_t reserved3[345];
    int32_t status;             /* 0 when the record describes a present device */
} DusbDeviceInfo;

#ifdef __cplusplus
static_assert(sizeof(DusbUsbInfo) == DUSB_USB_INFO_SIZE, "bus summary size");
static_assert(offsetof(DusbDeviceInfo, usb_version) == 6, "usb_version offset");
static_assert(offsetof(DusbDeviceInfo, release_number) == 12, "release_number offset");
static_assert(offsetof(DusbDeviceInfo, manufacturer) == 22, "manufacturer offset");
static_assert(offsetof(DusbDeviceInfo, product) == 86, "product offset");
static_assert(offsetof(DusbDeviceInfo, serial_number) == 150, "serial_number offset");
static_assert(offsetof(DusbDeviceInfo, port_path) == 215, "port_path offset");
static_assert(offsetof(DusbDeviceInfo, status) == 624, "status offset");
static_assert(sizeof(DusbDeviceInfo) == DUSB_DEVICE_INFO_SIZE, "device record size");
#endif

/* Fills the bus summary (len DUSB_USB_INFO_SIZE); non-zero on failure. */
int ApiGetUsbInfo(OrbIilHandle *handle, uint32_t len, void *info);
/* Fills the record of the device at its bus and address (len DUSB_DEVICE_INFO_SIZE); non-zero when none. */
int ApiGetUsbDeviceInfo(OrbIilHandle *handle, uint32_t len, void *info);

#ifdef __cplusplus
}
#endif

#endif /* DUSB_API_H */
