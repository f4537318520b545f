// The methods that answer what the motors are and do.
#pragma once

#include "ubus/method_call.h"

/// `getCapa`: the capability, without asking the devices.
UbusHandler ubusGetMotorCapa;
/// `getStatus`: where both axes are and how fast they turn, with the image flip's signs.
UbusHandler ubusGetMotorStatus;
/// `checkMotorStatus`: whether the motors are available or calibrating.
UbusHandler ubusCheckMotorStatus;
