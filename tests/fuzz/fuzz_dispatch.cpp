// Any command id and payload through the daemon's real command table, as
// the bus library hands them over: the id looked up in usbmgr_cmd_table, a
// zero-filled buffer of the declared size, the request copied in (a longer
// request is refused, as the bus answers 16), the handler called. Every
// handler in the table is reached without a line here naming it.
//
// Input: a flags byte (1: a disk sda,sda1,sda2 is plugged in first, 2: the
// settings file holds Samba accounts 0 and 3, 4: the history file holds a
// record of another disk), then commands until the input ends, each a u8
// id, a u16 length and that many bytes. After each command the settings
// and history files must still be one key=value a line, and the ring keep
// its indices. Throughout, no file outside the private /var and /tmp is
// written or removed (the write guard; the Samba file is moved into /var
// for it, as a gateway test would), and the files and folders the servers
// write (MiniDLNA's database and log folders, Samba's log file) stay there.
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "fuzz_support.h"
#include "usbmgrd/usbmgrd.h"

namespace {

constexpr int kMaxCommands = 16;

const char kAccounts[] =
    "USBMGR.SAMBA.USER_NAME.0=root\n"
    "USBMGR.SAMBA.USER_PASSWORD.0=admin\n"
    "USBMGR.SAMBA.USER_ENABLE.0=1\n"
    "USBMGR.SAMBA.USER_NAME.3=alice\n"
    "USBMGR.SAMBA.USER_PASSWORD.3=wonder land\n"
    "USBMGR.SAMBA.USER_ENABLE.3=0\n";

const char kOtherDisk[] =
    "USBMGR.0.SERIAL_NUMBER=OLD-DISK-1\n"
    "USBMGR.0.PNAME=Holiday\n"
    "USBMGR.0.NAME.0=Photos\n"
    "USBMGR.0.ENABLE.0=1\n";

// A disk plugged in through the arrival handler, as DUSB_DMON reports it.
void plug_disk() {
    DusbDeviceRecord rec{};
    usbmgr::copy_str(rec.AttachDevice, "sda,sda1,sda2");
    usbmgr::copy_str(rec.USBVersion, "2.00");
    rec.DeviceVersion = 256;
    usbmgr::copy_str(rec.Manufacturer, "Vendor");
    usbmgr::copy_str(rec.ProductClass, "Disk");
    usbmgr::copy_str(rec.SerialNumber, "FUZZ-DISK-0");
    std::vector<uint8_t> bytes(sizeof rec);
    std::memcpy(bytes.data(), &rec, sizeof rec);
    usbmgr_evt_new_storage_interface(&usbmgr_iil_handle, DUSB_EVT_NEW_STORAGE_INTERFACE,
                                     static_cast<uint32_t>(bytes.size()), bytes.data());
}

const OrbIilCmdEntry* find_command(uint32_t id) {
    for (const auto& e : usbmgr_cmd_table)
        if (e.id == id) return &e;
    return nullptr;
}

void check_state(const fuzz::KeyValueCheck& settings, const fuzz::KeyValueCheck& history, const std::string& after) {
    settings.check(USBMGR_CONF_PATH, after.c_str());
    history.check(TR140_CONF_PATH, after.c_str());
    const UsbmgrEvtBuffer& b = usbmgr_evt_buffer;
    if (b.write_index < 0 || b.write_index >= USBMGR_EVT_BUFFER_SIZE || b.read_index < 0 ||
        b.read_index >= USBMGR_EVT_BUFFER_SIZE)
        fuzz::finding("change-kind ring index out of range", after);
    if (fuzz::temp_left_beside(TR140_CONF_PATH)) fuzz::finding("temporary history file left behind", after);
    // What the servers write where the settings tell them: their files stay
    // in /var and /tmp too.
    for (const std::string_view p :
         {std::string_view(MINIDLNA_CONF.db_dir, usbmgr::field_len(MINIDLNA_CONF.db_dir)),
          std::string_view(MINIDLNA_CONF.log_dir, usbmgr::field_len(MINIDLNA_CONF.log_dir)),
          std::string_view(SAMBA_CONF.log_file, usbmgr::field_len(SAMBA_CONF.log_file))}) {
        if (!p.starts_with("/var/") && !p.starts_with("/tmp/") && p != "/var" && p != "/tmp")
            fuzz::finding("a server's file or folder outside /var and /tmp", after + ": " + std::string(p));
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
    const uint8_t flags = in.u8();

    std::string settings_text = fuzz::factory_settings();
    if (flags & 2) settings_text += kAccounts;
    fuzz::write_file(USBMGR_CONF_PATH, settings_text);
    std::string history_text = (flags & 4) ? kOtherDisk : "";
    if (flags & 4) fuzz::write_file(TR140_CONF_PATH, history_text);
    usbmgr_conf_load();
    usbmgr::copy_str(SAMBA_CONF.conf_dir, "/var/samba/smb.conf");
    fuzz::guard_writes(true);
    // Logins on serial adapters run forever by design.
    USB_SERIAL_ENABLE = 0;
    if (flags & 1) plug_disk();

    fuzz::KeyValueCheck settings(fuzz::KeyValueCheck::Kind::Settings);
    settings.allow_original(settings_text);
    settings.allow_any_value();
    fuzz::KeyValueCheck history(fuzz::KeyValueCheck::Kind::History);
    history.allow_original(history_text);
    history.allow_any_value();
    check_state(settings, history, "start");

    for (int i = 0; i < kMaxCommands && !in.empty(); ++i) {
        const uint32_t id = in.u8();
        const std::string request = in.bytes(in.u16());
        const OrbIilCmdEntry* e = find_command(id);
        if (e == nullptr) continue;            // the bus answers 13, UNKNOWN_CMD
        if (request.size() > e->size) continue;  // the bus answers 16, MISMATCH_CMD_LEN
        // Exactly the declared size on the heap: a handler that writes past it is caught.
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[e->size]());
        std::memcpy(buffer.get(), request.data(), request.size());
        fuzz::clock().reset();
        if (e->handler(&usbmgr_iil_handle, e->id, e->size, buffer.get()) != 0)
            fuzz::finding("command handler answered non-zero", std::to_string(id));
        // A safe removal's worker finishes before the next command, so each
        // input runs the same way every time.
        usbmgr_safe_remove_wait();
        check_state(settings, history, "command " + std::to_string(id));
    }
    // The deferred reload and flush that a changed setting arms.
    fuzz::clock().reset();
    usbmgr_alarm_work();
    check_state(settings, history, "deferred reload");
    fuzz::guard_writes(false);  // libFuzzer writes its corpus and reports where it is told
    return 0;
}
