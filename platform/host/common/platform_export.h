// Symbols of the host platform libraries: only the C operations of the
// platform headers are exported, everything else stays private to the library.
#ifndef USBMGR_PLATFORM_HOST_EXPORT_H
#define USBMGR_PLATFORM_HOST_EXPORT_H

#define PLATFORM_API __attribute__((visibility("default")))

#endif
