// Every method of the object with any message, in any order, while motors move and fail, timers expire, workers run,
// tours turn, and others replace the settings. With FUZZ_METHOD, that method alone with a single message, on any table
// of presets and a plan.

#include "daemon_fuzz.h"
#include "motor/coordinates.h"
#include "preset/preset_store.h"
#include "tour/plan.h"
#include "tour/tour_state.h"
#include "tour/touring.h"

#include <string.h>

namespace {

constexpr std::string_view ONLY = FUZZ_METHOD;
constexpr int MAX_STEPS = 40;
constexpr const char* OTHERS_PACKAGES[] = {"image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"};
constexpr unsigned long REQUESTS[] = {MOTOR_IOC_GET_STATUS, MOTOR_IOC_SET_POSITION, MOTOR_IOC_SET_SPEED,
                                      MOTOR_IOC_ROTATE,     MOTOR_IOC_MOVE,         MOTOR_IOC_STOP};

enum Event { RUN_WORKERS, EXPIRE, MOTOR, FAULT, TOUR, SETTINGS, EVENT_COUNT };

/// May report a failure and have stored something all the same, before or beside what failed.
bool storesFirst(const std::string& method)
{
    for (const char* name :
         {"setConfig", "setPowerOffRecover", "lensMask", "clearPreset", "delPreset", "startPanorama", "targetTrack"})
        if (method == name)
            return true;
    return false;
}

void checkSettings()
{
    checkState();
    const int32_t flip = gContext.image.imageFlipType.load();
    RIG_CHECK(flip >= 0 && flip <= 3, "flip type %d\n", flip);
    for (const auto* factor : {&gContext.preset.panSpeedFactor, &gContext.preset.tiltSpeedFactor})
        RIG_CHECK(factor->load() > 0.0F && factor->load() <= 1.0F, "speed factor %f\n",
                  static_cast<double>(factor->load()));
}

/// What is left is what was there, in its order, packed to the front.
void checkPacked(const PresetTable& before)
{
    const PresetTable now = presetTableNow();
    const PresetEntry* next = now.presetTable;
    for (const PresetEntry& entry : before.presetTable) {
        if (entry.enabled == 0 || now.presetSlotOfId[entry.id - 1] == 0)
            continue;
        RIG_CHECK(sameEntry(*next, entry), "id %d is in the place of %d\n", next->id, entry.id);
        ++next;
    }
    for (; next != std::end(now.presetTable); ++next)
        RIG_CHECK(next->enabled == 0, "id %d is new\n", next->id);
}

std::vector<PlanEntry> day(const DayPlanSet& plan, int number)
{
    return {plan.tables[number], plan.tables[number] + PLAN_DAY_ENTRIES};
}

/// The id as it is stored: a byte less than what the request may hold, and none that the store would not give back.
std::string storedId(const PlanEntry& entry)
{
    const std::string id(entry.action_id, strnlen(entry.action_id, sizeof(entry.action_id)));
    return presetNameStorable(id.c_str()) ? id.substr(0, sizeof(entry.action_id) - 1) : "";
}

bool sameRange(const PlanEntry& a, const PlanEntry& b)
{
    if (a.valid == 0 || b.valid == 0)
        return a.valid == b.valid;
    return a.action_type == b.action_type && a.start_time == b.start_time && a.end_time == b.end_time &&
           (a.action_type != PLAN_ACTION_PRESET || storedId(a) == storedId(b));
}

using Week = std::vector<std::vector<PlanEntry>>;

/// The plan as it is stored; no day when it cannot be read, or is none.
Week loadedPlan()
{
    Week week;
    const DayPlanSet& active = gContext.tour.activePlan;
    if (plan_load_plan() == PLAN_OK && plan_check_plan_list_all(active))
        for (int number = 0; number < WEEK_DAYS; ++number)
            week.push_back(day(active, number));
    return week;
}

/// The stored plan is the pending one in the days that this names, and what it was in the others.
void checkPlanStored(const Week& before)
{
    const Week now = loadedPlan();
    RIG_CHECK(!now.empty(), "what was stored is no plan\n");
    const DayPlanSet& pending = gContext.tour.pendingPlan;
    for (int number = 0; number < WEEK_DAYS; ++number) {
        const auto index = static_cast<size_t>(number);
        const bool given = (pending.dayMask >> number & 1) != 0;
        const std::vector<PlanEntry> expected = given ? day(pending, number) : before[index];
        RIG_CHECK(std::equal(now[index].begin(), now[index].end(), expected.begin(), sameRange), "day %d\n", number);
    }
}

void call(const std::string& name, const std::optional<std::vector<uint8_t>>& message)
{
    if (!message)
        return;
    const bool plans = name == "set_plan_config";
    const PresetTable table = presetTableNow();
    const Week week = plans ? loadedPlan() : Week{};
    const std::string presets = rig::stored("ptzd");
    const std::string plan = rig::stored("ptz_plan");
    const int32_t code = rig::call(name, *message);
    const bool same = rig::stored("ptzd") == presets;
    const bool samePlan = rig::stored("ptz_plan") == plan;
    if (code != 0 && (!storesFirst(name) || (name == "delPreset" && code == ERR_PARAM)))
        RIG_CHECK(same && samePlan, "%s: %d, and yet it has changed what is stored\n", name.c_str(), code);
    RIG_CHECK(!plans || same, "presets have changed\n");
    if (code != 0)
        return;
    if (name == "delPreset")
        checkPacked(table);
    if (name == "setPreset" || name == "delPreset" || name == "clearPreset")
        checkPresetsStored();
    if (!week.empty())
        checkPlanStored(week);
}

void moveMotor(Input& input)
{
    MotorStatus& status = fakeMotor.status[input.byte() % AXIS_COUNT];
    status.running = input.byte() % 2;
    status.direction = input.byte() % 2 == 0 ? 1 : -1;
    int32_t position = static_cast<int16_t>(input.word());
    if (position < -30000)
        position *= 65536; // no driver reports that
    status.position = position;
}

void happen(unsigned event, Input& input, ScanProgress& scan)
{
    if (event == RUN_WORKERS) {
        runWorkers();
    } else if (event == EXPIRE) {
        expire(input.byte());
    } else if (event == MOTOR) {
        moveMotor(input);
    } else if (event == FAULT) {
        const auto axis = static_cast<AxisIndex>(input.byte() % AXIS_COUNT);
        bool& failing = fakeMotor.failing[{axis, REQUESTS[input.byte() % std::size(REQUESTS)]}];
        failing = !failing;
    } else if (event == TOUR) {
        (void)tourCycle(scan);
    } else {
        const char* package = OTHERS_PACKAGES[input.byte() % std::size(OTHERS_PACKAGES)];
        rig::store(package, asText(input.block()));
    }
}

void play(Input& input)
{
    ScanProgress scan{gContext.tour.scanTourInfo->x_coord_start, 1};
    for (int step = 0; step < MAX_STEPS && !input.empty(); ++step) {
        const unsigned what = input.byte() % (rig::methodCount() + EVENT_COUNT);
        if (what < rig::methodCount())
            call(rig::methodName(what), messageFrom(Input(input.block())));
        else
            happen(what - rig::methodCount(), input, scan);
        checkSettings();
    }
}

/// Slots 1..8 with the enabled ones of a mask, at ids that a shift turns about.
std::string presetSections(unsigned enabled, unsigned shift)
{
    std::string text = "config ptzd 'config'\n\toption power_off_recover '1'\n";
    for (unsigned slot = 1; slot <= PRESET_COUNT; ++slot) {
        const unsigned id = (slot + shift) % PRESET_COUNT + 1;
        const std::string number = std::to_string(slot);
        text += "config preset 'preset_" + number + "'\n\toption id '" + std::to_string(id) +
                "'\n\toption read_only '" + std::to_string(slot % 2) + "'\n\toption name 'name " + number +
                "'\n\toption position_pan '0." + number + "'\n\toption position_tilt '-0." + number +
                "'\n\toption position_zoom '0'\n\toption enabled '" + std::to_string(enabled >> (slot - 1) & 1U) +
                "'\n";
    }
    return text;
}

/// An entry a day, and two on Sundays.
std::string storedPlan()
{
    std::string text;
    for (int day = 0; day < WEEK_DAYS; ++day)
        for (int number = 1; number <= (day == 0 ? 2 : 1); ++number)
            text += "config " + std::string(planPolicy[day].name) + " '" + planEntryName(day, number).text +
                    "'\n\toption start_time '" + std::to_string(60 * number) + "'\n\toption end_time '" +
                    std::to_string(60 * number + 60) + "'\n\toption action_type 'preset'\n\toption action_id '" +
                    std::to_string(day + 1) + "'\n";
    return text;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    rig::reset();
    Input input(data, size);
    Settings settings;
    if (!ONLY.empty()) {
        const uint8_t enabled = input.byte();
        settings = {{"ptzd", presetSections(enabled, input.byte())}, {"ptz_plan", storedPlan()}};
    }
    const auto inside = [&] {
        if (ONLY.empty())
            return play(input);
        runWorkers();
        call(std::string(ONLY), messageFrom(input));
        checkSettings();
    };
    RIG_CHECK(fuzzDaemon(settings, inside) == 0, "did not start\n");
    return 0;
}
