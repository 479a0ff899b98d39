// Kernel uevents as dusbd reads them: from the kernel's netlink socket
// (messages "ACTION@DEVPATH\0KEY=VALUE\0...") or from a file of blocks of
// KEY=VALUE lines separated by an empty line, as
// `udevadm monitor --kernel --property` prints them. Both are outside
// input: every field is bounded and an event that does not look like the
// kernel's is dropped whole.
#ifndef USBMGR_PLATFORM_HOST_DUSB_UEVENT_H
#define USBMGR_PLATFORM_HOST_DUSB_UEVENT_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace dusb {

// The properties dusbd acts on; the others are read and forgotten.
struct Uevent {
    std::string action;     // add, remove, change, ...
    std::string devpath;    // /devices/..., below the sysfs root
    std::string subsystem;  // block, tty, usb, scsi, ...
    std::string devname;    // sdb, sdb1, ttyUSB0 (may be empty)
    std::string devtype;    // disk, partition, usb_device, ... (may be empty)
};

// Bounds of what is kept: the kernel's own buffer is 2048 bytes a message.
inline constexpr std::size_t kMaxUeventMessage = 8192;
inline constexpr std::size_t kMaxDevpath = 1024;
inline constexpr std::size_t kMaxValue = 64;
inline constexpr std::size_t kMaxLine = 4096;

// True when the event has an action and a device path of the kernel's
// shape (starting "/devices/", no "." or ".." step, no empty step, plain
// characters) and bounded names.
bool uevent_is_sane(const Uevent& ev);

// One netlink message of the kernel; nullopt for anything else (a
// libudev message, a header without '@', a message failing the checks).
std::optional<Uevent> parse_kernel_message(const char* data, std::size_t len);

// Cuts a byte stream into blocks of KEY=VALUE lines. Lines without '='
// (the "KERNEL[...] add ..." headings) are skipped; a line longer than
// kMaxLine spoils its block. Only sane events come out.
class UeventBlockReader {
public:
    // Takes the next bytes; complete events are appended to out.
    void feed(const char* data, std::size_t len, std::vector<Uevent>& out);
    // End of input: a last block without its empty line still counts.
    void finish(std::vector<Uevent>& out);

private:
    void end_line(std::vector<Uevent>& out);
    void end_block(std::vector<Uevent>& out);

    std::string line_;
    bool line_too_long_ = false;
    Uevent block_;
    bool block_spoilt_ = false;
    bool block_empty_ = true;
};

// Applies one KEY=VALUE property to ev; false when its value is too long
// for its field (the event is then not to be trusted).
bool apply_property(Uevent& ev, const char* key, std::size_t key_len, const char* value, std::size_t value_len);

}  // namespace dusb

#endif
