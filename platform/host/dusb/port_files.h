// The port files of /tmp/usb: one file a USB port, named after it, whose
// one line is the attached device list followed by "\r\n". A file is
// replaced whole (written beside it, then renamed), so a reader never sees
// half a line; the folder must be a real folder, never a link.
#ifndef USBMGR_PLATFORM_HOST_DUSB_PORT_FILES_H
#define USBMGR_PLATFORM_HOST_DUSB_PORT_FILES_H

#include <string>

namespace dusb {

class PortFiles {
public:
    explicit PortFiles(std::string dir) : dir_(std::move(dir)) {}
    // Writes PORT's file with list; false (and one log line) on failure.
    bool write(const std::string& port, const std::string& list);
    // Removes PORT's file; a missing file is fine.
    bool remove(const std::string& port);

private:
    int open_dir(bool create);
    std::string dir_;
};

}  // namespace dusb

#endif
