#include "fakes.h"

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "test_support.h"
#include "usbmgrd/usbmgrd.h"

namespace testing_support {

MountTable::MountTable(std::initializer_list<std::string> mounted) : mounted_(mounted) {}

std::string MountTable::respond(const std::string& text) {
    static const std::string kMount = "mount -v -t auto -o nosuid,nodev ";
    static const std::string kUmount = "umount ";
    static const std::string kCheck = "mount | grep ";
    std::lock_guard<std::mutex> lock(mutex_);
    if (text.rfind(kMount, 0) == 0) {
        std::string rest = text.substr(kMount.size());
        mounted_.insert(rest.substr(rest.find(' ') + 1));
    } else if (text.rfind(kUmount, 0) == 0) {
        mounted_.erase(text.substr(kUmount.size()));
    } else if (text.rfind(kCheck, 0) == 0) {
        std::string folder = text.substr(kCheck.size(), text.find(' ', kCheck.size()) - kCheck.size());
        if (mounted_.count(folder)) return "/var/dev/x on " + folder + " type ext4 (rw)\n";
    }
    return "";
}

void MountTable::serve(FakeRunner& runner) {
    runner.respond = [this](const std::string& text) { return respond(text); };
}

void MountTable::mount(const std::string& folder) {
    std::lock_guard<std::mutex> lock(mutex_);
    mounted_.insert(folder);
}

bool MountTable::mounted(const std::string& folder) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mounted_.count(folder) != 0;
}

DusbDeviceRecord make_record(const char* attach, const char* serial) {
    DusbDeviceRecord r{};
    r.Index = 2;
    r.ArrivedOrLeft = 1;
    r.ProductID = 0x5581;
    r.VendorID = 0x0781;
    r.DeviceClass = 0x08;
    r.DeviceSubClass = 0x06;
    r.DeviceProtocol = 0x50;
    usbmgr::copy_str(r.AttachDevice, attach);
    usbmgr::copy_str(r.USBVersion, "2.10");
    r.DeviceVersion = 256;
    usbmgr::copy_str(r.Manufacturer, "SanDisk");
    usbmgr::copy_str(r.ProductClass, "Ultra");
    usbmgr::copy_str(r.SerialNumber, serial);
    r.HostIndexInDB = 0;
    r.DeviceIndexInDB = 3;
    r.PortIndexInDB = 1;
    r.HostNumberOfEntries = 1;
    r.PortNumberOfEntries = 2;
    r.DeviceNumberOfEntries = 4;
    return r;
}

std::vector<std::string> print_lines_of_default_record(const std::string& attach, const std::string& serial) {
    return {
        "   Index                  = 2",
        "   ArrivedOrLeft          = 1",
        "   VendorID               = 0x0781",
        "   ProductID              = 0x5581",
        "   DeviceClass            = 0x08",
        "   DeviceSubClass         = 0x06",
        "   DeviceProtocol         = 0x50",
        "   AttachDevice           = " + attach,
        "   USBVersion             = 2.10",
        "   DeviceVersion          = 256",
        "   Manufacturer           = SanDisk",
        "   ProductClass           = Ultra",
        "   SerialNumber           = " + serial,
        "   HostIndexInDB          = 0",
        "   DeviceIndexInDB        = 3",
        "   PortIndexInDB          = 1",
        "   HostNumberOfEntries    = 1",
        "   DeviceNumberOfEntries  = 4",
        "   PortNumberOfEntries    = 2",
    };
}

int arrive(DusbDeviceRecord record, uint32_t len) {
    return usbmgr_evt_new_storage_interface(nullptr, 0, len, &record);
}

int leave(DusbDeviceRecord record, uint32_t len) {
    return usbmgr_evt_remove_storage_interface(nullptr, 0, len, &record);
}

std::vector<std::string> pending_kinds() {
    const UsbmgrEvtBuffer saved = usbmgr_evt_buffer;
    std::vector<std::string> names;
    int32_t kind;
    while (dp_util_evt_buf_read(&kind) == 0) names.push_back(usbmgr_tr140_kind_name(kind));
    usbmgr_evt_buffer = saved;
    return names;
}

void use_storage_settings() {
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 10;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
}

}  // namespace testing_support
