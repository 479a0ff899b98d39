// The daemon's settings: loaded once from the settings file into the
// records below, written back whole by every command that changes them.
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "db_util/db_util.h"
#include "db_util/file_writer.h"
#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"

char MOUNT_DISK_PATH[MOUNT_DISK_PATH_SIZE];
int32_t StorageServiceNumberOfEntries;
int32_t NUMBER_OF_MAX_TR140_HISTORY_ITEM;
int32_t AUTO_CREATE_USER_ACCESS_DATA;
int32_t USB_SERIAL_ENABLE;
int32_t SAMBA_LIVE_RELOAD;
MiniDlnaConf MINIDLNA_CONF;
SambaConf SAMBA_CONF;

namespace {

constexpr const char kLogModule[] = "db_util.c";
constexpr int kSambaUserSlots = 25;

// What a setting's value must look like. Every setting has one; a value
// outside it is refused, whether a command or the settings file brings it.
enum class Form {
    number,     // decimal digits, within [min, max]
    yes_no,     // "yes" or "no"
    one_of,     // one of the row's list
    word,       // letters, digits and "_ . , = -" only, possibly empty
    account,    // a word naming an account, never the gateway's own
    text,       // any one line (control characters are made '_' as stored)
    path,       // an absolute, plain path (no "..", no "//", no trailing '/')
    db_folder,  // a plain path at least one level below /var/cache or /tmp
    log_folder, // a plain path at or below /var/log, /var/samba or /tmp
    log_file,   // a plain path below those, or a log folder and a name ending in Samba's "%m"
    media,      // a plain path at or below the mount root
};

// One key of the settings file and the record field it fills.
struct Setting {
    const char* key;
    char* text;         // string setting: its field ...
    std::size_t size;   // ... and the field's width
    int32_t* number;    // integer setting
    int save;           // position in the saved file, from 1
    Form form = Form::text;
    const char* factory = nullptr;  // the value a refused loaded one falls back to (the mount root when null)
    long min = 0, max = 0;          // a number's range
    const char* const* list = nullptr;  // one_of: the values, ending in nullptr
    const char* fail_key = nullptr;  // key named by the load failure message, when not its own
    int32_t number_factory = 0;      // an integer setting's factory value
};

#define TEXT(k, field, save, form, factory) Setting{k, field, sizeof(field), nullptr, save, Form::form, factory}
#define RANGE(k, field, save, factory, lo, hi) \
    Setting{k, field, sizeof(field), nullptr, save, Form::number, factory, lo, hi}
#define LIST(k, field, save, factory, list) \
    Setting{k, field, sizeof(field), nullptr, save, Form::one_of, factory, 0, 0, list}
#define NUMBER(k, var, save, factory, lo, hi) \
    Setting{k, nullptr, 0, &(var), save, Form::number, nullptr, lo, hi, nullptr, nullptr, factory}

const char* const kRootContainers[] = {".", "B", "M", "V", "P", nullptr};
const char* const kPrintingSystems[] = {"bsd", "sysv", "plp", "lprng", "aix", "hpux", "qnx", "cups", "iprint", nullptr};
const char* const kSecurityModes[] = {"user", "share", "domain", "ads", "auto", nullptr};

// In load order. The four counters come last, so a load that stops at a
// missing string key leaves them as they were. The file is written in the
// order of the save positions: the path, the counters, then MiniDLNA and
// Samba with their enables first.
const Setting kSettings[] = {
    TEXT("USBMGR.MOUNT_DISK_PATH", MOUNT_DISK_PATH, 1, path, "/tmp/disk"),
    NUMBER("USBMGR.MINIDLNA.ENABLE", MINIDLNA_CONF.enable, 6, 1, 0, 1),
    TEXT("USBMGR.MINIDLNA.CONF_DIR", MINIDLNA_CONF.conf_dir, 7, path, "/var/minidlna.conf"),
    TEXT("USBMGR.MINIDLNA.DB_DIR", MINIDLNA_CONF.db_dir, 8, db_folder, "/var/cache/minidlna"),
    TEXT("USBMGR.MINIDLNA.LOG_DIR", MINIDLNA_CONF.log_dir, 9, log_folder, "/var/log"),
    TEXT("USBMGR.MINIDLNA.MEDIA_DIR", MINIDLNA_CONF.media_dir, 10, media, nullptr),
    TEXT("USBMGR.MINIDLNA.LOG_LEVEL", MINIDLNA_CONF.log_level, 11, word, "off"),
    LIST("USBMGR.MINIDLNA.ROOT_CONTAINER", MINIDLNA_CONF.root_container, 12, ".", kRootContainers),
    RANGE("USBMGR.MINIDLNA.PORT", MINIDLNA_CONF.port, 13, "8200", 1, 65535),
    TEXT("USBMGR.MINIDLNA.FRIENDLY_NAME", MINIDLNA_CONF.friendly_name, 14, text, "pelvan_kro"),
    TEXT("USBMGR.MINIDLNA.SERIAL", MINIDLNA_CONF.serial, 15, word, ""),
    TEXT("USBMGR.MINIDLNA.MODEL_NAME", MINIDLNA_CONF.model_name, 16, text, "Windows Media Connect compatible (MiniDLNA)"),
    TEXT("USBMGR.MINIDLNA.MODEL_NUMBER", MINIDLNA_CONF.model_number, 17, word, ""),
    TEXT("USBMGR.MINIDLNA.INOTIFY", MINIDLNA_CONF.inotify, 18, yes_no, "yes"),
    RANGE("USBMGR.MINIDLNA.NOTIFY_INTERVAL", MINIDLNA_CONF.notify_interval, 19, "300", 1, 86400),
    TEXT("USBMGR.SAMBA.CONF_DIR", SAMBA_CONF.conf_dir, 21, path, "/etc/samba/smb.conf"),
    NUMBER("USBMGR.SAMBA.ENABLE", SAMBA_CONF.enable, 20, 1, 0, 1),
    TEXT("USBMGR.SAMBA.LOG_FILE", SAMBA_CONF.log_file, 22, log_file, "/var/samba/log.%m"),
    // A missing maximum log size is reported under the log file's key; kept so.
    Setting{"USBMGR.SAMBA.MAX_LOG_SIZE", SAMBA_CONF.max_log_size, sizeof SAMBA_CONF.max_log_size, nullptr, 23,
            Form::number, "500", 0, 1048576, nullptr, "USBMGR.SAMBA.LOG_FILE"},
    RANGE("USBMGR.SAMBA.LOG_LEVEL", SAMBA_CONF.log_level, 24, "1", 0, 10),
    TEXT("USBMGR.SAMBA.LOAD_PRINTERS", SAMBA_CONF.load_printers, 25, yes_no, "no"),
    TEXT("USBMGR.SAMBA.PRINTCAP_NAME", SAMBA_CONF.printcap_name, 26, path, "/dev/null"),
    LIST("USBMGR.SAMBA.PRINTING", SAMBA_CONF.printing, 27, "bsd", kPrintingSystems),
    LIST("USBMGR.SAMBA.SECURITY", SAMBA_CONF.security, 28, "user", kSecurityModes),
    TEXT("USBMGR.SAMBA.WORKGROUP", SAMBA_CONF.workgroup, 29, word, "WORKGROUP"),
    TEXT("USBMGR.SAMBA.DISABLE_NETBIOS", SAMBA_CONF.disable_netbios, 30, yes_no, "no"),
    TEXT("USBMGR.SAMBA.NETBIOS_NAME", SAMBA_CONF.netbios_name, 31, word, "NVQ40XX"),
    TEXT("USBMGR.SAMBA.SERVER_STRING", SAMBA_CONF.server_string, 32, text, "%h server (Samba, Ubuntu)"),
    TEXT("USBMGR.SAMBA.USERSHARE_ALLOW_GUESTS", SAMBA_CONF.usershare_allow_guests, 33, yes_no, "yes"),
    TEXT("USBMGR.SAMBA.GUEST_ACCOUNT", SAMBA_CONF.guest_account, 34, account, "1234"),
    TEXT("USBMGR.SAMBA.INTERFACES", SAMBA_CONF.interfaces, 35, text, ""),
    TEXT("USBMGR.SAMBA.BIND_INTERFACES_ONLY", SAMBA_CONF.bind_interfaces_only, 36, yes_no, "no"),
    TEXT("USBMGR.SAMBA.USERNAME_MAP", SAMBA_CONF.username_map, 37, word, "root"),
    TEXT("USBMGR.SAMBA.USERNAME_MAP_DIR", SAMBA_CONF.username_map_dir, 38, path, "/var/samba/smbusers"),
    NUMBER("USBMGR.NUMBER_OF_SERVICE", StorageServiceNumberOfEntries, 2, 1, 0, 1),
    NUMBER("USBMGR.NUMBER_OF_HISTORY", NUMBER_OF_MAX_TR140_HISTORY_ITEM, 3, 10, 1, 100),
    NUMBER("USBMGR.AUTO_CREATE_USER_ACCESS", AUTO_CREATE_USER_ACCESS_DATA, 4, 0, 0, 1),
    NUMBER("USBMGR.USB_SERIAL.ENABLE", USB_SERIAL_ENABLE, 5, 0, 0, 1),
    // Added later than the others: a settings file without it (read as -1)
    // keeps the full restart of older gateways. Last, so it never stops a load.
    NUMBER("USBMGR.SAMBA.LIVE_RELOAD", SAMBA_LIVE_RELOAD, 39, 0, 0, 1),
};
constexpr int kSettingCount = 39;
static_assert(sizeof kSettings / sizeof kSettings[0] == kSettingCount);

#undef TEXT
#undef RANGE
#undef LIST
#undef NUMBER

// Decimal digits only, leading zeros as many as the field holds.
bool is_number_in(std::string_view v, long min, long max) {
    if (v.empty()) return false;
    while (v.size() > 1 && v.front() == '0') v.remove_prefix(1);
    if (v.size() > 9) return false;
    long n = 0;
    for (char c : v) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + (c - '0');
    }
    return n >= min && n <= max;
}

