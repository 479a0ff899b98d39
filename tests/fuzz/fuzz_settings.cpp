// Settings load and save over any settings file, and over any values the
// set commands may leave in the records.
//
// Input: u16 length and the settings file's bytes, then changes to the
// records, each a field number and a u8-length text (string fields) or
// four bytes (integer fields). Load, change, save, then load again: the
// records must come back equal but for values outside their setting's
// form, which the load refuses (one line each) and replaces; a further
// save and load changes nothing. The saved file must hold every key once,
// one key=value a line.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "fuzz_support.h"
#include "platform_fake.h"

namespace {

struct TextField {
    const char* name;
    char* text;
    std::size_t size;
};

#define FIELD(f) TextField{#f, f, sizeof f}

const TextField kTextFields[] = {
    TextField{"MOUNT_DISK_PATH", MOUNT_DISK_PATH, sizeof MOUNT_DISK_PATH},
    FIELD(MINIDLNA_CONF.conf_dir),
    FIELD(MINIDLNA_CONF.db_dir),
    FIELD(MINIDLNA_CONF.log_dir),
    FIELD(MINIDLNA_CONF.media_dir),
    FIELD(MINIDLNA_CONF.log_level),
    FIELD(MINIDLNA_CONF.root_container),
    FIELD(MINIDLNA_CONF.port),
    FIELD(MINIDLNA_CONF.friendly_name),
    FIELD(MINIDLNA_CONF.serial),
    FIELD(MINIDLNA_CONF.model_name),
    FIELD(MINIDLNA_CONF.model_number),
    FIELD(MINIDLNA_CONF.inotify),
    FIELD(MINIDLNA_CONF.notify_interval),
    FIELD(SAMBA_CONF.conf_dir),
    FIELD(SAMBA_CONF.log_file),
    FIELD(SAMBA_CONF.max_log_size),
    FIELD(SAMBA_CONF.log_level),
    FIELD(SAMBA_CONF.load_printers),
    FIELD(SAMBA_CONF.printcap_name),
    FIELD(SAMBA_CONF.printing),
    FIELD(SAMBA_CONF.security),
    FIELD(SAMBA_CONF.workgroup),
    FIELD(SAMBA_CONF.disable_netbios),
    FIELD(SAMBA_CONF.netbios_name),
    FIELD(SAMBA_CONF.server_string),
    FIELD(SAMBA_CONF.usershare_allow_guests),
    FIELD(SAMBA_CONF.guest_account),
    FIELD(SAMBA_CONF.interfaces),
    FIELD(SAMBA_CONF.bind_interfaces_only),
    FIELD(SAMBA_CONF.username_map),
    FIELD(SAMBA_CONF.username_map_dir),
};
constexpr std::size_t kTextFieldCount = sizeof kTextFields / sizeof kTextFields[0];
static_assert(kTextFieldCount == 32);

int32_t* const kNumbers[] = {&MINIDLNA_CONF.enable,           &SAMBA_CONF.enable,
                             &StorageServiceNumberOfEntries,  &NUMBER_OF_MAX_TR140_HISTORY_ITEM,
                             &AUTO_CREATE_USER_ACCESS_DATA,   &USB_SERIAL_ENABLE};
constexpr std::size_t kNumberCount = sizeof kNumbers / sizeof kNumbers[0];

// The records as text, field by field (only up to each terminator counts).
std::vector<std::string> snapshot() {
    std::vector<std::string> out;
    for (const auto& f : kTextFields) out.emplace_back(f.text, strnlen(f.text, f.size));
    for (int32_t* n : kNumbers) out.push_back(std::to_string(*n));
    return out;
}

void clear_records() {
    for (const auto& f : kTextFields) std::memset(f.text, 0, f.size);
    for (int32_t* n : kNumbers) *n = 0;
}

std::string field_name(std::size_t i) {
    return i < kTextFieldCount ? kTextFields[i].name : "number " + std::to_string(i - kTextFieldCount);
}

// Every one of the 39 keys is in the file.
void check_all_keys(const std::string& content) {
    for (const auto& key : fuzz::setting_keys())
        if (content.rfind(key + "=", 0) != 0 && content.find("\n" + key + "=") == std::string::npos)
            fuzz::finding("saved settings file lacks a key", key);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::init(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::reset_iteration();
    fuzz::Reader in(data, size);
    const std::string original = in.text16();
    fuzz::write_file(USBMGR_CONF_PATH, original);

    usbmgr_conf_load();

    // What a set command may leave in a record: a bounded, terminated text.
    while (!in.empty()) {
        std::size_t i = in.u8() % (kTextFieldCount + kNumberCount);
        if (i < kTextFieldCount) {
            const std::string value = in.text8();
            std::memset(kTextFields[i].text, 0, kTextFields[i].size);
            usbmgr::copy_bounded(kTextFields[i].text, kTextFields[i].size, value.c_str());
        } else {
            *kNumbers[i - kTextFieldCount] = in.i32();
        }
    }
    // The save keeps every value on its line by the text rule (control
    // characters become '_'); what it writes is the record so cleaned.
    for (std::size_t i = 0; i < kTextFieldCount; ++i) usbmgr::sanitize_value_text(kTextFields[i].text, kTextFields[i].size);
    const std::vector<std::string> before = snapshot();

    usbmgr_conf_save();
    fuzz::KeyValueCheck check(fuzz::KeyValueCheck::Kind::Settings);
    check.allow_any_value();
    check.check(USBMGR_CONF_PATH, "save");
    const std::string saved = fuzz::read_file(USBMGR_CONF_PATH);
    check_all_keys(saved);
    if (fuzz::temp_left_beside(USBMGR_CONF_PATH)) fuzz::finding("new settings file left behind by the save", USBMGR_CONF_PATH);

    clear_records();
    fake::reset();
    if (usbmgr_conf_load() != 1) fuzz::finding("saved settings file does not load whole", saved);
    std::size_t refusals = 0;
    for (const auto& t : fake::log_texts())
        if (t.rfind("refusing value '", 0) == 0) ++refusals;
    const std::vector<std::string> after = snapshot();
    std::size_t changed = 0;
    for (std::size_t i = 0; i < before.size(); ++i)
        if (before[i] != after[i]) ++changed;
    // Each changed value was refused by the load, with its own line.
    if (changed > refusals)
        for (std::size_t i = 0; i < before.size(); ++i)
            if (before[i] != after[i])
                fuzz::finding("setting changed by a save and load without a refusal",
                              field_name(i) + ": '" + before[i] + "' became '" + after[i] + "'");
    // What the load put in place of a refused value stays.
    usbmgr_conf_save();
    clear_records();
    if (usbmgr_conf_load() != 1) fuzz::finding("saved settings file does not load whole", "second save");
    const std::vector<std::string> again = snapshot();
    for (std::size_t i = 0; i < after.size(); ++i)
        if (after[i] != again[i])
            fuzz::finding("setting changed by a second save and load",
                          field_name(i) + ": '" + after[i] + "' became '" + again[i] + "'");
    return 0;
}
