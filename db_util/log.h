// Logging goes through the bus library's trace call with this module's
// source name; each source file defines kLogModule ("db_util.c", ...).
#ifndef USBMGR_DB_UTIL_LOG_H
#define USBMGR_DB_UTIL_LOG_H

#include "orbiil.h"  // platform/include

#define USBMGR_LOG_QUITE 0
#define USBMGR_LOG_ERROR 1
#define USBMGR_LOG_WARNING 2
#define USBMGR_LOG_INFO 3
#define USBMGR_LOG_DEBUG 4

#define USBMGR_TRACE(level, ...) OrbIilTrace((level), kLogModule, __LINE__, __VA_ARGS__)

#endif
