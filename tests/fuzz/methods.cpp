// The daemon in its rig. "methods": every method with any message, in any order, while motors move and fail, timers
// expire, workers run, tours turn, and others replace the settings. "startup": the start on any settings. With another
// FUZZ_METHOD, that method alone with a single message, on any table of presets and a plan.

#include "fuzz.h"
#include "preset/preset_store.h"
#include "rig/daemon_rig.h"
#include "tour/plan.h"
#include "tour/tour_state.h"
#include "tour/touring.h"
#include "ubus/notify.h"

namespace {

constexpr std::string_view ONLY = FUZZ_METHOD;
constexpr std::string_view HEADING = "== ";
constexpr int MAX_STEPS = 40;
constexpr int WORKER_TURNS = 300;
constexpr const char* OTHERS_PACKAGES[] = {"image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"};
/// These may report a failure and have stored something all the same, before or beside what failed.
constexpr const char* STORES_FIRST[] = {"setConfig", "setPowerOffRecover", "lensMask",   "clearPreset",
                                        "delPreset", "startPanorama",      "targetTrack"};
constexpr unsigned long REQUESTS[] = {MOTOR_IOC_GET_STATUS, MOTOR_IOC_SET_POSITION, MOTOR_IOC_SET_SPEED,
                                      MOTOR_IOC_ROTATE,     MOTOR_IOC_MOVE,         MOTOR_IOC_STOP};

enum Event { RUN_WORKERS, EXPIRE, MOTOR, FAULT, TOUR, SETTINGS, EVENT_COUNT };

/// Runs the worker threads that were started, one after the other, each for a limited time.
void runWorkers()
{
    while (!fakes.workers.empty()) {
        fakes.turnsLeft = WORKER_TURNS;
        fakes.runWorker();
    }
    fakes.turnsLeft = WORKER_TURNS;
    fakeMotor.requests.clear(); // a rotation test makes many
}

void expire(unsigned timer)
{
    const DaemonTimer& record = rig::timerAt(timer);
    if (fakes.armed(record))
        record.callback(record.argument);
}

/// Attributes of a message, made of an input by its first byte: as they are, from JSON text, or from JSON text and then
/// damaged. Empty, without a value, when the text is no JSON object.
std::optional<std::vector<uint8_t>> messageFrom(Input input)
{
    enum { RAW, JSON, DAMAGED, FORMS };
    const int form = input.byte() % FORMS;
    if (form == RAW) {
        const Bytes raw = input.rest();
        return std::vector<uint8_t>(raw.begin(), raw.end());
    }
    const Bytes damage = input.bytes(form == DAMAGED ? size_t{3} * (input.byte() % 8) : 0);
    auto attributes = rig::messageOf(asText(input.rest()));
    for (Input patches(damage); attributes && !attributes->empty() && !patches.empty();) {
        const size_t at = patches.word() % attributes->size();
        (*attributes)[at] = patches.byte();
    }
    return attributes;
}

/// What holds at any time: the map of the presets names enabled slots that carry the id, and no motion is announced
/// twice.
void checkState()
{
    const PresetTable table = presetTableNow();
    for (int32_t id = 1; id <= PRESET_COUNT; ++id) {
        const int32_t slot = table.presetSlotOfId[id - 1];
        RIG_CHECK(slot >= 0 && slot <= PRESET_COUNT, "id %d: slot %d\n", id, slot);
        if (slot == 0)
            continue;
        const PresetEntry& entry = table.presetTable[slot - 1];
        RIG_CHECK(entry.enabled != 0 && entry.id == id, "id %d: slot %d has id %d\n", id, slot, entry.id);
    }
    bool moving = false;
    for (const FakeNotification& sent : fakes.notifications) {
        RIG_CHECK(sent.first != NOTIFY_MOVING || !moving, "moving is announced twice\n");
        moving = sent.first == NOTIFY_MOVING;
    }
}

/// Checks that the presets are listed as they are stored.
void checkPresetsStored()
{
    checkState();
    const auto list = [] {
        (void)rig::call("getPresetAll");
        return fakes.reply;
    };
    const std::string before = list();
    const int32_t current = gContext.motion.tourCurrentPresetId.load();
    RIG_CHECK(reloadPresetList() == RESULT_OK, "what was stored cannot be read\n");
    gContext.motion.tourCurrentPresetId.store(current);
    const bool unnamed = before.find(R"("")") != before.npos; // stored as none, for which the section's name is read
    RIG_CHECK(unnamed || list() == before, "%s is not what is stored\n", before.c_str());
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
    if (code != 0 && (std::ranges::count(STORES_FIRST, name) == 0 || (name == "delPreset" && code == ERR_PARAM)))
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
        checkState();
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

/// Lines "== PACKAGE", each followed by that package's file.
Settings split(std::string_view text)
{
    Settings settings;
    std::string* file = nullptr;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end);
        if (line.starts_with(HEADING))
            file = &settings[std::string(line.substr(HEADING.size(), line.find('\n') - HEADING.size()))];
        else if (file)
            *file += line;
    }
    return settings;
}

/// Every method without arguments, each followed by whatever it has started.
void live()
{
    ScanProgress scan{0, 1};
    for (unsigned method = 0; method < rig::methodCount(); ++method) {
        (void)rig::call(rig::methodName(method));
        runWorkers();
        if (gContext.tour.tourInfo) // the tours may have failed to start
            (void)tourCycle(scan);
        fakeMotor.status[PAN].running = static_cast<int32_t>(method % 2);
        for (unsigned timer = 0; timer < 4; ++timer)
            expire(timer);
        checkState();
    }
}

/// A first line "!" and twelve bytes are what the motors report of themselves.
Settings startSettings(Input& input, uint8_t first)
{
    if (first == '!') {
        (void)input.byte();
        for (MotorCapability& capability : fakeMotor.capability) {
            capability.range = input.word();
            capability.max_speed = input.word();
            capability.total_steps = input.word() << 16 | 1; // up to the largest number there is, or below 0
        }
    }
    return split(asText(input.rest()));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    rig::reset();
    fakes.turnsLeft = WORKER_TURNS;
    fakes.timeStride = time_t{997} * 60; // through the minutes of all weekdays
    Input input(data, size);
    if (ONLY == "startup") {
        (void)rig::run(startSettings(input, size > 0 ? data[0] : 0), live); // refusing to start is an answer
        return 0;
    }
    Settings settings;
    if (!ONLY.empty()) {
        const uint8_t enabled = input.byte();
        settings["ptzd"] = presetSections(enabled, input.byte());
        settings["ptz_plan"] =
            rig::section("sunday", "sunday_1",
                         {{"start_time", "60"}, {"end_time", "120"}, {"action_type", "preset"}, {"action_id", "1"}});
    }
    const auto inside = [&] {
        if (ONLY.empty())
            return play(input);
        runWorkers();
        call(std::string(ONLY), messageFrom(input));
        checkState();
    };
    RIG_CHECK(rig::run(settings, inside) == 0, "did not start\n");
    return 0;
}
