// app_util: the MiniDLNA and Samba servers and the Samba user accounts.
#ifndef USBMGR_APP_UTIL_H
#define USBMGR_APP_UTIL_H

#include <cstdint>

#include "orbiil.h"

int app_util_start_minidlna();
void app_util_stop_minidllna();
void app_util_minidlna_reload_conf(OrbIilHandle* handle);
int app_util_start_samba();
void app_util_stop_samba();
void app_util_samba_reload_conf();

// ---------------------------------------------------------------------------
// Samba user accounts
//
// Slots 0 to 24 of the settings file, three keys each (USER_NAME,
// USER_PASSWORD, USER_ENABLE); a slot is in use when its USER_NAME key is
// there. Mirrored into Samba's password database with pdbedit and listed in
// the user map file.

struct SambaUserInfo {
    uint32_t enable;
    char name[64];
    char password[64];
};
static_assert(sizeof(SambaUserInfo) == 132);

// Number of slots in use (0 to 25).
int app_util_get_number_of_samba_users();
// Fills user with the n-th slot in use (counted from 0 in slot order) and
// answers the password read (0 found); with no n-th user fills nothing and
// answers the last slot read (-1 when slot 24 is free, 0 when in use).
int app_util_get_samba_user_by_index(int n, SambaUserInfo* user);
// Slot of name; else the last slot read (-1, or 0 when slot 24 is in use).
int app_util_get_samba_user_index(const char* name);
// Lowest free slot; with all 25 in use the last read's 0.
int app_util_get_free_samba_user_index();
// 1 when Samba's password file lists name, else 0 (also with no file).
int app_util_is_samba_user(const char* name);
// Rewrites the user map file; with add_missing 1 also adds the enabled users
// Samba does not know yet to its password database.
void app_util_write_samba_username_map(int add_missing);
// 0 added, -1 not (name taken, no slot, settings missing, name or password refused).
int app_util_add_samba_user(const char* name, const char* password, int enable);
// 0 when the slot's lines were dropped, else -1.
int app_util_remove_samba_user(const char* name);
// 0 when the slot's enable line was rewritten, else -1.
int app_util_modify_samba_user(const char* name, const char* password, int enable);
// Makes the gateway's map account and the stored users known to Samba.
void app_util_perpare_samba_user(OrbIilHandle* handle);

#endif
