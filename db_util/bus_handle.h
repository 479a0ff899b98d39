// The daemon's bus connection record. Every platform call takes it (the bus
// itself, and the descriptor and account libraries), so the lower modules
// see it here rather than through the daemon core's header.
#ifndef USBMGR_DB_UTIL_BUS_HANDLE_H
#define USBMGR_DB_UTIL_BUS_HANDLE_H

#include "orbiil.h"  // platform/include

// Cleared before OrbIilInit fills it (usbmgrd/usbmgr_daemon.cpp).
extern OrbIilHandle usbmgr_iil_handle;

#endif
