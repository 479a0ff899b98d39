// Attached storage as the model builder sees it, for unit tests: device
// nodes in /var/dev, table rows as the arrival handler fills them, top
// folders under /tmp/disk, and "df" and "mount" answered through the fake
// runner the way grep would filter the kernel's lines.
#ifndef USBMGR_TEST_STORAGE_WORLD_H
#define USBMGR_TEST_STORAGE_WORLD_H

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/str.h"
#include "test_support.h"
#include "usbmgrd/usbmgr_tr140.h"

namespace testing_support {

struct FakeDisk {
    std::string disk = "sda";
    std::vector<std::string> volumes = {"sda1"};
    std::string serial = "SER-1";
    std::string vendor = "ACME";
    std::string model = "Stick";
    std::string usb_version = "2.0";
    std::string firmware = "256";
};

class StorageWorld {
public:
    // The mount root is /tmp/disk; the runner answers "df" and "mount".
    explicit StorageWorld(FakeRunner& runner) : state_(std::make_shared<State>()) {
        usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
        mkdir("/tmp/disk", 0755);
        std::shared_ptr<State> state = state_;
        runner.respond = [state](const std::string& text) { return state->respond(text); };
    }

    // Fills the lowest free rows as the arrival handler does, makes the
    // nodes and the mount folders, and mounts every volume as ext4 with
    // 100 MB of which 10 used. Returns the disk's slot.
    int plug(const FakeDisk& d) {
        std::string list = d.disk;
        for (const auto& v : d.volumes) list += "," + v;
        int slot = db_util_get_usb_physical_info_free_item(list.c_str());
        UsbPhysicalInfo& e = usb_physical_info[slot];
        e.index = slot;
        usbmgr::copy_str(e.attach_device, list.c_str());
        usbmgr::copy_str(e.vendor, d.vendor.c_str());
        usbmgr::copy_str(e.model, d.model.c_str());
        usbmgr::copy_str(e.usb_version, d.usb_version.c_str());
        usbmgr::copy_str(e.serial_number, d.serial.c_str());
        usbmgr::copy_str(e.firmware_version, d.firmware.c_str());
        node(d.disk);
        for (const auto& v : d.volumes) {
            int vslot = db_util_get_usb_volume_info_free_item(v.c_str());
            usb_volume_info[vslot].index = vslot;
            usbmgr::copy_str(usb_volume_info[vslot].name, v.c_str());
            node(v);
            mkdir(("/tmp/disk/" + v).c_str(), 0755);
            mount(v, "ext4", 100, 10);
        }
        return slot;
    }

    // Undoes plug as the removal does: rows deleted, nodes and folders gone.
    void unplug(const FakeDisk& d) {
        std::string list = d.disk;
        for (const auto& v : d.volumes) list += "," + v;
        usbmgr::DaemonLock lock;
        for (const auto& v : d.volumes) {
            db_util_delete_usb_volume_info_item(v.c_str());
            unlink(("/var/dev/" + v).c_str());
            rmdir(("/tmp/disk/" + v).c_str());
            state_->volumes.erase(v);
        }
        db_util_delete_usb_physical_info_item(list.c_str());
        unlink(("/var/dev/" + d.disk).c_str());
    }

    void node(const std::string& name) { write_file("/var/dev/" + name, ""); }
    void folder(const std::string& volume, const std::string& name) {
        mkdir(("/tmp/disk/" + volume + "/" + name).c_str(), 0755);
    }
    // "mount" type and "df -m" sizes of a volume.
    void mount(const std::string& volume, const std::string& type, int total, int used) {
        state_->volumes[volume] = {type, total, used};
    }

    static void history(const std::vector<std::string>& lines) { write_lines(TR140_CONF_PATH, lines); }
    static void settings(const std::vector<std::string>& lines) { write_lines(USBMGR_CONF_PATH, lines); }

    // Rebuilds the model as its callers do, under the daemon lock.
    static void build() {
        usbmgr::DaemonLock lock;
        usbmgr_tr140_db_build();
    }

private:
    struct Volume {
        std::string type;
        int total;
        int used;
    };
    struct State {
        std::map<std::string, Volume> volumes;
        // grep keeps the lines that contain its pattern anywhere.
        std::string respond(const std::string& text) {
            std::string pattern, out;
            bool df = parse(text, "df -m | grep ", pattern);
            if (!df && !parse(text, "mount | grep ", pattern)) return out;
            for (const auto& [name, v] : volumes) {
                std::string line =
                    df ? "/var/dev/" + name + " " + std::to_string(v.total) + " " + std::to_string(v.used) + " " +
                             std::to_string(v.total - v.used) + " 10% /tmp/disk/" + name
                       : "/var/dev/" + name + " on /tmp/disk/" + name + " type " + v.type + " (rw,relatime)";
                if (line.find(pattern) != std::string::npos) out += line + "\n";
            }
            return out;
        }
        static bool parse(const std::string& text, const std::string& head, std::string& pattern) {
            const std::string tail = " 2>&1";
            if (text.compare(0, head.size(), head) != 0 || text.size() < head.size() + tail.size()) return false;
            pattern = text.substr(head.size(), text.size() - head.size() - tail.size());
            return true;
        }
    };

    static void write_lines(const std::string& path, const std::vector<std::string>& lines) {
        std::string text;
        for (const auto& l : lines) text += l + "\n";
        write_file(path, text);
    }

    std::shared_ptr<State> state_;
};

}  // namespace testing_support

#endif
