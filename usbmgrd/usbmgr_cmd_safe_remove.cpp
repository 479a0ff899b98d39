// Bus command 36: safe removal of a disk. The handler answers at once; the
// work (servers stopped, disk unmounted and forgotten) belongs to a worker
// thread beside it.
#include "usbmgrd/usbmgrd.h"

// Comes with the model and the worker; until then it answers nothing and
// leaves the buffer as the request had it.
void usbmgr_cmd_set_storage_safe_remove(CmdSafeRemove&) {}
