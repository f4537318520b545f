// Opening the motors.
#pragma once

#include "motor/motor_device.h"

#include <stdint.h>

/// Opens an axis, trying again once a second for as long as it takes, reads its capability and fills its calibration
/// target: the stored position when power-off recovery is on and one is stored, else the home position.
/// @return 0; -1 when the capability cannot be read or makes no sense (logged), or the daemon is asked to end.
/// Thread: main, before any other thread starts.
[[nodiscard]] int32_t motorInit(AxisIndex axis);
