#include "bench_support.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "usbmgrd/usbmgrd.h"

namespace bench_support {

namespace {

bool write_text(const char* path, const std::string& text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

}  // namespace

bool isolate() {
    uid_t uid = getuid();
    gid_t gid = getgid();
    int flags = CLONE_NEWNS;
    if (geteuid() != 0) flags |= CLONE_NEWUSER;
    if (unshare(flags) != 0) {
        perror("unshare");
        return false;
    }
    if (flags & CLONE_NEWUSER) {
        write_text("/proc/self/setgroups", "deny");
        write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("mount private");
        return false;
    }
    for (const char* dir : {"/tmp", "/var"}) {
        if (mount("tmpfs", dir, "tmpfs", 0, "mode=0755,size=64m") != 0) {
            perror(dir);
            return false;
        }
    }
    mkdir("/var/config", 0755);
    mkdir("/var/dev", 0775);
    chmod("/tmp", 01777);
    return true;
}

usbmgr::RunResult TrueRunner::run(const usbmgr::CommandLine& cmd, bool capture) {
    usbmgr::RunResult r;
    if (!cmd.valid) return r;
    // Every command costs what starting a small program costs.
    r = real_.run(true_, capture);
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
