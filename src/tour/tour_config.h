// The tours' settings, package tour, which other components write.
#pragma once

#include "ubus/method_call.h"

#include <stdint.h>

struct ScanTourInfo;
struct TourInfo;

enum TourType : int32_t {
    TOUR_NONE = 0,
    TOUR_SCAN = 1,
    TOUR_PRESETS = 2,
};

/// Load a record from storage. @return RESULT_OK; ERR_DEVICE for a null record or, logged, when an option cannot be
/// read: what was read before it counts. Thread: main until the touring thread runs, then that one; takes
/// ConfigStoreLock.
[[nodiscard]] int32_t tour_load_config(TourInfo* info);
[[nodiscard]] int32_t scan_tour_load_config(ScanTourInfo* scan);

/// `reload_tour_info`, `reload_scan_tour`: have the touring thread load the settings within its next cycle.
UbusHandler ubusReloadTourInfo;
UbusHandler ubusReloadScanTour;
