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

usbmgr::RunResult RecordingRunner::start_and_wait(const usbmgr::CommandLine& cmd, bool capture,
                                                  const usbmgr::StartedFn& started) {
    usbmgr::RunResult r;
    if (!cmd.valid) return r;
    if (start_programs_) {
        // Every command costs what starting a small program costs.
        r = real_.run(true_, capture, started);
    } else {
        r.started = true;
        if (started) started();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(cmd.text);
    answer(cmd.text, r);
    return r;
}

std::vector<std::string> RecordingRunner::texts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
}

std::size_t RecordingRunner::count_starting(const std::string& prefix) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t n = 0;
    for (const auto& t : texts_)
        if (t.rfind(prefix, 0) == 0) ++n;
    return n;
}

void RecordingRunner::clear_texts() {
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.clear();
}

void TrueRunner::answer(const std::string& t, usbmgr::RunResult& r) {
    static const std::string kMount = "mount -v -t auto -o nosuid,nodev ";
    static const std::string kUmount = "umount ";
    static const std::string kCheck = "mount | grep ";
    if (t.rfind(kMount, 0) == 0) {
        std::string rest = t.substr(kMount.size());
        mounted_.insert(rest.substr(rest.find(' ') + 1));
    } else if (t.rfind(kUmount, 0) == 0) {
        mounted_.erase(t.substr(kUmount.size()));
    } else if (t.rfind(kCheck, 0) == 0) {
        std::string folder = t.substr(kCheck.size(), t.find(' ', kCheck.size()) - kCheck.size());
        if (mounted_.count(folder)) r.output = "/var/dev/x on " + folder + " type ext4 (rw)\n";
    }
}

void TrueRunner::clear() {
    clear_texts();
    std::lock_guard<std::mutex> lock(mutex_);
    mounted_.clear();
}

void WorldRunner::answer(const std::string& t, usbmgr::RunResult& r) {
    static const std::string kDf = "df -m | grep ";
    static const std::string kMount = "mount | grep ";
    static const std::string kTail = " 2>&1";
    const bool df = t.rfind(kDf, 0) == 0;
    if (!df && t.rfind(kMount, 0) != 0) return;
    const std::size_t head = df ? kDf.size() : kMount.size();
    if (t.size() < head + kTail.size()) return;
    const std::string pattern = t.substr(head, t.size() - head - kTail.size());
    for (const std::string& v : volumes_) {
        std::string line = df ? "/var/dev/" + v + " 1000 100 900 10% /tmp/disk/" + v
                              : "/var/dev/" + v + " on /tmp/disk/" + v + " type ext4 (rw,relatime)";
        if (line.find(pattern) != std::string::npos) r.output += line + "\n";
    }
}

namespace {
void touch(const std::string& path) {
    if (FILE* f = std::fopen(path.c_str(), "w")) std::fclose(f);
}
}  // namespace

int plug_world(WorldRunner& runner, int disks, int volumes_per_disk, int folders) {
    mkdir("/var/dev", 0755);
    mkdir("/tmp/disk", 0755);
    int volumes = 0;
    for (int d = 0; d < disks && d < 26; ++d) {
        const std::string disk = std::string("sd") + static_cast<char>('a' + d);
        std::string list = disk;
        for (int p = 1; p <= volumes_per_disk; ++p) list += "," + disk + std::to_string(p);
        int slot = db_util_get_usb_physical_info_free_item(list.c_str());
        if (slot < 0) break;
        UsbPhysicalInfo& e = usb_physical_info[slot];
        e.index = slot;
        usbmgr::copy_str(e.attach_device, list.c_str());
        usbmgr::copy_str(e.vendor, "Generic");
        usbmgr::copy_str(e.model, "Flash Disk");
        usbmgr::copy_str(e.usb_version, "2.0");
        char serial[32];
        usbmgr::format_str(serial, "BENCH%02d", d);
        usbmgr::copy_str(e.serial_number, serial);
        usbmgr::copy_str(e.firmware_version, "256");
        touch("/var/dev/" + disk);
        for (int p = 1; p <= volumes_per_disk; ++p) {
            const std::string v = disk + std::to_string(p);
            int vslot = db_util_get_usb_volume_info_free_item(v.c_str());
            if (vslot < 0) break;
            usb_volume_info[vslot].index = vslot;
            usbmgr::copy_str(usb_volume_info[vslot].name, v.c_str());
            touch("/var/dev/" + v);
            const std::string root = "/tmp/disk/" + v;
            mkdir(root.c_str(), 0755);
            for (int f = 0; f < folders; ++f) {
                char name[32];
                usbmgr::format_str(name, "/folder%03d", f);
                mkdir((root + name).c_str(), 0755);
            }
            runner.add_volume(v);
            ++volumes;
        }
    }
    return volumes;
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

void use_server_settings() {
    MINIDLNA_CONF.enable = 1;
    usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/tmp/bench-minidlna.conf");
    usbmgr::copy_str(MINIDLNA_CONF.db_dir, "/tmp/bench-minidlna-db");
    usbmgr::copy_str(MINIDLNA_CONF.log_dir, "/tmp");
    usbmgr::copy_str(MINIDLNA_CONF.media_dir, "/tmp/disk");
    usbmgr::copy_str(MINIDLNA_CONF.port, "8200");
    usbmgr::copy_str(MINIDLNA_CONF.friendly_name, "bench");
    SAMBA_CONF.enable = 1;
    usbmgr::copy_str(SAMBA_CONF.conf_dir, "/tmp/bench-smb.conf");
    usbmgr::copy_str(SAMBA_CONF.security, "user");
    usbmgr::copy_str(SAMBA_CONF.workgroup, "WORKGROUP");
    usbmgr::copy_str(SAMBA_CONF.username_map, "root");
    usbmgr::copy_str(SAMBA_CONF.username_map_dir, "/tmp/bench-smbusers");
}

}  // namespace bench_support
