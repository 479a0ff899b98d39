// The ring of pending storage service change kinds and its flush to the bus.
//
// Storage events, the folder watcher and the commands that change the
// storage service queue a kind here under usbmgr_mutex; whoever flushes
// sends every pending kind, oldest first.
#include "db_util/lock.h"
#include "db_util/log.h"
#include "usbmgrd/usbmgrd.h"

UsbmgrEvtBuffer usbmgr_evt_buffer;

namespace {

// The ring logs as part of the configuration store.
constexpr const char kRingLogModule[] = "db_util.c";

}  // namespace

int dp_util_evt_buf_init() {
    usbmgr_evt_buffer.write_index = 0;
    usbmgr_evt_buffer.read_index = 0;
    usbmgr_evt_buffer.kinds[0] = 0;
    return -1;
}

int dp_util_evt_buf_write(int32_t kind) {
    USBMGR_ASSERT_LOCKED();
    UsbmgrEvtBuffer& b = usbmgr_evt_buffer;
    b.kinds[b.write_index] = kind;
    // No test against the read index: a tenth pending kind makes the ring
    // look empty and all ten are lost. The gateway lives with that rule.
    b.write_index = (b.write_index + 1) % USBMGR_EVT_BUFFER_SIZE;
    for (int slot = b.read_index; slot != b.write_index; slot = (slot + 1) % USBMGR_EVT_BUFFER_SIZE) {
        const char* name = usbmgr_tr140_kind_name(b.kinds[slot]);
        OrbIilTrace(USBMGR_LOG_DEBUG, kRingLogModule, __LINE__, "%d-%d : EVT BUFFER - %s", b.write_index, slot,
                    name ? name : "Unknown");
    }
    return 0;
}

int dp_util_evt_buf_read(int32_t* kind) {
    UsbmgrEvtBuffer& b = usbmgr_evt_buffer;
    if (b.read_index == b.write_index) return -1;
    *kind = b.kinds[b.read_index];
    b.read_index = (b.read_index + 1) % USBMGR_EVT_BUFFER_SIZE;
    return 0;
}

void usbmgr_flush_notify() {
    int32_t kind;
    while (dp_util_evt_buf_read(&kind) == 0) usbmgr_notify_tr140_event(kind);
}
