// The state of the tours and of the weekly plan.
#pragma once

#include "core/context.h"
#include "tour/plan.h"

#include <stdint.h>

#include <atomic>

struct TourInfo {
    char enabled[4];   // touring is off while this is "off"
    int32_t tour_type; // TourType
};

/// Pan coordinates between which a scan goes, and its daily span in minutes after midnight.
struct ScanTourInfo {
    int32_t x_coord_start;
    int32_t x_coord_end;
    int32_t start_time;
    int32_t end_time;
};

/// Owner: tour/. Both records and the tables are allocated by TourInit and freed by TourDeinit.
struct TourState {
    TourInfo* tourInfo = nullptr; // these three: main thread until the touring thread starts, then that one's alone
    ScanTourInfo* scanTourInfo = nullptr;
    DayPlanSet activePlan{};
    DayPlanSet pendingPlan{}; // this and the scratch tables: event loop only
    PlanEntry* planScratchTables[WEEK_DAYS] = {};
    std::atomic<int32_t> planChanged{0}; // stored and not loaded yet
    std::atomic<int32_t> tourReloadRequested{0};
    std::atomic<int32_t> scanTourReloadRequested{0};
};
