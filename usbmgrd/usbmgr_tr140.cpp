// The storage service model. It is rebuilt whole after every change; the
// model itself comes with the storage service work, until then a rebuild
// does nothing.
#include "usbmgrd/usbmgrd.h"

void usbmgr_tr140_db_build() {}
