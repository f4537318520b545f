// The commands that change settings: the tour's switch, tracking, the lens mask, the image flip. The value is stored,
// then the daemon reads it again.

#include "settings.h"
#include "wait.h"

#include <stdio.h>
#include <strings.h>

#include <iterator>

namespace {

constexpr const char* ON_OFF[] = {"on", "off"};
constexpr const char* FLIPS[] = {"off", "left_and_right", "up_and_down", "center"};
constexpr const char* TOURS[] = {"none", "scan", "presets"}; // by tour_type
constexpr SettingPlace TRACKING = {"target_track", "target_track_info", "target_track"};
constexpr SettingPlace MASK = {"lens_mask", "lens_mask_info", "lens_mask"};
constexpr SettingPlace FLIP = {"image", "switch", "switch"};

/// Without an argument prints the setting.
bool shown(Arguments arguments, const SettingPlace& place, const char* option)
{
    if (!arguments.empty())
        return false;
    if (options().wait)
        die(EXIT_USAGE, "there is no motion to wait for: say on or off");
    const SettingText value = settingOr(place, option, "off");
    if (options().json) {
        Message message;
        printJson(message.text(option, value.text).content());
    } else {
        printf("%s\n", value.text);
    }
    return true;
}

/// Stores, once the daemon is known to be there; what fails from then on says that the setting is stored.
void store(const SettingPlace& place, std::span<const Setting> settings)
{
    connectToDaemon();
    storeSettings(place, settings);
    setErrorPrefix("the setting is stored, but not applied: ");
}

int tourType()
{
    const char digit = settingOr(TOUR_INFO, "tour_type", "0").text[0];
    return digit == '1' || digit == '2' ? digit - '0' : 0;
}

} // namespace

void switchTourOn(Arguments arguments)
{
    constexpr const char* CHOICES[] = {"scan", "presets"};
    const int type =
        arguments.empty() ? tourType() : 1 + static_cast<int>(wordArgument(arguments[0], CHOICES, "a tour"));
    if (type == 0)
        die(EXIT_USAGE, "which tour? ptzctl tour on scan, or ptzctl tour on presets");
    const Setting settings[] = {{"enabled", "on"}, {"tour_type", type == 1 ? "1" : "2"}};
    store(TOUR_INFO, settings);
    command("reload_tour_info");
}

void switchTourOff(Arguments)
{
    constexpr Setting settings[] = {{"enabled", "off"}};
    store(TOUR_INFO, settings);
    command("reload_tour_info");
}

void showTour(Arguments)
{
    const SettingText enabled = settingOr(TOUR_INFO, "enabled", "off");
    const char* type = TOURS[tourType()];
    if (!options().json) {
        printf("%s, %s\n", enabled.text, type);
        return;
    }
    Message message;
    printJson(message.text("enabled", enabled.text).text("tour", type).content());
}

void switchTracking(Arguments arguments)
{
    if (shown(arguments, TRACKING, "enabled"))
        return;
    const Setting settings[] = {{"enabled", ON_OFF[wordArgument(arguments[0], ON_OFF, "tracking")]}};
    const MotionWait wait(Origin::Return);
    store(TRACKING, settings);
    Message nothing;
    dieUnlessDone(wait.call("reloadTargetTrackConfig", nothing).code);
    setErrorPrefix("");
    wait.finish();
}

void switchMask(Arguments arguments)
{
    if (shown(arguments, MASK, "enabled"))
        return;
    const char* wanted = ON_OFF[wordArgument(arguments[0], ON_OFF, "the lens mask")];
    const SettingText before = settingOr(MASK, "enabled", "off");
    Message nothing;
    dieUnlessDone(callMethod("checkMotorStatus", nothing).code);
    const MotionWait wait(Origin::User);
    const Setting settings[] = {{"enabled", wanted}};
    store(MASK, settings);
    const Reply reply = wait.call("lensMask", nothing);
    const CodeMeaning meaning = meaningOf(reply.code);
    if (reply.code != 0 && meaning.status != EXIT_MASKED) { // that: it is on already
        const Setting restored[] = {{"enabled", before.text}};
        storeSettings(MASK, restored);
        setErrorPrefix("");
        dieUnlessDone(reply.code);
    }
    setErrorPrefix("");
    wait.finish();
}

void setFlip(Arguments arguments)
{
    if (shown(arguments, FLIP, "flip_type"))
        return;
    const Setting settings[] = {{"flip_type", FLIPS[wordArgument(arguments[0], FLIPS, "a flip")]}};
    store(FLIP, settings);
    command("updateImageConfig");
}
