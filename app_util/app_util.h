// app_util: the MiniDLNA and Samba servers and the Samba user accounts.
#ifndef USBMGR_APP_UTIL_H
#define USBMGR_APP_UTIL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orbiil.h"
#include "proto/payload.h"  // MiniDlnaConf, SambaConf

// ---------------------------------------------------------------------------
// Servers: process check and kill loops

// 1 when "ps" lists a process whose command is exactly name (its path aside),
// else 0 (also when the check could not run).
int app_util_check_process(const char* name);
// True when a line of a "ps" listing has name as its command's program.
bool app_util_listing_runs(std::string_view output, std::string_view name);

// ---------------------------------------------------------------------------
// Servers: MiniDLNA

// The configuration text for conf: one key=value line per enabled row of
// the line table. Pure: no file, no log.
std::string app_util_render_minidlna_conf(const MiniDlnaConf& conf);
// Replaces the file named by USBMGR.MINIDLNA.CONF_DIR with the rendering of
// MINIDLNA_CONF; silently nothing when the file cannot be created.
void app_util_write_minidlna_conf();
// Restarts minidlnad (its database folder is dropped when one was running)
// from a fresh file; the start command's db_util_exe_command result.
int app_util_start_minidlna();
// Kills minidlnad until it is gone (no limit: it ends only then).
void app_util_stop_minidllna();
// Rewrites the file, stops the server, starts it again when enabled. The
// handle is not used.
void app_util_minidlna_reload_conf(OrbIilHandle* handle);

// ---------------------------------------------------------------------------
// Servers: Samba

// One share section: the folder under the mount root and the name it is
// shared under (empty: the folder's own name).
struct AppUtilSambaShare {
    std::string folder;
    std::string volume_name;
};

// The shares for the folders of the mount root, in the order given: folders
// of disabled volumes are left out; a folder whose disk is unknown keeps the
// name the previous folder left behind. Reads the device table and the
// history file, logs "found %s ..." per folder.
std::vector<AppUtilSambaShare> app_util_samba_shares(const std::vector<std::string>& folders);
// The configuration text: the global section from the line table and conf,
// then one section per share. Pure: no file, no log.
std::string app_util_render_samba_conf(const SambaConf& conf, const char* mount_root,
                                       const std::vector<AppUtilSambaShare>& shares);
// Replaces the file named by USBMGR.SAMBA.CONF_DIR with the global section
// and a share per folder of MOUNT_DISK_PATH.
void app_util_write_samba_conf();
// Restarts smbd and nmbd from a fresh file; the nmbd start's result.
int app_util_start_samba();
// Kills smbd and nmbd until neither is seen (no limit).
void app_util_stop_samba();
// Rewrites the file, stops the servers when smbd runs, starts them when enabled.
void app_util_samba_reload_conf();
// True when a change of the share list may reload smbd in place: the live
// reload setting is 1, Samba is enabled and smbd runs.
bool app_util_samba_live();
// A reload for a changed share list: with the live reload setting 1 and
// Samba enabled, the file is rewritten and a running smbd rereads it
// ("smbcontrol smbd reload-config"), a stopped one is started; otherwise
// app_util_samba_reload_conf.
void app_util_samba_reload_shares();
// Ends the sessions on the shares of the given folders of the mount root
// ("smbcontrol smbd close-share NAME", NAME the section name the
// configuration file has), so that their unmount is not held up by smbd.
void app_util_samba_close_shares(const std::vector<std::string>& folders);

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
