// The factory's rotation test.
#pragma once

#include "ubus/method_call.h"

/// `test`: swings both axes over their whole travel `times` times, on a thread of its own, beside whatever else moves
/// the head: no refusal, no notification.
UbusHandler ubusTestMotorRotate;
