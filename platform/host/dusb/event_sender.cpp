#include "event_sender.h"

#include <cstring>

#include "dusbd_log.h"

namespace dusb {

namespace {
constexpr const char kBusName[] = "DUSB_DMON";
constexpr uint32_t kEvents[] = {DUSB_EVT_NEW_STORAGE_INTERFACE, DUSB_EVT_NEW_USB_SERIAL_INTERFACE,
                                DUSB_EVT_REMOVE_STORAGE_INTERFACE, DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE};
}  // namespace

EventSender::~EventSender() {
    if (open_) OrbIilReset(&handle_);
}

int EventSender::open() {
    std::memset(&handle_, 0, sizeof handle_);
    int rc = OrbIilInit(&handle_, kBusName);
    if (rc != ORBIIL_OK) {
        DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot join the bus as %s: %d", kBusName, rc);
        return rc;
    }
    open_ = true;
    for (uint32_t id : kEvents) {
        rc = OrbIilIssueEvent(&handle_, id, DUSB_DEVICE_RECORD_SIZE);
        if (rc != ORBIIL_OK) {
            DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot declare event %u: %d", id, rc);
            return rc;
        }
    }
    return ORBIIL_OK;
}

bool EventSender::running() { return open_ && OrbIilIsRunning(&handle_) != 0; }

void EventSender::write_port(const std::string& port, const std::string& list) {
    if (ports_.write(port, list)) DUSBD_LOG(ORBIIL_LOG_INFO, "port %s: %s", port.c_str(), list.c_str());
}

void EventSender::remove_port(const std::string& port) {
    if (ports_.remove(port)) DUSBD_LOG(ORBIIL_LOG_INFO, "port %s: removed", port.c_str());
}

void EventSender::send(uint32_t event, const DusbDeviceRecord& record) {
    int rc = open_ ? OrbIilNotify(&handle_, event, DUSB_DEVICE_RECORD_SIZE, &record) : ORBIIL_ERR;
    char list[sizeof record.AttachDevice + 1] = {};
    std::memcpy(list, record.AttachDevice, sizeof record.AttachDevice);
    if (rc == ORBIIL_OK)
        DUSBD_LOG(ORBIIL_LOG_INFO, "event %u sent: %s", event, list);
    else
        DUSBD_LOG(ORBIIL_LOG_ERROR, "event %u not sent (%s): %d", event, list, rc);
}

}  // namespace dusb