bool is_word(std::string_view v) {
    for (char c : v)
        if (!std::isalnum(static_cast<unsigned char>(c)) && std::strchr("_.,=-", c) == nullptr) return false;
    return true;
}

// Absolute and plain: every component named, none "." or "..", so the
// path is the folder it reads as and cannot climb out of its root.
bool is_plain_path(std::string_view v) {
    if (v.size() < 2 || v.front() != '/' || v.back() == '/') return false;
    std::size_t from = 1;
    while (from <= v.size()) {
        std::size_t to = v.find('/', from);
        if (to == std::string_view::npos) to = v.size();
        const std::string_view part = v.substr(from, to - from);
        if (part.empty() || part == "." || part == "..") return false;
        from = to + 1;
    }
    return true;
}

bool is_below(std::string_view v, std::string_view root) {
    return v.size() > root.size() + 1 && v.substr(0, root.size()) == root && v[root.size()] == '/';
}

bool is_at_or_below(std::string_view v, std::string_view root) { return v == root || is_below(v, root); }

bool is_log_place(std::string_view v) {
    return is_at_or_below(v, "/var/log") || is_at_or_below(v, "/var/samba") || is_at_or_below(v, "/tmp");
}

// A file in a log folder, not the folder itself.
bool is_log_below(std::string_view v) {
    return is_below(v, "/var/log") || is_below(v, "/var/samba") || is_below(v, "/tmp");
}

