// The daemon's settings: loaded once from the settings file into the
// records below, written back whole by every command that changes them.
#include <cstdio>
#include <cstring>
#include <memory>

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
MiniDlnaConf MINIDLNA_CONF;
SambaConf SAMBA_CONF;

namespace {

constexpr const char kLogModule[] = "db_util.c";
constexpr int kSambaUserSlots = 25;

// One key of the settings file and the record field it fills.
struct Setting {
    const char* key;
    char* text;         // string setting: its field ...
    std::size_t size;   // ... and the field's width
    int32_t* number;    // integer setting
    int save;           // position in the saved file, from 1
    const char* fail_key = nullptr;  // key named by the load failure message, when not its own
};

#define TEXT(k, field, save) Setting{k, field, sizeof(field), nullptr, save}
#define NUMBER(k, var, save) Setting{k, nullptr, 0, &(var), save}

// In load order. The four counters come last, so a load that stops at a
// missing string key leaves them as they were. The file is written in the
// order of the save positions: the path, the counters, then MiniDLNA and
// Samba with their enables first.
const Setting kSettings[] = {
    TEXT("USBMGR.MOUNT_DISK_PATH", MOUNT_DISK_PATH, 1),
    NUMBER("USBMGR.MINIDLNA.ENABLE", MINIDLNA_CONF.enable, 6),
    TEXT("USBMGR.MINIDLNA.CONF_DIR", MINIDLNA_CONF.conf_dir, 7),
    TEXT("USBMGR.MINIDLNA.DB_DIR", MINIDLNA_CONF.db_dir, 8),
    TEXT("USBMGR.MINIDLNA.LOG_DIR", MINIDLNA_CONF.log_dir, 9),
    TEXT("USBMGR.MINIDLNA.MEDIA_DIR", MINIDLNA_CONF.media_dir, 10),
    TEXT("USBMGR.MINIDLNA.LOG_LEVEL", MINIDLNA_CONF.log_level, 11),
    TEXT("USBMGR.MINIDLNA.ROOT_CONTAINER", MINIDLNA_CONF.root_container, 12),
    TEXT("USBMGR.MINIDLNA.PORT", MINIDLNA_CONF.port, 13),
    TEXT("USBMGR.MINIDLNA.FRIENDLY_NAME", MINIDLNA_CONF.friendly_name, 14),
    TEXT("USBMGR.MINIDLNA.SERIAL", MINIDLNA_CONF.serial, 15),
    TEXT("USBMGR.MINIDLNA.MODEL_NAME", MINIDLNA_CONF.model_name, 16),
    TEXT("USBMGR.MINIDLNA.MODEL_NUMBER", MINIDLNA_CONF.model_number, 17),
    TEXT("USBMGR.MINIDLNA.INOTIFY", MINIDLNA_CONF.inotify, 18),
    TEXT("USBMGR.MINIDLNA.NOTIFY_INTERVAL", MINIDLNA_CONF.notify_interval, 19),
    TEXT("USBMGR.SAMBA.CONF_DIR", SAMBA_CONF.conf_dir, 21),
    NUMBER("USBMGR.SAMBA.ENABLE", SAMBA_CONF.enable, 20),
    TEXT("USBMGR.SAMBA.LOG_FILE", SAMBA_CONF.log_file, 22),
    // A missing maximum log size is reported under the log file's key; kept so.
    Setting{"USBMGR.SAMBA.MAX_LOG_SIZE", SAMBA_CONF.max_log_size, sizeof SAMBA_CONF.max_log_size, nullptr, 23,
            "USBMGR.SAMBA.LOG_FILE"},
    TEXT("USBMGR.SAMBA.LOG_LEVEL", SAMBA_CONF.log_level, 24),
    TEXT("USBMGR.SAMBA.LOAD_PRINTERS", SAMBA_CONF.load_printers, 25),
    TEXT("USBMGR.SAMBA.PRINTCAP_NAME", SAMBA_CONF.printcap_name, 26),
    TEXT("USBMGR.SAMBA.PRINTING", SAMBA_CONF.printing, 27),
    TEXT("USBMGR.SAMBA.SECURITY", SAMBA_CONF.security, 28),
    TEXT("USBMGR.SAMBA.WORKGROUP", SAMBA_CONF.workgroup, 29),
    TEXT("USBMGR.SAMBA.DISABLE_NETBIOS", SAMBA_CONF.disable_netbios, 30),
    TEXT("USBMGR.SAMBA.NETBIOS_NAME", SAMBA_CONF.netbios_name, 31),
    TEXT("USBMGR.SAMBA.SERVER_STRING", SAMBA_CONF.server_string, 32),
    TEXT("USBMGR.SAMBA.USERSHARE_ALLOW_GUESTS", SAMBA_CONF.usershare_allow_guests, 33),
    TEXT("USBMGR.SAMBA.GUEST_ACCOUNT", SAMBA_CONF.guest_account, 34),
    TEXT("USBMGR.SAMBA.INTERFACES", SAMBA_CONF.interfaces, 35),
    TEXT("USBMGR.SAMBA.BIND_INTERFACES_ONLY", SAMBA_CONF.bind_interfaces_only, 36),
    TEXT("USBMGR.SAMBA.USERNAME_MAP", SAMBA_CONF.username_map, 37),
    TEXT("USBMGR.SAMBA.USERNAME_MAP_DIR", SAMBA_CONF.username_map_dir, 38),
    NUMBER("USBMGR.NUMBER_OF_SERVICE", StorageServiceNumberOfEntries, 2),
    NUMBER("USBMGR.NUMBER_OF_HISTORY", NUMBER_OF_MAX_TR140_HISTORY_ITEM, 3),
    NUMBER("USBMGR.AUTO_CREATE_USER_ACCESS", AUTO_CREATE_USER_ACCESS_DATA, 4),
    NUMBER("USBMGR.USB_SERIAL.ENABLE", USB_SERIAL_ENABLE, 5),
};
constexpr int kSettingCount = 38;
static_assert(sizeof kSettings / sizeof kSettings[0] == kSettingCount);

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
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", kSeparator);
}

const Setting& setting_at(int save_pos) {
    for (const Setting& s : kSettings)
        if (s.save == save_pos) return s;
    return kSettings[0];  // unreachable: the positions are 1 to 38
}

}  // namespace

int usbmgr_conf_load() {
    for (const Setting& s : kSettings) {
        if (s.number) {
            *s.number = db_util_config_get_parameter_i(s.key);
            continue;
        }
        std::memset(s.text, 0, s.size);
        if (db_util_config_get_parameter_s(s.key, s.text, s.size) != 0) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "Load %s = %.*s Fail", s.fail_key ? s.fail_key : s.key,
                         static_cast<int>(strnlen(s.text, s.size)), s.text);
            return 0;
        }
    }
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
