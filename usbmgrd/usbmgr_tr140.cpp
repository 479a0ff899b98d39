// The storage service model. It is rebuilt whole after every change; the
// model's tree comes with the storage service work. Until then a rebuild
// ends as the full one does, with the device tables in the log.
#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "usbmgrd/usbmgrd.h"

void usbmgr_tr140_db_build() {
    USBMGR_ASSERT_LOCKED();
    db_util_print_usb_physical_info();
}
