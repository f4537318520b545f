// The commands that move and stop the head, and its status and speeds.

#include "head.h"
#include "settings.h"
#include "wait.h"

#include "core/result_code.h"

#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>

namespace {

int32_t numberIn(blob_attr* table, const char* name)
{
    return static_cast<int32_t>(strtol(textOf(table, name, "0"), nullptr, 10));
}

void move(const char* method, int32_t x, int32_t y)
{
    Message coordinates;
    moveHead(method, coordinates.number("x_coord", x).number("y_coord", y));
}

} // namespace

HeadNow headIn(const Reply& reply)
{
    blob_attr* status = fieldOf(reply.fields.get(), "status", BLOBMSG_TYPE_TABLE);
    return {numberIn(status, "x_coord"), numberIn(status, "y_coord"), numberIn(status, "x_speed"),
            numberIn(status, "y_speed")};
}

HeadNow readHead()
{
    Message nothing;
    const Reply reply = callMethod("getStatus", nothing);
    dieUnlessDone(reply.code);
    return headIn(reply);
}

void showStatus(Arguments)
{
    const Reply reply = command("getStatus");
    if (options().json)
        return;
    Message nothing;
    const bool calibrating = callMethod("checkMotorStatus", nothing).code == ERR_CALIBRATING;
    const HeadNow head = headIn(reply);
    printf("position   pan %d, tilt %d\n", head.x, head.y);
    if (calibrating)
        printf("motion     calibrating\n");
    else if (moves(head))
        printf("motion     moving, speed: pan %d, tilt %d\n", head.xSpeed, head.ySpeed);
    else
        printf("motion     at rest\n");
    const SettingText tour = settingOr(TOUR_INFO, "enabled", "off");
    const char type = settingOr(TOUR_INFO, "tour_type", "0").text[0];
    const bool touring = strcasecmp(tour.text, "on") == 0 && (type == '1' || type == '2');
    printf("tour       %s\n", !touring ? "off" : type == '1' ? "scan" : "presets");
    printf("tracking   %s\n", settingOr({"target_track", "target_track_info", ""}, "enabled", "off").text);
    printf("lens mask  %s\n", settingOr({"lens_mask", "lens_mask_info", ""}, "enabled", "off").text);
    printf("flip       %s\n", settingOr({"image", "switch", ""}, "flip_type", "off").text);
}

void moveBy(Arguments arguments)
{
    move("move", integerArgument(arguments[0], INT_MIN, INT_MAX, "DX"),
         integerArgument(arguments[1], INT_MIN, INT_MAX, "DY"));
}

void goTo(Arguments arguments)
{
    const CoordRange tilt = tiltLimits();
    const CoordRange pan = CoordLimits[PAN];
    move("moveTo", integerArgument(arguments[0], pan.low, pan.high, "X"),
         integerArgument(arguments[1], tilt.low, tilt.high, "Y"));
}

void goHome(Arguments)
{
    move("moveTo", 0, 0);
}

void stepTo(Arguments arguments)
{
    constexpr const char* DIRECTIONS[] = {"right", "up", "left",
                                          "down"}; // a quarter of the circle each, from 0 degrees
    const int32_t angle = 90 * static_cast<int32_t>(wordArgument(arguments[0], DIRECTIONS, "a direction"));
    Message direction;
    moveHead("moveStep", direction.number("direction", angle));
}

void stopMotion(Arguments)
{
    command("stop");
}

void calibrate(Arguments)
{
    moveHead("manualCalibrate", Origin::Calibration);
}

void startPanorama(Arguments)
{
    moveHead("startPanorama");
}

void stopPanorama(Arguments)
{
    moveHead("stopPanorama");
}

void showOrSetSpeed(Arguments arguments)
{
    if (arguments.size() == 1)
        die(EXIT_USAGE, "usage: ptzctl speed [PAN TILT]");
    Message nothing;
    const Reply reply = callMethod("getCapa", nothing);
    blob_attr* capability = fieldOf(reply.fields.get(), "capability", BLOBMSG_TYPE_TABLE);
    const int32_t fastest[] = {numberIn(capability, "x_max_speed"), numberIn(capability, "y_max_speed")};
    if (!arguments.empty()) {
        const int32_t pan = integerArgument(arguments[0], 1, fastest[PAN], "PAN");
        const int32_t tilt = integerArgument(arguments[1], 1, fastest[TILT], "TILT");
        Message speeds;
        (void)command("setConfig", speeds.number("x_speed", pan).number("y_speed", tilt));
        return;
    }
    const SettingText pan = settingOr({"ptzd", "x_motor", ""}, "speed", "");
    const SettingText tilt = settingOr({"ptzd", "y_motor", ""}, "speed", "");
    if (options().json) {
        Message message;
        printJson(message.text("x_speed", pan.text).text("y_speed", tilt.text).content());
        return;
    }
    const auto print = [](const char* axis, const char* speed, int32_t most) {
        if (*speed != '\0')
            printf("%s  %s of %d\n", axis, speed, most);
        else
            printf("%s  not set, at most %d\n", axis, most);
    };
    print("pan ", pan.text, fastest[PAN]);
    print("tilt", tilt.text, fastest[TILT]);
}
