// Opening the motors, and the methods that report on them.
#pragma once

#include "motor/motor_device.h"
#include "ubus/method_call.h"

#include <stdint.h>

/// Opens an axis, trying again once a second for as long as it takes, reads its capability and fills its calibration
/// target: the stored position when power-off recovery is on and one is stored, else the home position.
/// @return 0; -1 when the capability cannot be read or makes no sense (reported), or the daemon is asked to end.
/// Thread: main, before any other thread starts.
[[nodiscard]] int32_t motorInit(AxisIndex axis);

/// `getCapa`: the capability, without asking the devices.
UbusHandler ubusGetMotorCapa;
/// `getStatus`: where both axes stand and how fast they turn, in the image flip's senses.
UbusHandler ubusGetMotorStatus;
/// `checkMotorStatus`: whether the motors are available or calibrating.
UbusHandler ubusCheckMotorStatus;
