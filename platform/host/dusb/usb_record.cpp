#include "usb_record.h"

#include <cstring>

#include "db_util/str.h"
#include "sysfs_attr.h"

namespace dusb {

namespace {

constexpr std::size_t kMaxPortName = 19;  // what the daemon keeps of a port name

// Copies text into a fixed field: cut to fit on a character boundary,
// NUL-padded, control characters replaced.
template <std::size_t N>
void put_text(char (&field)[N], const char* text) {
    std::size_t len = strnlen(text, N - 1);
    // Never leave half a UTF-8 sequence at the cut.
    if (len == N - 1 && text[len] != '\0') {
        std::size_t cut = len;
        while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xc0) == 0x80) --cut;
        len = cut;
    }
    std::memset(field, 0, N);
    std::memcpy(field, text, len);
    usbmgr::sanitize_value_text(field, N);
}

// A text attribute, blanks trimmed; empty when missing.
template <std::size_t N>
void read_text(const std::string& dir, const char* name, char (&buf)[N]) {
    read_sysfs_line(dir, name, buf);
    trim_blanks(buf);
}

long number_or_zero(const std::string& dir, const char* name, int base, long max) {
    long v = read_sysfs_number(dir, name, base);
    return v < 0 || v > max ? 0 : v;
}

}  // namespace

std::string find_usb_device(const std::string& root, const std::string& devpath) {
    std::string path = root + devpath;
    const std::size_t floor = root.size() + std::strlen("/devices");
    for (;;) {
        std::size_t slash = path.rfind('/');
        if (slash == std::string::npos || slash <= floor) return {};
        path.resize(slash);
        if (sysfs_file_exists(path, "idVendor")) return path;
    }
}

std::string usb_port_name(const std::string& usb_folder) {
    std::size_t slash = usb_folder.rfind('/');
    std::string name = slash == std::string::npos ? usb_folder : usb_folder.substr(slash + 1);
    if (name.empty() || name.size() > kMaxPortName || name == "." || name == "..") return {};
    for (char c : name) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
                  c == '_';
        if (!ok) return {};
    }
    return name;
}

DusbDeviceRecord build_usb_record(const std::string& usb_folder, const std::string& attach, bool arrival) {
    DusbDeviceRecord rec;
    std::memset(&rec, 0, sizeof rec);
    rec.Index = static_cast<uint8_t>(number_or_zero(usb_folder, "devnum", 10, 255));
    rec.ArrivedOrLeft = arrival ? 1 : 0;
    rec.ProductID = static_cast<uint16_t>(number_or_zero(usb_folder, "idProduct", 16, 0xffff));
    rec.VendorID = static_cast<uint16_t>(number_or_zero(usb_folder, "idVendor", 16, 0xffff));
    rec.DeviceClass = static_cast<uint8_t>(number_or_zero(usb_folder, "bDeviceClass", 16, 0xff));
    rec.DeviceSubClass = static_cast<uint8_t>(number_or_zero(usb_folder, "bDeviceSubClass", 16, 0xff));
    rec.DeviceProtocol = static_cast<uint8_t>(number_or_zero(usb_folder, "bDeviceProtocol", 16, 0xff));
    rec.DeviceVersion = static_cast<int32_t>(number_or_zero(usb_folder, "bcdDevice", 16, 0xffff));

    // A list that does not fit loses whole names from its end.
    std::string list = attach;
    while (list.size() >= sizeof rec.AttachDevice) {
        std::size_t comma = list.rfind(',');
        list.resize(comma == std::string::npos ? 0 : comma);
    }
    put_text(rec.AttachDevice, list.c_str());

    char text[256];
    read_text(usb_folder, "version", text);
    put_text(rec.USBVersion, text);
    read_text(usb_folder, "manufacturer", text);
    put_text(rec.Manufacturer, text);
    read_text(usb_folder, "product", text);
    put_text(rec.ProductClass, text);
    read_text(usb_folder, "serial", text);
    put_text(rec.SerialNumber, text);
    return rec;
}

}  // namespace dusb
