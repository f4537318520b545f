// The codes that a method's reply carries to its caller.
#pragma once

#include <stdint.h>

enum ResultCode : int32_t {
    RESULT_OK = 0,
    ERR_DEVICE = -64301,      // a device request, a thread creation or an allocation failed
    ERR_PARAM = -64302,       // a parameter is missing, not a number or out of range
    ERR_CALIBRATING = -64303, // the motors are being calibrated, or run for somebody else
    ERR_NO_TRAVEL = -64304,   // an axis that is to move has no distance to go
    ERR_LENS_MASK = -64324,   // the lens mask is on
    ERR_PANORAMA = -64329,    // a panorama runs
};
