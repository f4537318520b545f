// What ONVIF servers call, in their formats. Coordinates begin at 0: pan 0..300, tilt 0..100. What moves the head
// prints nothing; the head has no zoom, whose actions do nothing.

#include "head.h"
#include "presets.h"
#include "settings.h"

#include "core/result_code.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr int32_t FARTHER = 1000;      // a displacement past every end of the travel
constexpr char HOME_PRESET[] = "home"; // the preset that set_home_position makes

struct Pair {
    double x;
    double y;
};

/// "X,Y" or "X,Y,Z" in one argument, or the same in several.
Pair pairIn(Arguments arguments, double most)
{
    char text[128] = "";
    size_t used = 0;
    for (const char* argument : arguments)
        if (used < sizeof(text))
            used += static_cast<size_t>(snprintf(text + used, sizeof(text) - used, "%s%s", used ? "," : "", argument));
    double values[2] = {};
    char* rest = nullptr;
    size_t count = 0;
    for (char* word = strtok_r(text, ",", &rest); word && count < 2; word = strtok_r(nullptr, ",", &rest), ++count)
        if (!parseDecimal(word, -most, most, values[count]))
            die(EXIT_USAGE, "\"%s\" is no number from %g to %g", word, -most, most);
    if (count < 2 || used >= sizeof(text))
        die(EXIT_USAGE, "two numbers are needed, such as 150,39");
    return {values[0], values[1]};
}

void send(const char* method, Message& message)
{
    dieUnlessDone(callMethod(method, message).code);
}

/// Moves by a displacement. An axis that is at its limit does not keep the other one from moving.
void move(int32_t dx, int32_t dy)
{
    const Pair attempts[] = {
        {static_cast<double>(dx), static_cast<double>(dy)}, {static_cast<double>(dx), 0}, {0, static_cast<double>(dy)}};
    for (const Pair& by : attempts) {
        if (by.x == 0 && by.y == 0)
            continue;
        Message message;
        message.number("x_coord", static_cast<int32_t>(by.x)).number("y_coord", static_cast<int32_t>(by.y));
        const int32_t code = callMethod("move", message).code;
        if (code == ERR_NO_TRAVEL)
            continue;
        dieUnlessDone(code);
        return;
    }
}

int32_t sign(double value)
{
    return value > 0 ? 1 : value < 0 ? -1 : 0;
}

/// Turns one axis until a stop or the end. The other one goes on as it turns: a server asks for a diagonal in two
/// calls.
void turn(int32_t x, int32_t y)
{
    const HeadNow head = readHead();
    move(FARTHER * (x != 0 ? x : sign(head.xSpeed)), FARTHER * (y != 0 ? y : sign(head.ySpeed)));
}

void stop()
{
    Message nothing;
    send("stop", nothing);
}

/// Both axes by the signs of two speeds, until a stop or the end.
void turnBoth(const Pair& speed)
{
    if (speed.x == 0 && speed.y == 0)
        return stop();
    move(FARTHER * sign(speed.x), FARTHER * sign(speed.y));
}

void turnOne(Arguments arguments, bool pan)
{
    double speed = 0;
    if (!parseDecimal(arguments[0], -1e6, 1e6, speed))
        die(EXIT_USAGE, "\"%s\" is no speed", arguments[0]);
    turnBoth(pan ? Pair{speed, 0} : Pair{0, speed});
}

void getPosition(Arguments)
{
    const HeadNow head = readHead();
    const CoordRange tilt = tiltLimits();
    printf("%d,%d\n", std::clamp(head.x, CoordLimits[PAN].low, CoordLimits[PAN].high) - CoordLimits[PAN].low,
           std::clamp(head.y, tilt.low, tilt.high) - tilt.low); // the lens mask is outside
}

void isMoving(Arguments)
{
    printf("%d\n", moves(readHead()) ? 1 : 0);
}

void moveLeft(Arguments)
{
    turn(-1, 0);
}

void moveRight(Arguments)
{
    turn(1, 0);
}

void moveUp(Arguments)
{
    turn(0, 1);
}

void moveDown(Arguments)
{
    turn(0, -1);
}

void moveX(Arguments arguments)
{
    turnOne(arguments, true);
}

void moveY(Arguments arguments)
{
    turnOne(arguments, false);
}

void moveBoth(Arguments arguments)
{
    turnBoth(pairIn(arguments, 1e6));
}

void zoom(Arguments)
{
    // there is none
}

void moveStop(Arguments arguments)
{
    constexpr const char* KINDS[] = {"pantilt", "all", "zoom"};
    if (arguments.empty() || wordArgument(arguments[0], KINDS, "what stops") != 2)
        stop();
}

int32_t presetArgument(const char* text, int32_t least)
{
    return integerArgument(text, least, PRESET_COUNT, "a preset");
}

void goToId(int32_t id)
{
    Message message;
    send("gotoPreset", message.number("id", id));
}

void movePreset(Arguments arguments)
{
    goToId(presetArgument(arguments[0], 1));
}

void removePreset(Arguments arguments)
{
    const int32_t id = presetArgument(arguments[0], 1);
    Message message;
    void* ids = blobmsg_open_array(message.buffer(), "id");
    message.number(nullptr, id);
    blobmsg_close_array(message.buffer(), ids);
    send("delPreset", message);
}

/// An id of 0 is the first free one.
void storePreset(int32_t id, const char* name)
{
    Message message;
    if (id > 0)
        message.number("id", id);
    if (*name != '\0')
        message.text("name", name);
    send("setPreset", message.text("save_ptz", "1"));
}

