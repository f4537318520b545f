// The start on any settings: lines "== PACKAGE", each followed by that package's file; of those left out, the defaults.
// A first line "!" and twelve bytes are what the motors report of themselves.

#include "daemon_rig.h"
#include "fakes/fake_motor.h"
#include "tour/tour_state.h"
#include "tour/touring.h"

namespace {

constexpr std::string_view HEADING = "== ";

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

void callJson(const char* method, const char* json)
{
    const int32_t code = DaemonRig::call(method, messageOf(json).value());
    DaemonRig::checkPresetMap();
    if (code == 0 && std::string_view(method) == "setPreset")
        DaemonRig::checkPresetsStored();
}

/// A cycle of the tours, unless they could not be started.
void tour(ScanProgress& scan)
{
    if (gContext.tour.tourInfo)
        (void)tourCycle(scan);
}

void live()
{
    DaemonRig::checkPresetMap();
    callJson("getPresetAll", "{}");
    DaemonRig::runWorkers(); // the calibration
    ScanProgress scan{0, 1};
    for (int cycle = 0; cycle < 6; ++cycle) {
        tour(scan);
        fakeMotor.status[PAN].running = cycle % 2;
        for (unsigned timer = 0; timer < 4; ++timer)
            DaemonRig::expire(timer);
    }
    for (const char* method : {"getCapa", "getStatus", "reloadPresetConfig", "reload_tour_info", "reload_scan_tour",
                               "updateImageConfig", "reloadTargetTrackConfig", "lensMask", "targetTrackBack"})
        callJson(method, "{}");
    callJson("delPreset", R"({"id":["1","2","3"]})");
    callJson("clearPreset", "{}"); // from here on the table is the daemon's own work
    callJson("setPreset", R"({"id":"2","save_ptz":"1"})");
    callJson("gotoPreset", R"({"id":"2"})");
    tour(scan);
    for (unsigned timer = 0; timer < 4; ++timer)
        DaemonRig::expire(timer);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DaemonRig rig;
    Input input(data, size);
    if (size > 0 && data[0] == '!') {
        (void)input.byte();
        for (MotorCapability& capability : rig.capability) {
            capability.range = input.word();
            capability.max_speed = input.word();
            capability.total_steps = input.word() << 16 | 1; // up to the largest number there is, or below 0
        }
    }
    (void)rig.run(split(asText(input.rest())), live); // refusing to start is an answer
    return 0;
}
