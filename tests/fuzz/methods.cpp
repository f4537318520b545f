// Every method of the object with any message, in any order, while motors move and fail, timers expire, workers run,
// tours turn, and others replace the settings. With FUZZ_METHOD, that method alone with a single message, on any table
// of presets and a plan.

#include "daemon_fuzz.h"
#include "motor/coordinates.h"
#include "preset/preset_store.h"
#include "tour/plan.h"
#include "tour/tour_state.h"
#include "tour/touring.h"

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

/// Whether a whole plan is stored.
bool planLoads()
{
    return plan_load_plan() == PLAN_OK && plan_check_plan_list_all(gContext.tour.activePlan);
}

void call(const std::string& name, const std::optional<std::vector<uint8_t>>& message)
{
    if (!message)
        return;
    const bool planned = name == "set_plan_config" && planLoads();
    const std::string presets = rig::stored("ptzd");
    const std::string plan = rig::stored("ptz_plan");
    const int32_t code = rig::call(name, *message);
    const bool same = rig::stored("ptzd") == presets && rig::stored("ptz_plan") == plan;
    if (code != 0 && (!storesFirst(name) || (name == "delPreset" && code == ERR_PARAM)))
        RIG_CHECK(same, "%s: %d, and yet it has changed what is stored\n", name.c_str(), code);
    if (code == 0 && (name == "setPreset" || name == "delPreset" || name == "clearPreset"))
        checkPresetsStored();
    RIG_CHECK(!planned || planLoads(), "what was stored is no plan\n");
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
    std::string text = rig::section("ptzd", "config", {{"power_off_recover", "1"}});
    for (unsigned slot = 1; slot <= PRESET_COUNT; ++slot) {
        const std::string number = std::to_string(slot);
        text += rig::section("preset", "preset_" + number,
                             {{"id", std::to_string((slot + shift) % PRESET_COUNT + 1)},
                              {"read_only", std::to_string(slot % 2)},
                              {"name", "name " + number},
                              {"position_pan", "0." + number},
                              {"position_tilt", "-0." + number},
                              {"position_zoom", "0"},
                              {"enabled", std::to_string(enabled >> (slot - 1) & 1U)}});
    }
    return text;
}

/// An entry a day.
std::string storedPlan()
{
    std::string text;
    for (int day = 0; day < WEEK_DAYS; ++day)
        text += rig::section(planPolicy[day].name, planEntryName(day, 1).text,
                             {{"start_time", "60"},
                              {"end_time", "120"},
                              {"action_type", "preset"},
                              {"action_id", std::to_string(day + 1)}});
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
