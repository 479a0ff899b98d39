// Media sharing. The server control and the Samba accounts come with the
// sharing work; until then the daemon's calls into this module do nothing.
#include "app_util/app_util.h"

int app_util_start_minidlna() { return 0; }
void app_util_stop_minidllna() {}
void app_util_minidlna_reload_conf(OrbIilHandle*) {}
int app_util_start_samba() { return 0; }
void app_util_stop_samba() {}
void app_util_samba_reload_conf() {}
