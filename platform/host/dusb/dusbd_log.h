// dusbd's log lines, through the bus library's log (ORBIIL_LOG_FILE or stderr).
#ifndef USBMGR_PLATFORM_HOST_DUSB_DUSBD_LOG_H
#define USBMGR_PLATFORM_HOST_DUSB_DUSBD_LOG_H

#include "orbiil.h"

#define DUSBD_LOG(level, ...) OrbIilTrace((level), "dusbd.c", __LINE__, __VA_ARGS__)

#endif
