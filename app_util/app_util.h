// app_util: the MiniDLNA and Samba servers and the Samba user accounts.
#ifndef USBMGR_APP_UTIL_H
#define USBMGR_APP_UTIL_H

#include <string>
#include <vector>

#include "orbiil.h"
#include "proto/payload.h"  // MiniDlnaConf, SambaConf

// ---------------------------------------------------------------------------
// Servers: process check and kill loops

// 1 when "ps" lists a process whose line holds name, else 0 (also when the
// check could not run).
int app_util_check_process(const char* name);

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

// ---------------------------------------------------------------------------
// Samba user accounts

void app_util_perpare_samba_user(OrbIilHandle* handle);
int app_util_get_number_of_samba_users();

#endif
