// dusbd on the bus: owns org.orbiil.DUSB_DMON, declares the four hot-plug
// events with their 282-byte record, keeps the port files and sends.
#ifndef USBMGR_PLATFORM_HOST_DUSB_EVENT_SENDER_H
#define USBMGR_PLATFORM_HOST_DUSB_EVENT_SENDER_H

#include "collector.h"
#include "orbiil.h"
#include "port_files.h"

namespace dusb {

class EventSender : public HotplugSink {
public:
    explicit EventSender(PortFiles& ports) : ports_(ports) {}
    EventSender(const EventSender&) = delete;
    EventSender& operator=(const EventSender&) = delete;
    ~EventSender() override;

    // Joins the bus as DUSB_DMON and declares events 0, 6, 7 and 13; a bus code.
    int open();
    bool running();

    void write_port(const std::string& port, const std::string& list) override;
    void remove_port(const std::string& port) override;
    void send(uint32_t event, const DusbDeviceRecord& record) override;

private:
    PortFiles& ports_;
    OrbIilHandle handle_{};
    bool open_ = false;
};

}  // namespace dusb

#endif
