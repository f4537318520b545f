#include "image/flip_config.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "motor/coordinates.h"
#include "ubus/method_reply.h"

#include <string.h>

#include <iterator>

namespace {

constexpr const char* flipNames[] = {"off", "left_and_right", "up_and_down", "center"};

} // namespace

int32_t loadImageFlipConfig()
{
    char text[1024] = "";
    {
        const UciTransaction transaction(UCI_IMAGE);
        cfg_uci_pkg_reload(UCI_IMAGE);
        (void)cfg_uci_get_string_value(UCI_IMAGE, "switch", "flip_type", text, sizeof(text)); // missing: empty
    }
    for (size_t type = 0; type < std::size(flipNames); ++type) {
        if (strncmp(flipNames[type], text, strlen(text)) == 0) {
            gContext.image.imageFlipType.store(static_cast<int32_t>(type));
            return 0;
        }
    }
    return -1;
}

void ubusUpdateImageConfig(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    replyCode(call, loadImageFlipConfig() == 0 ? RESULT_OK : ERR_DEVICE);
}
