#include "bench_support.h"

#include "private_dirs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "usbmgrd/usbmgrd.h"

namespace bench_support {

bool isolate() { return testing_support::enter_private_dirs(); }

usbmgr::RunResult TrueRunner::start_and_wait(const usbmgr::CommandLine& cmd, bool capture,
                                             const usbmgr::StartedFn& started) {
    usbmgr::RunResult r;
    if (!cmd.valid) return r;
    // Every command costs what starting a small program costs.
    r = real_.run(true_, capture, started);
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(cmd.text);
    static const std::string kMount = "mount -v -t auto ";
    static const std::string kUmount = "umount ";
    static const std::string kCheck = "mount | grep ";
    const std::string& t = cmd.text;
    if (t.rfind(kMount, 0) == 0) {
        std::string rest = t.substr(kMount.size());
        mounted_.insert(rest.substr(rest.find(' ') + 1));
    } else if (t.rfind(kUmount, 0) == 0) {
        mounted_.erase(t.substr(kUmount.size()));
    } else if (t.rfind(kCheck, 0) == 0) {
        std::string folder = t.substr(kCheck.size(), t.find(' ', kCheck.size()) - kCheck.size());
        if (mounted_.count(folder)) r.output = "/var/dev/x on " + folder + " type ext4 (rw)\n";
    }
    return r;
}

std::vector<std::string> TrueRunner::texts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
}

void TrueRunner::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.clear();
    mounted_.clear();
}

void reset_daemon_state() {
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0, sizeof usb_volume_info);
    dp_util_evt_buf_init();
    usbmgr_evt_in_progress = 0;
    unlink(TR140_CONF_PATH);
}

void use_settings() {
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 10;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
}

}  // namespace bench_support
