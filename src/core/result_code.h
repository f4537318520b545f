// The codes that a method's reply carries to its caller.
#pragma once

#include <stdint.h>

enum ResultCode : int32_t {
    RESULT_OK = 0,
    ERR_DEVICE = -64301,      // a device request, a thread creation or an allocation failed
    ERR_PARAM = -64302,       // a parameter is missing, not a number or out of range
    ERR_CALIBRATING = -64303, // the motors are being calibrated, or run for another motion
    ERR_NO_TRAVEL = -64304,   // an axis that is to move has no distance to go
    ERR_MOVING = -64305,      // a position cannot be captured while an axis runs
    ERR_NO_PRESET_LEFT = -64306,
    ERR_NAME_LENGTH = -64308,
    ERR_READ_ONLY = -64309,    // the preset must not be overwritten
    ERR_SPEED_FACTOR = -64317, // a speed factor outside 0.0 (excluded) to 1.0
    ERR_PRESET_ID = -64321,    // an id outside 1..8, or that holds no preset
    ERR_LENS_MASK = -64324,    // the lens mask is on
    ERR_PANORAMA = -64329,     // a panorama runs
};
