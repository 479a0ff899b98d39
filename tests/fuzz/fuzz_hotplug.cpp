// Hot-plug records of DUSB_DMON through the daemon's real event table, in
// sequences (arrive, leave, arrive), with the world answering the commands.
//
// Input: a settings byte (bits 0-3 history capacity, bit 4 user access made
// automatically, bits 5-6 the mount root), then steps until the input ends,
// each a step byte and its data:
//   step % 8 in 0..3  the event of that row of the event table (0, 6, 7,
//                     13), u16 length and that many bytes of payload
//   4                 the event of row (step >> 3) % 4 with the last payload
//   5                 u16 length and bytes the world answers from (mount
//                     works or fails, a disk is busy, a command prints text)
//   6                 a port file of /tmp/usb: u8 length and its bytes, then
//                     the start-up walks over the port files
//   7                 the deferred reload and flush, as the alarm runs them
// After each step the device tables, the ring and the history file must
// still keep their rules, and no serial login may have been started.
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "fuzz_support.h"
#include "usbmgrd/usbmgrd.h"

namespace {

constexpr int kMaxSteps = 24;
constexpr std::size_t kMaxPayload = 1024;

const char* const kMountRoots[] = {"/tmp/disk", "/tmp/disk", "/tmp/usb-disks-with-a-long-folder-name-for-the-mount-root",
                                   "/tmp/a b"};

template <std::size_t N>
bool terminated(const char (&field)[N]) {
    return strnlen(field, N) < N;
}

void check_tables(const char* after) {
    for (const auto& e : usb_physical_info) {
        if (!terminated(e.attach_device) || !terminated(e.vendor) || !terminated(e.model) ||
            !terminated(e.usb_version) || !terminated(e.serial_number) || !terminated(e.firmware_version))
            fuzz::finding("disk table text left without its terminator", after);
        if (e.attach_device[0] != '\0' && !disk_util_device_list_ok(e.attach_device))
            fuzz::finding("disk table holds a device list that is not one", e.attach_device);
        for (const char* text : {e.serial_number, e.vendor, e.model, e.usb_version})
            for (const char* p = text; *p; ++p)
                // '=' is legal inside a value: the key ends at the first one.
                if (static_cast<unsigned char>(*p) < 0x20 || *p == 0x7f)
                    fuzz::finding("disk table holds a text that would break a key=value line", text);
    }
    for (const auto& v : usb_volume_info) {
        if (!terminated(v.name)) fuzz::finding("volume table name left without its terminator", after);
        if (v.name[0] != '\0' && !disk_util_device_name_ok(v.name))
            fuzz::finding("volume table holds a name that is not a device name", v.name);
    }
    const UsbmgrEvtBuffer& b = usbmgr_evt_buffer;
    if (b.write_index < 0 || b.write_index >= USBMGR_EVT_BUFFER_SIZE || b.read_index < 0 ||
        b.read_index >= USBMGR_EVT_BUFFER_SIZE)
        fuzz::finding("change-kind ring index out of range", after);
}

void deliver(int row, const std::string& payload) {
    // A heap buffer of exactly the delivered length: a read past it is caught.
    std::vector<uint8_t> bytes(payload.begin(), payload.end());
    const OrbIilEvtEntry& e = usbmgr_evt_table[row];
    fuzz::clock().reset();
    int r = e.handler(&usbmgr_iil_handle, e.id, static_cast<uint32_t>(bytes.size()), bytes.empty() ? nullptr : bytes.data());
    if (r != 0) fuzz::finding("event handler answered non-zero", std::to_string(e.id));
}

void port_file(const std::string& content) {
    mkdir(DISK_UTIL_USB_PORT_PATH, 0755);
    fuzz::write_file("/tmp/usb/1-1", content);
    fuzz::clock().reset();
    disk_util_init_mount_exist_disk();
    usbmgr_scan_exist_device();
    for (int i = 0, n = disk_util_count_of_exist_usb_serial(); i < n && i < 4; ++i) {
        char name[20] = {};
        disk_util_get_usb_serial_name_by_index(i, name, sizeof name);
        if (!terminated(name)) fuzz::finding("serial adapter name left without its terminator", content);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::init(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::reset_iteration();
    fuzz::Reader in(data, size);
    const uint8_t settings = in.u8();
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = settings & 0x0F;
    AUTO_CREATE_USER_ACCESS_DATA = (settings >> 4) & 1;
    usbmgr::copy_str(MOUNT_DISK_PATH, kMountRoots[(settings >> 5) & 3]);
    // Logins on serial adapters run forever by design; the intake is fuzzed without them.
    USB_SERIAL_ENABLE = 0;

    fuzz::KeyValueCheck history(fuzz::KeyValueCheck::Kind::History);
    std::string last;
    for (int step = 0; step < kMaxSteps && !in.empty(); ++step) {
        const uint8_t op = in.u8();
        const char* what = "event";
        switch (op % 8) {
            case 0:
            case 1:
            case 2:
            case 3:
                last = in.bytes(std::min<std::size_t>(in.u16(), kMaxPayload));
                deliver(op % 8, last);
                break;
            case 4:
                deliver((op >> 3) % 4, last);
                break;
            case 5:
                fuzz::world().answers().append(in.text16());
                what = "answers";
                break;
            case 6:
                port_file(in.text8());
                what = "port file";
                break;
            default:
                fuzz::clock().reset();
                usbmgr_alarm_work();
                what = "deferred reload";
                break;
        }
        if (last.size() >= offsetof(DusbDeviceRecord, SerialNumber)) {
            // The serial as the record carried it may be stored as it is.
            history.allow_value(last.substr(offsetof(DusbDeviceRecord, SerialNumber), 64));
        }
        check_tables(what);
        history.check(TR140_CONF_PATH, what);
        // Serial events with any payload: a node at most, never a login.
        for (pthread_t id : getty_thread_id)
            if (id != 0) fuzz::finding("login thread started with serial logins off", what);
    }
    return 0;
}