void setPresetOf(Arguments arguments)
{
    const int32_t id = presetArgument(arguments[0], -1);
    char name[PRESET_NAME_SIZE] = "";
    size_t used = 0;
    for (const char* word : arguments.subspan(1)) {
        const size_t left = sizeof(name) - used;
        const int length = snprintf(name + used, left, "%s%s", used > 0 ? " " : "", word);
        if (static_cast<size_t>(length) >= left)
            die(EXIT_USAGE, "a preset's name has at most %d bytes", PRESET_NAME_SIZE - 1);
        used += static_cast<size_t>(length);
    }
    storePreset(id, name);
}

/// The id of the preset that is the home position, or 0.
int32_t homePreset()
{
    const PresetList list = readPresets();
    for (const PresetNow& preset : std::span(list.presets, list.count))
        if (strcmp(preset.name, HOME_PRESET) == 0)
            return preset.id;
    return 0;
}

void moveToCoordinates(int32_t x, int32_t y)
{
    Message message;
    send("moveTo", message.number("x_coord", x).number("y_coord", y));
}

void goHomePosition(Arguments)
{
    if (const int32_t id = homePreset(); id != 0)
        goToId(id);
    else
        moveToCoordinates(0, 0);
}

void setHomePosition(Arguments)
{
    storePreset(homePreset(), HOME_PRESET);
}

void jumpToAbs(Arguments arguments)
{
    const Pair to = pairIn(arguments, 1e6);
    const CoordRange pan = CoordLimits[PAN];
    const CoordRange tilt = tiltLimits();
    const int32_t x = rounded(to.x);
    const int32_t y = rounded(to.y);
    if (x < 0 || x > pan.high - pan.low || y < 0 || y > tilt.high - tilt.low)
        die(EXIT_USAGE, "%g,%g is outside 0..%d,0..%d", to.x, to.y, pan.high - pan.low, tilt.high - tilt.low);
    moveToCoordinates(x + pan.low, y + tilt.low);
}

void jumpToRel(Arguments arguments)
{
    const Pair by = pairIn(arguments, 1e6);
    move(rounded(by.x), rounded(by.y));
}

void getPresets(Arguments)
{
    const PresetList list = readPresets();
    const CoordRange tilt = tiltLimits();
    for (const PresetNow& preset : std::span(list.presets, list.count)) {
        printf("%d=", preset.id);
        for (const char* at = preset.name; *at != '\0'; ++at)
            putchar(static_cast<unsigned char>(*at) <= ' ' || *at == ',' ? '_' : *at);
        printf(",%d,%d\n", preset.x - CoordLimits[PAN].low, preset.y - tilt.low);
    }
}

void startTracking(Arguments arguments)
{
    constexpr const char* CHOICES[] = {"on", "1", "off", "0"};
    static constexpr const char* WORDS[] = {"on", "off"};
    const size_t choice = arguments.empty() ? 0 : wordArgument(arguments[0], CHOICES, "tracking");
    switchTracking(Arguments(&WORDS[choice / 2], 1));
}

void startPresetTour(Arguments)
{
    static constexpr const char* KIND = "presets";
    switchTourOn(Arguments(&KIND, 1));
}

void endPresetTour(Arguments)
{
    switchTourOff({});
}

constexpr struct {
    const char* name;
    size_t least;
    size_t most;
    CommandBody* body;
} ACTIONS[] = {
    {"get_position", 0, 0, getPosition},
    {"is_moving", 0, 0, isMoving},
    {"move_left", 0, 1, moveLeft},
    {"move_right", 0, 1, moveRight},
    {"move_up", 0, 1, moveUp},
    {"move_down", 0, 1, moveDown},
    {"move_in", 0, 1, zoom},
    {"move_out", 0, 1, zoom},
    {"move_x", 1, 1, moveX},
    {"move_y", 1, 1, moveY},
    {"move_both", 1, 3, moveBoth},
    {"continuous_move", 1, 3, moveBoth},
    {"move_stop", 0, 1, moveStop},
    {"move_preset", 1, 1, movePreset},
    {"goto_home_position", 0, 0, goHomePosition},
    {"set_preset", 1, 16, setPresetOf},
    {"set_home_position", 0, 0, setHomePosition},
    {"remove_preset", 1, 1, removePreset},
    {"jump_to_abs", 1, 3, jumpToAbs},
    {"jump_to_abs_speed", 1, 6, jumpToAbs}, // what follows the position is the speed
    {"jump_to_rel", 1, 3, jumpToRel},
    {"jump_to_rel_speed", 1, 6, jumpToRel},
    {"get_presets", 0, 0, getPresets},
    {"start_tracking", 0, 1, startTracking},
    {"preset_tour_start", 0, 1, startPresetTour}, // the head has one tour, whatever its number
    {"preset_tour_stop", 0, 1, endPresetTour},
    {"preset_tour_pause", 0, 1, endPresetTour},
};

} // namespace

void serveOnvif(Arguments arguments)
{
    const auto* action = std::find_if(std::begin(ACTIONS), std::end(ACTIONS),
                                      [&](const auto& known) { return strcmp(known.name, arguments[0]) == 0; });
    if (action == std::end(ACTIONS))
        die(EXIT_USAGE, "there is no action onvif %s: man ptzctl lists them", arguments[0]);
    const Arguments values = arguments.subspan(1);
    if (values.size() < action->least || values.size() > action->most)
        die(EXIT_USAGE, "onvif %s takes %zu to %zu arguments, not %zu", action->name, action->least, action->most,
            values.size());
    action->body(values);
}
