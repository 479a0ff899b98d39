// Tables of the disks and volumes attached right now. A slot is free when
// its name is empty; nothing here is persisted.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/log.h"
#include "db_util/str.h"

static constexpr const char kLogModule[] = "db_util.c";

int USB_PHYSICAL_INFO_MAX = USB_TABLE_SIZE;
int USB_VOLUME_INFO_MAX = USB_TABLE_SIZE;
UsbPhysicalInfo usb_physical_info[USB_TABLE_SIZE];
UsbVolumeInfo usb_volume_info[USB_TABLE_SIZE];

namespace {

// The capacities are plain globals; a search never goes past the arrays.
int physical_slots() { return std::clamp(USB_PHYSICAL_INFO_MAX, 0, USB_TABLE_SIZE); }
int volume_slots() { return std::clamp(USB_VOLUME_INFO_MAX, 0, USB_TABLE_SIZE); }

// Text of a fixed field, stopping at its end even without a terminator.
template <std::size_t N>
std::string_view field_text(const char (&field)[N]) {
    return std::string_view(field, usbmgr::field_len(field));
}

template <std::size_t N>
bool field_equals(const char (&field)[N], const char* text) {
    return text != nullptr && field_text(field) == std::string_view(text);
}

template <std::size_t N>
bool field_empty(const char (&field)[N]) {
    return field[0] == '\0';
}

template <std::size_t N>
int field_print_len(const char (&field)[N]) {
    return static_cast<int>(usbmgr::field_len(field));
}

}  // namespace

int db_util_get_usb_physical_info_free_item(const char* device) {
    const int slots = physical_slots();
    // A disk seen again keeps its slot, so it is never listed twice.
    for (int i = 0; i < slots; ++i)
        if (field_equals(usb_physical_info[i].attach_device, device)) return i;
    for (int i = 0; i < slots; ++i)
        if (field_empty(usb_physical_info[i].attach_device) && field_empty(usb_physical_info[i].serial_number))
            return i;
    return -1;
}

int db_util_get_usb_volume_info_free_item(const char* volume) {
    const int slots = volume_slots();
    for (int i = 0; i < slots; ++i)
        if (field_equals(usb_volume_info[i].name, volume)) return i;
    for (int i = 0; i < slots; ++i)
        if (field_empty(usb_volume_info[i].name)) return i;
    return -1;
}

int db_util_delete_usb_physical_info_item(const char* device) {
    USBMGR_ASSERT_LOCKED();
    const int slots = physical_slots();
    for (int i = 0; i < slots; ++i) {
        UsbPhysicalInfo& e = usb_physical_info[i];
        if (!field_equals(e.attach_device, device)) continue;
        // tr140_db_address stays: the model builder rewrites it on the next build.
        e.index = 0;
        std::memset(e.attach_device, 0, sizeof e.attach_device);
        std::memset(e.vendor, 0, sizeof e.vendor);
        std::memset(e.model, 0, sizeof e.model);
        std::memset(e.usb_version, 0, sizeof e.usb_version);
        std::memset(e.serial_number, 0, sizeof e.serial_number);
        std::memset(e.firmware_version, 0, sizeof e.firmware_version);
        return 0;
    }
    return -1;
}

int db_util_delete_usb_volume_info_item(const char* volume) {
    USBMGR_ASSERT_LOCKED();
    const int slots = volume_slots();
    for (int i = 0; i < slots; ++i) {
        UsbVolumeInfo& e = usb_volume_info[i];
        if (!field_equals(e.name, volume)) continue;
        e.index = 0;
        e.tr140_db_address = 0;
        std::memset(e.name, 0, sizeof e.name);
        return 0;
    }
    return -1;
}

int db_util_get_usb_physical_info_index_by_device(const char* device) {
    if (device == nullptr) return -1;
    const int slots = physical_slots();
    for (int i = 0; i < slots; ++i) {
        // Disk names are three characters (sda); a longer argument never matches.
        char disk[5] = {};
        std::memcpy(disk, usb_physical_info[i].attach_device, 3);
        if (std::strcmp(disk, device) == 0) return i;
    }
    return -1;
}

int db_util_get_usb_volume_info_index_by_device(const char* volume) {
    const int slots = volume_slots();
    for (int i = 0; i < slots; ++i)
        if (field_equals(usb_volume_info[i].name, volume)) return i;
    return -1;
}

int db_util_get_usb_physical_reference_by_name(const char* name) {
    if (name == nullptr) return -1;
    const int slots = physical_slots();
    for (int i = 0; i < slots; ++i)
        if (field_text(usb_physical_info[i].attach_device).find(name) != std::string_view::npos)
            return usb_physical_info[i].index;
    return -1;
}

void db_util_print_usb_physical_info() {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "=========== usb_physical_info ================\n");
    for (int i = 0; i < USB_TABLE_SIZE; ++i) {
        const UsbPhysicalInfo& e = usb_physical_info[i];
        if (field_empty(e.attach_device)) continue;
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "index               = %d", e.index);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "tr140 db address    = %d", e.tr140_db_address);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "attach_device       = %.*s", field_print_len(e.attach_device), e.attach_device);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "vendor              = %.*s", field_print_len(e.vendor), e.vendor);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "model               = %.*s", field_print_len(e.model), e.model);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "usb_version         = %.*s", field_print_len(e.usb_version), e.usb_version);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "serial_number       = %.*s", field_print_len(e.serial_number), e.serial_number);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "firmware_version    = %.*s", field_print_len(e.firmware_version),
                     e.firmware_version);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "-------------------------");
    }
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "=========== usb_volume_info ================\n");
    for (int i = 0; i < USB_TABLE_SIZE; ++i) {
        const UsbVolumeInfo& e = usb_volume_info[i];
        if (field_empty(e.name)) continue;
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "index               = %d", e.index);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "tr140 db address    = %d", e.tr140_db_address);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "name                = %.*s", field_print_len(e.name), e.name);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "-------------------------");
    }
}
