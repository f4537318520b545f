// The methods that report on the motors.
#pragma once

#include "ubus/method_call.h"

/// `getCapa`: the capability, without asking the devices.
UbusHandler ubusGetMotorCapa;
/// `getStatus`: where both axes stand and how fast they turn, in the image flip's senses.
UbusHandler ubusGetMotorStatus;
/// `checkMotorStatus`: whether the motors are available or calibrating.
UbusHandler ubusCheckMotorStatus;
