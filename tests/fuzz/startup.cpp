// The start on any settings: lines "== PACKAGE", each followed by that package's file; of those left out, the defaults.
// A first line "!" and twelve bytes are what the motors report of themselves.

#include "daemon_fuzz.h"
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
    (void)rig::call("clearPreset"); // from here on the table is the daemon's own work
    if (rig::call("setPreset", R"({"id":"2","save_ptz":"1"})") == 0)
        checkPresetsStored();
    (void)rig::call("gotoPreset", R"({"id":"2"})");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    rig::reset();
    Input input(data, size);
    if (size > 0 && data[0] == '!') {
        (void)input.byte();
        for (MotorCapability& capability : fakeMotor.capability) {
            capability.range = input.word();
            capability.max_speed = input.word();
            capability.total_steps = input.word() << 16 | 1; // up to the largest number there is, or below 0
        }
    }
    (void)fuzzDaemon(split(asText(input.rest())), live); // refusing to start is an answer
    return 0;
}
