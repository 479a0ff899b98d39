// app_util: the MiniDLNA and Samba servers and the Samba user accounts.
#ifndef USBMGR_APP_UTIL_H
#define USBMGR_APP_UTIL_H

#include "orbiil.h"

int app_util_start_minidlna();
void app_util_stop_minidllna();
void app_util_minidlna_reload_conf(OrbIilHandle* handle);
int app_util_start_samba();
void app_util_stop_samba();
void app_util_samba_reload_conf();
void app_util_perpare_samba_user(OrbIilHandle* handle);
int app_util_get_number_of_samba_users();

#endif
