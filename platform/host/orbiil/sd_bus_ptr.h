// Owners for the sd-bus objects and descriptors of the bus library, so that
// every exit path releases what it took.
#ifndef USBMGR_PLATFORM_HOST_SD_BUS_PTR_H
#define USBMGR_PLATFORM_HOST_SD_BUS_PTR_H

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "db_util/owners.h"

namespace orbiil {

struct BusCloser {
    // Flushes what is queued, closes, then drops our reference.
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct MessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};

using BusPtr = std::unique_ptr<sd_bus, BusCloser>;
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotUnref>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// Takes a new reference of m (the callback's own reference stays with sd-bus).
inline MessagePtr ref_message(sd_bus_message* m) { return MessagePtr(sd_bus_message_ref(m)); }

// An sd_bus_error that frees its texts.
class BusError {
public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&error_); }
    sd_bus_error* get() { return &error_; }
    const char* name() const { return error_.name; }

private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

// A file descriptor closed on destruction.
using Fd = usbmgr::UniqueFd;

}  // namespace orbiil

#endif
