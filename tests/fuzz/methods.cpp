// Every method of the object with any message, in any order, while motors move and fail, timers expire, workers run,
// tours turn, and others replace the settings.

#include "daemon_rig.h"
#include "fakes/fake_motor.h"
#include "motor/coordinates.h"
#include "preset/preset_store.h"
#include "tour/tour_state.h"
#include "tour/touring.h"

namespace {

constexpr int MAX_STEPS = 40;
constexpr const char* OTHERS_PACKAGES[] = {"image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"};
constexpr unsigned long REQUESTS[] = {MOTOR_IOC_GET_STATUS, MOTOR_IOC_SET_POSITION, MOTOR_IOC_SET_SPEED,
                                      MOTOR_IOC_ROTATE,     MOTOR_IOC_MOVE,         MOTOR_IOC_STOP};

enum Event { RUN_WORKERS, EXPIRE, MOTOR, FAULT, TOUR, SETTINGS, EVENT_COUNT };

DaemonRig rig;

/// May report a failure and have stored something all the same, before or beside what failed.
bool storesFirst(const std::string& method)
{
    for (const char* name :
         {"setConfig", "setPowerOffRecover", "lensMask", "clearPreset", "delPreset", "startPanorama", "targetTrack"})
        if (method == name)
            return true;
    return false;
}

void checkState()
{
    DaemonRig::checkPresetMap();
    const int32_t flip = gContext.image.imageFlipType.load();
    FUZZ_CHECK(flip >= 0 && flip <= 3, "flip type %d\n", flip);
    for (const auto* factor : {&gContext.preset.panSpeedFactor, &gContext.preset.tiltSpeedFactor})
        FUZZ_CHECK(factor->load() > 0.0F && factor->load() <= 1.0F, "speed factor %f\n",
                   static_cast<double>(factor->load()));
}

void call(unsigned method, Input input)
{
    const auto message = messageFrom(input);
    if (!message)
        return;
    const std::string name = DaemonRig::methodName(method);
    const std::string presets = DaemonRig::stored("ptzd");
    const std::string plan = DaemonRig::stored("ptz_plan");
    const int32_t code = DaemonRig::call(method, *message);
    if (code != 0 && !storesFirst(name))
        FUZZ_CHECK(DaemonRig::stored("ptzd") == presets && DaemonRig::stored("ptz_plan") == plan,
                   "%s: %d, and yet it has changed what is stored\n", name.c_str(), code);
    if (code == 0 && (name == "setPreset" || name == "delPreset" || name == "clearPreset"))
        DaemonRig::checkPresetsStored();
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
    switch (event) {
    case RUN_WORKERS:
        DaemonRig::runWorkers();
        break;
    case EXPIRE:
        DaemonRig::expire(input.byte());
        break;
    case MOTOR:
        moveMotor(input);
        break;
    case FAULT: {
        const auto axis = static_cast<AxisIndex>(input.byte() % AXIS_COUNT);
        bool& failing = fakeMotor.failing[{axis, REQUESTS[input.byte() % std::size(REQUESTS)]}];
        failing = !failing;
        break;
    }
    case TOUR:
        (void)tourCycle(scan);
        break;
    case SETTINGS: {
        const char* package = OTHERS_PACKAGES[input.byte() % std::size(OTHERS_PACKAGES)];
        DaemonRig::store(package, asText(input.block()));
        break;
    }
    default:
        break;
    }
}

void play(Input& input)
{
    ScanProgress scan{gContext.tour.scanTourInfo->x_coord_start, 1};
    for (int step = 0; step < MAX_STEPS && !input.empty(); ++step) {
        const unsigned what = input.byte() % (DaemonRig::methodCount() + EVENT_COUNT);
        if (what < DaemonRig::methodCount())
            call(what, Input(input.block()));
        else
            happen(what - DaemonRig::methodCount(), input, scan);
        checkState();
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    FUZZ_CHECK(rig.run({}, [&] { play(input); }) == 0, "did not start\n");
    return 0;
}
