// Turns the kernel's uevents into hot-plug events. A USB disk is told once
// its partitions are known: every uevent of the disk or of one of its
// partitions (re)starts a short settle time, and when it has passed the
// disk's folder is read for its partitions. A disk is told again (7, then
// 0) when its partitions or its medium changed. A ttyUSB adapter is told at
// once. The port file of a USB port names the first device told on that
// port that is still there (one port, one line).
//
// Time comes in from the caller (now), so that tests need no waiting.
#ifndef USBMGR_PLATFORM_HOST_DUSB_COLLECTOR_H
#define USBMGR_PLATFORM_HOST_DUSB_COLLECTOR_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "proto/payload.h"
#include "uevent.h"

namespace dusb {

using Clock = std::chrono::steady_clock;

// Where the collector's decisions go: the bus and /tmp/usb in dusbd, a
// recorder in tests. The port file always changes before the event is sent.
class HotplugSink {
public:
    virtual ~HotplugSink() = default;
    virtual void write_port(const std::string& port, const std::string& list) = 0;
    virtual void remove_port(const std::string& port) = 0;
    virtual void send(uint32_t event, const DusbDeviceRecord& record) = 0;
};

class Collector {
public:
    Collector(std::string sysfs_root, HotplugSink& sink, Clock::duration settle);

    // One uevent, read at now.
    void handle(const Uevent& ev, Clock::time_point now);
    // The devices present before dusbd came (no uevent will tell of them):
    // the links of root/class/block and root/class/tty, read, not followed,
    // as if each had just been added.
    void scan_present(Clock::time_point now);
    // Tells every disk whose settle time has passed by now.
    void tick(Clock::time_point now);
    // When tick next has work; nullopt when nothing waits.
    std::optional<Clock::time_point> next_deadline() const;

    // The attached device list of a disk folder: the disk and its
    // partitions in number order (sdb,sdb1,sdb2).
    static std::string disk_list(const std::string& disk_folder, const std::string& disk_name);

private:
    struct Disk {
        std::string devpath;
        std::string usb_folder;
        std::string port;
        std::optional<Clock::time_point> due;
        bool told = false;
        std::string list;           // as read from sysfs when told
        DusbDeviceRecord record{};  // as sent with event 0
    };
    struct Tty {
        std::string usb_folder;
        std::string port;
        DusbDeviceRecord record{};
    };

    void handle_disk(const Uevent& ev, const std::string& name, Clock::time_point now);
    void handle_partition(const Uevent& ev, Clock::time_point now);
    void handle_tty(const Uevent& ev, const std::string& name);
    void handle_usb_device_removal(const Uevent& ev);
    void settle(const std::string& name, Disk& disk);
    void tell_removal(const std::string& name, Disk& disk);
    void port_add(const std::string& port, const std::string& name, const std::string& list);
    void port_remove(const std::string& port, const std::string& name);

    std::string root_;
    HotplugSink& sink_;
    Clock::duration settle_;
    std::map<std::string, Disk> disks_;
    std::map<std::string, Tty> ttys_;
    // Per port, the devices told on it in the order they were told: (name, list).
    std::map<std::string, std::vector<std::pair<std::string, std::string>>> ports_;
};

}  // namespace dusb

#endif
