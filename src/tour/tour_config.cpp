#include "tour/tour_config.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "core/result_code.h"
#include "tour/tour_state.h"
#include "ubus/method_reply.h"

int32_t tour_load_config(TourInfo* info)
{
    if (!info)
        return ERR_DEVICE;
    const UciTransaction transaction(UCI_TOUR);
    cfg_uci_pkg_reload(UCI_TOUR);
    if (cfg_uci_get_string_value(UCI_TOUR, "tour_info", "enabled", info->enabled, sizeof(info->enabled)) != 0) {
        LOG_ERROR("tour info enabled is NULL\n");
        return ERR_DEVICE;
    }
    if (cfg_uci_get_int_value(UCI_TOUR, "tour_info", "tour_type", &info->tour_type) != 0) {
        LOG_ERROR("tour info tour_type is NULL\n");
        return ERR_DEVICE;
    }
    return RESULT_OK;
}

int32_t scan_tour_load_config(ScanTourInfo* scan)
{
    if (!scan)
        return ERR_DEVICE;
    const struct {
        const char* name;
        int32_t* value;
    } options[] = {
        {"x_coord_start", &scan->x_coord_start},
        {"x_coord_end", &scan->x_coord_end},
        {"start_time", &scan->start_time},
        {"end_time", &scan->end_time},
    };
    const UciTransaction transaction(UCI_TOUR);
    cfg_uci_pkg_reload(UCI_TOUR);
    for (const auto& option : options) {
        if (cfg_uci_get_int_value(UCI_TOUR, "scan_tour", option.name, option.value) != 0) {
            LOG_ERROR("tour info %s is NULL\n", option.name);
            return ERR_DEVICE;
        }
    }
    return RESULT_OK;
}

void ubusReloadTourInfo(const Call& call)
{
    gContext.tour.tourReloadRequested.store(1);
    replyCode(call, RESULT_OK);
}

void ubusReloadScanTour(const Call& call)
{
    gContext.tour.scanTourReloadRequested.store(1);
    replyCode(call, RESULT_OK);
}
