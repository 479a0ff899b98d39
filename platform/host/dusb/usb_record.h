// The hot-plug record of a device on USB, built from sysfs alone: where a
// block or tty device's USB device is, which port it sits on, and the
// 282-byte record from that USB device's attribute files.
#ifndef USBMGR_PLATFORM_HOST_DUSB_USB_RECORD_H
#define USBMGR_PLATFORM_HOST_DUSB_USB_RECORD_H

#include <string>

#include "proto/payload.h"

namespace dusb {

// The folder of the USB device above root + devpath: the nearest folder
// above it with an idVendor file. Empty when there is none (an internal
// disk, a loop device): such a device is not on USB.
std::string find_usb_device(const std::string& root, const std::string& devpath);

// The port a USB device sits on: its folder's name (1-2, 1-1.4). Empty
// when that name could not stand as a port file's name.
std::string usb_port_name(const std::string& usb_folder);

// The record of the USB device in usb_folder with attach as AttachDevice
// (cut at a name if it does not fit). Texts are cut to their fields and
// control characters replaced; numbers missing from sysfs are 0.
DusbDeviceRecord build_usb_record(const std::string& usb_folder, const std::string& attach, bool arrival);

}  // namespace dusb

#endif
