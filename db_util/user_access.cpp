// User-access entries of the history file: for each volume of a remembered
// disk, which Samba account may use it and with which permissions. Two lines
// an entry, USERREFERENCE then PERMISSIONS, standing after the volume's
// ENABLE line. Lookups go through the history getters; changes stream the
// file through the temporary file.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "db_util/db_util.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"

namespace {

// Lines written to the file are composed in buffers of this size; a line that
// would not fit is not written rather than written cut.
constexpr std::size_t kOutLineSize = 128;
// Key buffers of the entry and account lookups.
constexpr std::size_t kKeySize = 100;
constexpr std::size_t kAccountKeySize = 200;
// Account names are read into 64 characters.
constexpr std::size_t kAccountNameSize = 64;
// "UserAccess.%d" of the remove-by-name filter.
constexpr std::size_t kReferenceTextSize = 15;

// Volume number of a volume name when it is one a disk can have (0 to 24).
bool volume_of(const char* volume, int* k) {
    if (volume == nullptr) return false;
    const int n = db_util_volume_number(volume);
    if (n < 0 || n >= USB_TABLE_SIZE) return false;
    *k = n;
    return true;
}

bool entry_ok(int entry) { return entry >= 0 && entry < USER_ACCESS_MAX_ENTRY; }

// The volume an entry belongs to: a device id that can stand in a key and a
// volume 0 to 24.
bool target_ok(int device_id, const char* volume, int* k) { return device_id >= 0 && volume_of(volume, k); }

bool reference_key(char (&key)[kKeySize], int d, int k, int e) {
    return usbmgr::format_str(key, "USBMGR.%d.USER_ACCESS.%d.USERREFERENCE.%d", d, k, e);
}

// True when the USERREFERENCE line of (d, k, e) exists; its value into value.
bool reference_of(int d, int k, int e, char (&value)[DB_UTIL_VALUE_SIZE]) {
    char key[kKeySize] = {};
    std::memset(value, 0, sizeof value);
    if (!reference_key(key, d, k, e)) return false;
    return db_util_tr140_conf_get_parameter_s(key, value, sizeof value) == 0;
}

bool entry_present(int d, int k, int e) {
    char value[DB_UTIL_VALUE_SIZE];
    return reference_of(d, k, e, value);
}

bool is_text(const char (&field)[20], const char* text) { return std::strncmp(field, text, sizeof field) == 0; }

__attribute__((format(printf, 2, 3))) bool append_line(FILE* f, const char* fmt, ...) {
    char line[kOutLineSize] = {};
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof line) return false;
    return std::fputs(line, f) >= 0;
}

}  // namespace

int db_util_get_number_of_user_access(int device_id, const char* volume) {
    int k = 0;
    if (!target_ok(device_id, volume, &k)) return 0;
    int n = 0;
    for (int e = 0; e < USER_ACCESS_MAX_ENTRY; ++e)
        if (entry_present(device_id, k, e)) ++n;
    return n;
}

int db_util_get_user_access_info_by_index(int entry, int device_id, const char* volume, UserAccessInfo* info) {
    int k = 0;
    if (info == nullptr || !entry_ok(entry) || !target_ok(device_id, volume, &k)) return -1;
    char value[DB_UTIL_VALUE_SIZE];
    if (!reference_of(device_id, k, entry, value)) return -1;
    usbmgr::copy_str(info->user_reference, value);
    char key[kKeySize] = {};
    if (!usbmgr::format_str(key, "USBMGR.%d.USER_ACCESS.%d.PERMISSIONS.%d", device_id, k, entry)) return -1;
    // An empty permission, as automatic creation writes it, reads as -1.
    info->permissions = db_util_tr140_conf_get_parameter_i(key);
    return 0;
}

int dp_util_get_tr140_useraccess_free_item(int device_id, const char* volume) {
    int k = 0;
    if (!target_ok(device_id, volume, &k)) return -1;
    for (int e = 0; e < USER_ACCESS_MAX_ENTRY; ++e)
        if (!entry_present(device_id, k, e)) return e;
    return -1;
}