bool fits_form(const Setting& s, std::string_view v) {
    switch (s.form) {
        case Form::number: return is_number_in(v, s.min, s.max);
        case Form::yes_no: return v == "yes" || v == "no";
        case Form::one_of:
            for (const char* const* item = s.list; *item != nullptr; ++item)
                if (v == *item) return true;
            return false;
        case Form::word: return is_word(v);
        // Anyone who connects as a guest is this account: never root or the
        // account every Samba user is mapped to.
        case Form::account: return !v.empty() && is_word(v) && !usbmgr_is_gateway_account(std::string(v).c_str());
        case Form::text: return true;
        case Form::path: return is_plain_path(v);
        // A restart deletes this folder whole: only somewhere that may be
        // thrown away, and never the root of it.
        case Form::db_folder: return is_plain_path(v) && (is_below(v, "/var/cache") || is_below(v, "/tmp"));
        case Form::log_folder: return is_plain_path(v) && is_log_place(v);
        case Form::log_file: {
            // Samba's %m (the client's name) may end the name, one file a
            // client; no other macro.
            if (v.size() > 2 && v.substr(v.size() - 2) == "%m") {
                v.remove_suffix(2);
                if (v.back() == '/') {  // "folder/%m"
                    v.remove_suffix(1);
                    return v.find('%') == std::string_view::npos && is_plain_path(v) && is_log_place(v);
                }
            }
            return v.find('%') == std::string_view::npos && is_plain_path(v) && is_log_below(v);
        }
        case Form::media: {
            const std::string_view root(MOUNT_DISK_PATH, usbmgr::field_len(MOUNT_DISK_PATH));
            return is_plain_path(v) && is_at_or_below(v, root);
        }
    }
    return false;
}

