// The factory's rotation test.
#pragma once

#include "ubus/method_call.h"

/// `test`: swings both axes over their whole travel `times` times, on a separate thread, at the same time as whatever
/// else moves the head: no refusal, no notification.
UbusHandler ubusTestMotorRotate;
