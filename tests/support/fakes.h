// Fakes that several unit test files share: the kernel's mount table as the
// mount commands see it, device records as the descriptor daemon sends
// them, and a look at the ring of pending change kinds.
#ifndef USBMGR_TEST_FAKES_H
#define USBMGR_TEST_FAKES_H

#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "proto/payload.h"  // DusbDeviceRecord

namespace testing_support {

class FakeRunner;

// The one-shot alarm delay every storage change arms, in microseconds.
inline constexpr unsigned long kDeferral = 900000;

// Answers "mount | grep FOLDER" from a set of mounted folders, which
// "mount -v -t auto -o nosuid,nodev DEVICE FOLDER" adds to and "umount FOLDER" removes
// from, the way the kernel's mount table would.
class MountTable {
public:
    MountTable() = default;
    MountTable(std::initializer_list<std::string> mounted);

    // The runner's answer to one command line (empty for all but the check).
    std::string respond(const std::string& text);
    // Makes runner answer from this table; the table outlives the runner's use.
    void serve(FakeRunner& runner);

    void mount(const std::string& folder);
    bool mounted(const std::string& folder) const;

private:
    mutable std::mutex mutex_;
    std::set<std::string> mounted_;
};

// A storage device record: a SanDisk Ultra on port 1 with the given
// AttachDevice list ("sda,sda1,sda2") and serial number.
DusbDeviceRecord make_record(const char* attach, const char* serial = "4C530001230517115223");

// The lines print_device_info logs for a record of make_record.
std::vector<std::string> print_lines_of_default_record(const std::string& attach, const std::string& serial);

// Delivers record to the storage arrival or removal handler as the bus would.
int arrive(DusbDeviceRecord record, uint32_t len = DUSB_DEVICE_RECORD_SIZE);
int leave(DusbDeviceRecord record, uint32_t len = DUSB_DEVICE_RECORD_SIZE);

// Names of the pending change kinds, oldest first; the ring is left as it was.
std::vector<std::string> pending_kinds();

// The settings the storage handlers read: disks under /tmp/disk, ten
// history records, no automatic user access data.
void use_storage_settings();

}  // namespace testing_support

#endif