const Setting* setting_named(const char* key) {
    for (const Setting& s : kSettings)
        if (std::strcmp(s.key, key) == 0) return &s;
    return nullptr;
}

// Summary block, in its own order: counters, the path and MiniDLNA, Samba.
const char* const kSummaryCounters[] = {"USBMGR.NUMBER_OF_SERVICE", "USBMGR.NUMBER_OF_HISTORY",
                                        "USBMGR.AUTO_CREATE_USER_ACCESS", "USBMGR.USB_SERIAL_ENABLE"};
int32_t* const kSummaryCounterValues[] = {&StorageServiceNumberOfEntries, &NUMBER_OF_MAX_TR140_HISTORY_ITEM,
                                          &AUTO_CREATE_USER_ACCESS_DATA, &USB_SERIAL_ENABLE};

const char kSeparator[] = "---------------------------------------------------------------------";
static_assert(sizeof kSeparator == 70);

void log_setting(const Setting& s) {
    if (s.number)
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "%-38s= %d", s.key, *s.number);
    else
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "%-38s= %.*s", s.key, static_cast<int>(strnlen(s.text, s.size)), s.text);
}

void log_summary() {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", kSeparator);
    for (int i = 0; i < 4; ++i) USBMGR_TRACE(USBMGR_LOG_DEBUG, "%-38s= %d", kSummaryCounters[i], *kSummaryCounterValues[i]);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", kSeparator);
    // Path and MiniDLNA keys, enable first, in load order (load rows 0 to 14).
    for (int i = 0; i <= 14; ++i) log_setting(kSettings[i]);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", kSeparator);
    // Samba keys: enable first, then the rest in field order.
    log_setting(kSettings[16]);
    log_setting(kSettings[15]);
    for (int i = 17; i <= 33; ++i) log_setting(kSettings[i]);
    log_setting(kSettings[38]);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", kSeparator);
}

const Setting& setting_at(int save_pos) {
    for (const Setting& s : kSettings)
        if (s.save == save_pos) return s;
    return kSettings[0];  // unreachable: the positions are 1 to 39
}

}  // namespace

bool usbmgr_is_gateway_account(const char* name) {
    const std::string map_account(SAMBA_CONF.username_map, usbmgr::field_len(SAMBA_CONF.username_map));
    return strcasecmp(name, "root") == 0 || strcasecmp(name, map_account.c_str()) == 0;
}

bool usbmgr_setting_ok(const char* key, const char* value) {
    const Setting* s = setting_named(key);
    if (s != nullptr && fits_form(*s, value)) return true;
    char shown[DB_UTIL_VALUE_SIZE] = {};
    USBMGR_TRACE(USBMGR_LOG_ERROR, "refusing value '%s' of %s", usbmgr::clean_copy(shown, value), key);
    return false;
}

