#include "motion/stored_switch.h"

#include <strings.h>

bool storedSwitchOn(UciPackageId id, const char* section)
{
    const UciTransaction transaction(id);
    char enabled[64] = "";
    cfg_uci_pkg_reload(id);
    (void)cfg_uci_get_string_value(id, section, "enabled", enabled, sizeof(enabled)); // missing: off
    return strcasecmp(enabled, "on") == 0;
}