int dp_util_get_samba_user_index(const char* user) {
    if (user == nullptr) return -1;
    // With no match the last lookup answers: an unknown user is taken for
    // account 0 when slot 24 is in use. Callers rely on it as it is.
    int result = -1;
    for (int n = 0; n < SAMBA_USER_MAX; ++n) {
        char key[kAccountKeySize] = {};
        char name[kAccountNameSize] = {};
        if (!usbmgr::format_str(key, "USBMGR.SAMBA.USER_NAME.%d", n)) continue;
        result = db_util_config_get_parameter_s(key, name, sizeof name);
        if (result == 0 && std::strcmp(name, user) == 0) return n;
    }
    return result;
}

int dp_util_get_tr140_add_useraccess(int device_id, const char* volume, int entry, const char* user,
                                     int permissions) {
    int k = 0;
    if (user == nullptr || !entry_ok(entry) || !target_ok(device_id, volume, &k)) return -1;
    const int account = dp_util_get_samba_user_index(user);
    if (account == -1) return -1;
    char anchor[kKeySize] = {};
    if (!usbmgr::format_str(anchor, "USBMGR.%d.ENABLE.%d", device_id, k)) return -1;

    bool added = false;
    const int rc = db_util_tr140_conf_filter_lines([&](const Tr140FilterLine& line, Tr140FilterOut& out) {
        out.keep(line);
        if (std::strcmp(line.key, anchor) != 0) return;
        // The newest entry stands first, right after the ENABLE line.
        out.line("USBMGR.%d.USER_ACCESS.%d.USERREFERENCE.%d=StorageService.0.UserAccess.%d\n", device_id, k,
                 entry, account);
        out.line("USBMGR.%d.USER_ACCESS.%d.PERMISSIONS.%d=%d\n", device_id, k, entry, permissions);
        added = true;
    });
    return rc == 0 && added ? 0 : -1;
}

int dp_util_get_tr140_remove_useraccess(int device_id, const char* volume, int entry) {
    int k = 0;
    if (!entry_ok(entry) || !target_ok(device_id, volume, &k)) return -1;
    if (!entry_present(device_id, k, entry)) return -1;
    const int rc = db_util_tr140_conf_filter_lines([&](const Tr140FilterLine& line, Tr140FilterOut& out) {
        const Tr140ConfKey& p = line.parts;
        if (p.device_id == device_id && p.volume_index == k && p.entry_index == entry) return;
        out.keep(line);
    });
    return rc == 0 ? 0 : -1;
}

int dp_util_get_tr140_remove_useraccess_by_username(const char* user) {
    if (user == nullptr) return -1;
    const int account = dp_util_get_samba_user_index(user);
    char text[kReferenceTextSize] = {};
    if (!usbmgr::format_str(text, "UserAccess.%d", account)) return -1;

    // A substring test on purpose: account 1 takes the entries of accounts
    // 10 to 19 with it, as the gateway has always done.
    bool remembered = false;
    int rd = -1, rk = -1, re = -1;
    db_util_tr140_conf_filter_lines([&](const Tr140FilterLine& line, Tr140FilterOut& out) {
        const Tr140ConfKey& p = line.parts;
        if (!is_text(p.item, "USER_ACCESS")) return out.keep(line);
        if (is_text(p.sub_item, "USERREFERENCE")) {
            if (std::strstr(line.value, text) != nullptr) {
                remembered = true;
                rd = p.device_id;
                rk = p.volume_index;
                re = p.entry_index;
                return;
            }
            remembered = false;
            return out.keep(line);
        }
        if (is_text(p.sub_item, "PERMISSIONS")) {
            if (remembered && p.device_id == rd && p.volume_index == rk && p.entry_index == re) {
                remembered = false;
                return;
            }
            return out.keep(line);
        }
        out.keep(line);
    });
    return -1;
}

void db_util_tr140_conf_append_user_access(FILE* f, int device_id, int volume, int accounts) {
    if (f == nullptr) return;
    for (int n = 0; n < accounts && n < SAMBA_USER_MAX; ++n) {
        append_line(f, "USBMGR.%d.USER_ACCESS.%d.USERREFERENCE.%d=StorageService.%d.UserAccess.%d\n", device_id,
                    volume, n, 0, n);
        append_line(f, "USBMGR.%d.USER_ACCESS.%d.PERMISSIONS.%d=\n", device_id, volume, n);
    }
}
