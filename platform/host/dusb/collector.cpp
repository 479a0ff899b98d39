#include "collector.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "db_util/owners.h"
#include "dusbd_log.h"
#include "sysfs_attr.h"
#include "usb_record.h"

namespace dusb {

namespace {

constexpr std::size_t kMaxDeviceName = 15;
constexpr std::size_t kMaxPartitions = 64;

std::string last_step(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parent_of(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// A kernel device name that may stand in a device list and a file name.
bool plain_device_name(const std::string& name) {
    if (name.empty() || name.size() > kMaxDeviceName) return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); });
}

bool is_tty_usb(const std::string& name) {
    constexpr std::size_t kPrefix = 6;  // "ttyUSB"
    if (name.size() <= kPrefix || name.size() > kMaxDeviceName || name.compare(0, kPrefix, "ttyUSB") != 0) return false;
    return std::all_of(name.begin() + kPrefix, name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A disk without a medium (an empty card slot) has size 0.
bool has_medium(const std::string& disk_folder) {
    long sectors = read_sysfs_number(disk_folder, "size", 10);
    return sectors != 0;
}

}  // namespace

Collector::Collector(std::string sysfs_root, HotplugSink& sink, Clock::duration settle)
    : root_(std::move(sysfs_root)), sink_(sink), settle_(settle) {}

std::string Collector::disk_list(const std::string& disk_folder, const std::string& disk_name) {
    std::vector<std::pair<long, std::string>> parts;
    usbmgr::DirPtr dir(opendir(disk_folder.c_str()));
    if (dir) {
        while (dirent* e = readdir(dir.get())) {
            std::string name = e->d_name;
            if (!plain_device_name(name) || name.compare(0, disk_name.size(), disk_name) != 0) continue;
            std::string folder = disk_folder;
            folder += '/';
            folder += name;
            if (!sysfs_dir_exists(folder)) continue;
            long number = read_sysfs_number(folder, "partition", 10);
            if (number < 0) continue;
            parts.emplace_back(number, name);
            if (parts.size() >= kMaxPartitions) break;
        }
    }
    std::sort(parts.begin(), parts.end());
    std::string list = disk_name;
    for (const auto& p : parts) list += "," + p.second;
    return list;
}

void Collector::scan_present(Clock::time_point now) {
    for (const char* subsystem : {"block", "tty"}) {
        const std::string cls = root_ + "/class/" + subsystem;
        usbmgr::DirPtr dir(opendir(cls.c_str()));
        if (!dir) continue;
        std::vector<Uevent> found;
        while (dirent* e = readdir(dir.get())) {
            if (e->d_name[0] == '.') continue;
            char target[kMaxDevpath + 1];
            const std::string link = cls + "/" + e->d_name;
            ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
            if (n <= 0) continue;
            target[n] = '\0';
            // ../../devices/pci0000:00/.../block/sdb
            const char* devices = std::strstr(target, "/devices/");
            if (devices == nullptr) continue;
            Uevent ev{"add", devices, subsystem, e->d_name, ""};
            if (ev.subsystem == "block")
                ev.devtype = sysfs_file_exists(root_ + ev.devpath, "partition") ? "partition" : "disk";
            found.push_back(std::move(ev));
        }
        // Disks before their partitions, as the kernel adds them.
        std::stable_sort(found.begin(), found.end(),
                         [](const Uevent& a, const Uevent& b) { return a.devtype == "disk" && b.devtype != "disk"; });
        for (const Uevent& ev : found) handle(ev, now);
    }
}

void Collector::handle(const Uevent& ev, Clock::time_point now) {
    if (!uevent_is_sane(ev)) return;
    if (ev.subsystem == "block") {
        const std::string name = last_step(ev.devpath);
        if (!plain_device_name(name)) return;
        if (ev.devtype == "disk") handle_disk(ev, name, now);
        else if (ev.devtype == "partition") handle_partition(ev, now);
    } else if (ev.subsystem == "tty") {
        const std::string name = last_step(ev.devpath);
        if (is_tty_usb(name)) handle_tty(ev, name);
    } else if (ev.subsystem == "usb" && ev.devtype == "usb_device" && ev.action == "remove") {
        handle_usb_device_removal(ev);
    }
}

void Collector::handle_disk(const Uevent& ev, const std::string& name, Clock::time_point now) {
    auto it = disks_.find(name);
    if (ev.action == "remove") {
        if (it == disks_.end() || it->second.devpath != ev.devpath) return;
        tell_removal(name, it->second);
        disks_.erase(it);
        return;
    }
    if (ev.action != "add" && ev.action != "change") return;
    if (it != disks_.end() && it->second.devpath != ev.devpath) {
        // The name went to another device while its removal was missed.
        tell_removal(name, it->second);
        disks_.erase(it);
        it = disks_.end();
    }
    if (it == disks_.end()) {
        std::string usb = find_usb_device(root_, ev.devpath);
        if (usb.empty()) return;  // an internal disk, a loop device: not ours
        std::string port = usb_port_name(usb);
        if (port.empty()) {
            DUSBD_LOG(ORBIIL_LOG_WARNING, "disk %s: port name of %s refused", name.c_str(), usb.c_str());
            return;
        }
        Disk disk;
        disk.devpath = ev.devpath;
        disk.usb_folder = usb;
        disk.port = port;
        it = disks_.emplace(name, std::move(disk)).first;
    }
    it->second.due = now + settle_;
}

void Collector::handle_partition(const Uevent& ev, Clock::time_point now) {
    const std::string disk_devpath = parent_of(ev.devpath);
    auto it = disks_.find(last_step(disk_devpath));
    if (it == disks_.end() || it->second.devpath != disk_devpath) return;
    it->second.due = now + settle_;
}

void Collector::handle_tty(const Uevent& ev, const std::string& name) {
    auto it = ttys_.find(name);
    if (ev.action == "remove") {
        if (it == ttys_.end()) return;
        Tty tty = std::move(it->second);
        ttys_.erase(it);
        tty.record.ArrivedOrLeft = 0;
        port_remove(tty.port, name);
        sink_.send(DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE, tty.record);
        return;
    }
    if (ev.action != "add" || it != ttys_.end()) return;
    std::string usb = find_usb_device(root_, ev.devpath);
    if (usb.empty()) return;
    std::string port = usb_port_name(usb);
    if (port.empty()) {
        DUSBD_LOG(ORBIIL_LOG_WARNING, "%s: port name of %s refused", name.c_str(), usb.c_str());
        return;
    }
    Tty tty;
    tty.usb_folder = usb;
    tty.port = port;
    tty.record = build_usb_record(usb, name, true);
    const DusbDeviceRecord record = tty.record;
    ttys_.emplace(name, std::move(tty));
    port_add(port, name, name);
    sink_.send(DUSB_EVT_NEW_USB_SERIAL_INTERFACE, record);
}

void Collector::handle_usb_device_removal(const Uevent& ev) {
    // Whatever still hangs on the USB device went with it, told or not.
    const std::string usb = root_ + ev.devpath;
    for (auto it = disks_.begin(); it != disks_.end();) {
        if (it->second.usb_folder == usb) {
            tell_removal(it->first, it->second);
            it = disks_.erase(it);
        } else {
            ++it;
        }
    }
    for (auto it = ttys_.begin(); it != ttys_.end();) {
        if (it->second.usb_folder == usb) {
            const std::string name = it->first;
            Tty tty = std::move(it->second);
            it = ttys_.erase(it);
            tty.record.ArrivedOrLeft = 0;
            port_remove(tty.port, name);
            sink_.send(DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE, tty.record);
        } else {
            ++it;
        }
    }
}

void Collector::tick(Clock::time_point now) {
    for (auto it = disks_.begin(); it != disks_.end();) {
        Disk& disk = it->second;
        if (!disk.due || *disk.due > now) {
            ++it;
            continue;
        }
        disk.due.reset();
        settle(it->first, disk);
        // A disk whose folder went away is forgotten once told.
        if (!sysfs_dir_exists(root_ + disk.devpath) && !disk.told)
            it = disks_.erase(it);
        else
            ++it;
    }
}

std::optional<Clock::time_point> Collector::next_deadline() const {
    std::optional<Clock::time_point> next;
    for (const auto& [name, disk] : disks_)
        if (disk.due && (!next || *disk.due < *next)) next = disk.due;
    return next;
}

void Collector::settle(const std::string& name, Disk& disk) {
    const std::string folder = root_ + disk.devpath;
    const bool present = sysfs_dir_exists(folder) && has_medium(folder) && sysfs_file_exists(disk.usb_folder, "idVendor");
    const std::string list = present ? disk_list(folder, name) : std::string();
    if (disk.told) {
        if (present && list == disk.list) return;
        tell_removal(name, disk);
    }
    if (!present) return;
    disk.record = build_usb_record(disk.usb_folder, list, true);
    disk.list = list;
    disk.told = true;
    if (list != disk.record.AttachDevice)
        DUSBD_LOG(ORBIIL_LOG_WARNING, "disk %s: device list cut to %s", name.c_str(), disk.record.AttachDevice);
    port_add(disk.port, name, disk.record.AttachDevice);
    sink_.send(DUSB_EVT_NEW_STORAGE_INTERFACE, disk.record);
}

void Collector::tell_removal(const std::string& name, Disk& disk) {
    if (!disk.told) return;
    disk.told = false;
    DusbDeviceRecord record = disk.record;
    record.ArrivedOrLeft = 0;
    port_remove(disk.port, name);
    sink_.send(DUSB_EVT_REMOVE_STORAGE_INTERFACE, record);
}

void Collector::port_add(const std::string& port, const std::string& name, const std::string& list) {
    auto& held = ports_[port];
    held.emplace_back(name, list);
    if (held.size() == 1) sink_.write_port(port, list);
}

void Collector::port_remove(const std::string& port, const std::string& name) {
    auto it = ports_.find(port);
    if (it == ports_.end()) return;
    auto& held = it->second;
    auto pos = std::find_if(held.begin(), held.end(), [&](const auto& h) { return h.first == name; });
    if (pos == held.end()) return;
    const bool was_first = pos == held.begin();
    held.erase(pos);
    if (held.empty()) {
        ports_.erase(it);
        sink_.remove_port(port);
    } else if (was_first) {
        sink_.write_port(port, held.front().second);
    }
}

}  // namespace dusb