int usbmgr_conf_load() {
    for (const Setting& s : kSettings) {
        if (s.number) {
            // -1 is what a missing key reads as, kept as it was; any other
            // value outside its range falls back to the factory value.
            const int32_t v = db_util_config_get_parameter_i(s.key);
            char text[16] = {};
            usbmgr::format_str(text, "%d", static_cast<int>(v));
            *s.number = v == -1 || usbmgr_setting_ok(s.key, text) ? v : s.number_factory;
            continue;
        }
        std::memset(s.text, 0, s.size);
        if (db_util_config_get_parameter_s(s.key, s.text, s.size) != 0) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "Load %s = %.*s Fail", s.fail_key ? s.fail_key : s.key,
                         static_cast<int>(strnlen(s.text, s.size)), s.text);
            return 0;
        }
        // A value outside its form is not taken: the setting keeps its
        // factory value (the media folder: the mount root).
        if (!usbmgr_setting_ok(s.key, s.text)) {
            std::memset(s.text, 0, s.size);
            usbmgr::copy_bounded(s.text, s.size, s.factory != nullptr ? s.factory : MOUNT_DISK_PATH);
        }
    }
    // The guest account is checked against the user map's target, which is
    // read after it.
    const Setting& guest = *setting_named("USBMGR.SAMBA.GUEST_ACCOUNT");
    if (!usbmgr_setting_ok(guest.key, guest.text)) {
        std::memset(guest.text, 0, guest.size);
        usbmgr::copy_bounded(guest.text, guest.size, guest.factory);
    }
    // An older settings file has no such key (read as -1): it keeps the
    // restart, and is saved with 0.
    if (SAMBA_LIVE_RELOAD != 1) SAMBA_LIVE_RELOAD = 0;
    log_summary();
    return 1;
}

int usbmgr_conf_save() {
    // The new file is made beside the old one and renamed over it: the old
    // file stays in place, whole, until the new one is complete, and is read
    // for the Samba accounts meanwhile. It holds their passwords: owner only.
    usbmgr::FileReplacement file(USBMGR_CONF_PATH, usbmgr::kPrivateFileMode);
    if (!file) return -1;
    std::FILE* f = file.stream();
    for (int pos = 1; pos <= kSettingCount; ++pos) {
        const Setting& s = setting_at(pos);
        if (s.number) {
            std::fprintf(f, "%s=%d\n", s.key, *s.number);
            continue;
        }
        // A value is the rest of its line: a newline in a record set over the
        // bus would start a key of its own. The record is cleaned in place,
        // so memory and file hold the same text.
        usbmgr::sanitize_value_text(s.text, s.size);
        std::fprintf(f, "%s=%.*s\n", s.key, static_cast<int>(strnlen(s.text, s.size)), s.text);
    }

    // Samba accounts live only in the file: carry them over from the old one.
    int result = -1;
    for (int n = 0; n < kSambaUserSlots; ++n) {
        char key[DB_UTIL_KEY_SIZE] = {};
        char value[DB_UTIL_VALUE_SIZE] = {};
        usbmgr::format_str(key, "USBMGR.SAMBA.USER_NAME.%d", n);
        result = db_util_config_get_parameter_s(key, value);
        if (result != 0) continue;
        std::fprintf(f, "USBMGR.SAMBA.USER_NAME.%d=%s\n", n, value);
        for (const char* item : {"USER_PASSWORD", "USER_ENABLE"}) {
            std::memset(key, 0, sizeof key);
            std::memset(value, 0, sizeof value);
            usbmgr::format_str(key, "USBMGR.SAMBA.%s.%d", item, n);
            db_util_config_get_parameter_s(key, value);
            std::fprintf(f, "USBMGR.SAMBA.%s.%d=%s\n", item, n, value);
        }
    }
    if (!file.commit()) return -1;

    usbmgr_cfg_save();
    return result;
}
