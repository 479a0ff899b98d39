// Media sharing. The Samba accounts come with the users work; until then
// the daemon's calls into them do nothing.
#include "app_util/app_util.h"

void app_util_perpare_samba_user(OrbIilHandle*) {}
int app_util_get_number_of_samba_users() { return 0; }
