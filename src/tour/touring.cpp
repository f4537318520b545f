#include "tour/touring.h"

#include "core/log.h"
#include "core/worker.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/tour_motion.h"
#include "preset/goto_preset.h"
#include "preset/preset_store.h"
#include "tour/tour_config.h"
#include "tour/tour_state.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <span>

namespace {

constexpr timespec CYCLE{0, 200 * NS_PER_MS};
constexpr int32_t SCAN_STRIDE = 10; // coordinate units

enum class Reload { NotAsked, Done, Failed };

/// Loads what a request flag asks for. The flag is taken before: a request that comes meanwhile counts for the next
/// cycle; after a failure it is set again.
template <typename Load>
Reload reloadIfAsked(std::atomic<int32_t>& requested, Load load)
{
    if (requested.exchange(0) == 0)
        return Reload::NotAsked;
    if (load() == 0)
        return Reload::Done;
    requested.store(1);
    return Reload::Failed;
}

bool scanEnabled()
{
    const TourInfo& info = *gContext.tour.tourInfo;
    return strcmp(info.enabled, "on") == 0 && info.tour_type == TOUR_SCAN;
}

/// What requests have asked for. @return false, logged under the caller's name, when it could not be loaded.
bool reload(ScanProgress& scan, LogSite caller)
{
    const auto failed = [caller](const char* message) {
        logWrite(LOG_LEVEL_ERROR, caller, "%s", message);
        return false;
    };
    TourState& tour = gContext.tour;
    switch (reloadIfAsked(tour.tourReloadRequested, [&] { return tour_load_config(tour.tourInfo); })) {
    case Reload::Failed:
        return failed("load tour config err\n");
    case Reload::Done:
        if (scanEnabled())
            scan.coord = tour.scanTourInfo->x_coord_start;
        tourStartAnew();
        break;
    case Reload::NotAsked:
        break;
    }
    switch (reloadIfAsked(tour.scanTourReloadRequested, [&] { return scan_tour_load_config(tour.scanTourInfo); })) {
    case Reload::Failed:
        return failed("load tour scan info err\n");
    case Reload::Done:
        scan.coord = tour.scanTourInfo->x_coord_start;
        tourStartAnew();
        break;
    case Reload::NotAsked:
        break;
    }
    return reloadIfAsked(tour.planChanged, plan_load_plan) != Reload::Failed || failed("load tour preset plan err\n");
}

/// Whether the head is the tour's to move.
bool mayTour()
{
    return strcmp(gContext.tour.tourInfo->enabled, "off") != 0 && gContext.motion.user_moved_recently.load() == 0 &&
           refusedBy(CALIBRATING | LENS_MASK | PANORAMA) == RESULT_OK && gContext.motion.track_back_done.load() != 0;
}

struct WeekMinute {
    int32_t weekday;
    int32_t minute; // after midnight
};

/// The local time; @return false when it cannot be had.
bool localNow(WeekMinute& out)
{
    const time_t now = time(nullptr);
    tm local{};
    tzset(); // the time zone may have changed
    if (now == static_cast<time_t>(-1) || !localtime_r(&now, &local))
        return false;
    out = {local.tm_wday, 60 * local.tm_hour + local.tm_min};
    return true;
}

/// Whether a minute lies in a daily span, which may wrap past midnight; equal ends are the whole day.
bool inSpan(int32_t minute, int32_t start, int32_t end)
{
    if (start < end)
        return start <= minute && minute < end;
    return minute >= start || minute < end;
}

TourMove scanMove(uint32_t ticket, int32_t coord)
{
    if (!withinLimits(PAN, coord))
        return TourMove::Failed;
    HeadStatus head{};
    if (const TourMove taken = tourTakeOver(ticket, head); taken != TourMove::Started)
        return taken;
    const int32_t steps = targetCommand(head[PAN], coordToSteps(PAN, coord)).steps;
    return tourDriveScan(ticket, head, relativeCommand(steps, factoredSpeed(PAN)));
}

/// @return false, logged under the caller's name, when the head cannot be moved.
bool scanStep(uint32_t ticket, ScanProgress& scan, LogSite caller)
{
    const ScanTourInfo& limits = *gContext.tour.scanTourInfo;
    WeekMinute now{};
    if (gContext.motion.scanStepDone.load() == 0 || !localNow(now) ||
        !inSpan(now.minute, limits.start_time, limits.end_time) || gContext.motion.motion_active.load() != 0)
        return true;
    logWrite(LOG_LEVEL_ERROR, caller, "cur_xoord is %d\n", scan.coord);
    switch (scanMove(ticket, scan.coord)) {
    case TourMove::Failed:
        logWrite(LOG_LEVEL_ERROR, caller, "scan tour move err\n");
        return false;
    case TourMove::Overtaken:
        return true; // the same step once the head is free again
    case TourMove::Started:
        break;
    }
    if (scan.coord >= limits.x_coord_end)
        scan.direction = -1;
    if (scan.coord <= limits.x_coord_start)
        scan.direction = 1;
    scan.coord += SCAN_STRIDE * scan.direction;
    return true;
}

/// The preset that the plan names for now, or 0.
int32_t plannedPreset()
{
    WeekMinute now{};
    if (!localNow(now))
        return 0;
    for (const PlanEntry& entry : std::span(gContext.tour.activePlan.tables[now.weekday], PLAN_DAY_ENTRIES)) {
        if (entry.valid == 0 || now.minute < entry.start_time || now.minute >= entry.end_time)
            continue;
        PresetEntry preset{};
        const int32_t id = planPresetId(entry);
        return entry.action_type == PLAN_ACTION_PRESET && presetFind(id, preset) ? id : 0;
    }
    return 0;
}

void presetStep(uint32_t ticket)
{
    const int32_t target = plannedPreset();
    if (gContext.motion.motion_active.load() != 0 || target == 0 ||
        target == gContext.motion.tourCurrentPresetId.load())
        return;
    tourPresetSet(target); // before the move: one that fails is not tried again
    if (presetTourMove(ticket, target) == TourMove::Overtaken)
        tourPresetSet(0); // it has not been sent there
}

void* motorTouring(void*)
{
    const WorkerScope scope(WorkerEntry::Adopt);
    if (!scope.entered())
        return nullptr;
    ScanProgress scan{gContext.tour.scanTourInfo->x_coord_start, 1};
    while (!workersStopping()) {
        nanosleep(&CYCLE, nullptr);
        if (workersStopping())
            break;
        (void)tourCycle(scan); // logged there under this name; the next cycle tries again
    }
    return nullptr;
}

bool allocate()
{
    TourState& tour = gContext.tour;
    for (int day = 0; day < WEEK_DAYS; ++day) {
        tour.planScratchTables[day] = static_cast<PlanEntry*>(calloc(PLAN_DAY_ENTRIES, sizeof(PlanEntry)));
        tour.activePlan.tables[day] = static_cast<PlanEntry*>(calloc(PLAN_DAY_ENTRIES, sizeof(PlanEntry)));
        if (!tour.planScratchTables[day] || !tour.activePlan.tables[day])
            return false;
    }
    tour.scanTourInfo = static_cast<ScanTourInfo*>(calloc(1, sizeof(ScanTourInfo)));
    tour.tourInfo = static_cast<TourInfo*>(calloc(1, sizeof(TourInfo)));
    return tour.scanTourInfo && tour.tourInfo;
}

bool loadAndStart()
{
    (void)scan_tour_load_config(gContext.tour.scanTourInfo); // logged there, both; a reload may mend it
    (void)tour_load_config(gContext.tour.tourInfo);
    return plan_load_plan() == PLAN_OK && workerStart(motorTouring, nullptr) == 0;
}

} // namespace

int32_t TourInit()
{
    if (allocate() && loadAndStart())
        return 0;
    LOG_ERROR("error to init tour!\n");
    TourDeinit();
    return -1;
}

void TourDeinit()
{
    TourState& tour = gContext.tour;
    for (int day = 0; day < WEEK_DAYS; ++day) {
        free(tour.planScratchTables[day]);
        free(tour.activePlan.tables[day]);
        tour.planScratchTables[day] = nullptr;
    }
    tour.activePlan = {};
    tour.pendingPlan = {}; // its tables are the scratch ones
    free(tour.scanTourInfo);
    free(tour.tourInfo);
    tour.scanTourInfo = nullptr;
    tour.tourInfo = nullptr;
}

bool tourCycle(ScanProgress& scan, LogSite caller)
{
    const uint32_t ticket = tourTicketNow(); // before everything that the step goes by
    if (!reload(scan, caller))
        return false;
    if (!mayTour())
        return true;
    if (gContext.tour.tourInfo->tour_type == TOUR_SCAN)
        return scanStep(ticket, scan, caller);
    if (gContext.tour.tourInfo->tour_type == TOUR_PRESETS)
        presetStep(ticket);
    return true;
}
