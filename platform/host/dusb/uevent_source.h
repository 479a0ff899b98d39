// Where dusbd's uevents come from: the kernel's netlink socket (kernel
// group, no udev needed) or a file or FIFO of KEY=VALUE blocks.
#ifndef USBMGR_PLATFORM_HOST_DUSB_UEVENT_SOURCE_H
#define USBMGR_PLATFORM_HOST_DUSB_UEVENT_SOURCE_H

#include <string>
#include <vector>

#include "db_util/owners.h"
#include "uevent.h"

namespace dusb {

class UeventSource {
public:
    // The kernel's uevents; false (and one log line) when the socket cannot be had.
    bool open_netlink();
    // Blocks of KEY=VALUE lines from path (a FIFO blocks here until its writer comes).
    bool open_file(const std::string& path);

    int fd() const { return fd_.get(); }
    // Reads what is there; appends the events read. False at the end of a
    // file (the last block is then taken) or on a lasting error.
    bool read(std::vector<Uevent>& out);

private:
    bool read_netlink(std::vector<Uevent>& out);
    usbmgr::UniqueFd fd_;
    bool netlink_ = false;
    UeventBlockReader blocks_;
};

}  // namespace dusb

#endif
