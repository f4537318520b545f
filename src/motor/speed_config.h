// The speeds of the axes and the length of a step move.
#pragma once

#include "motor/motor_device.h"
#include "ubus/method_call.h"

#include <stdint.h>

/// For an axis without a usable speed in storage.
inline constexpr int32_t DEFAULT_SPEED[AXIS_COUNT] = {4, 4};

inline constexpr blobmsg_policy speedPolicy[] = {
    {"x_speed", BLOBMSG_TYPE_STRING},
    {"y_speed", BLOBMSG_TYPE_STRING},
    {"sustain", BLOBMSG_TYPE_STRING},
};

/// `setConfig`: sets either axis's speed (1..max_speed), in the driver and in storage, and the ticks of a step move, in
/// memory only; each is optional, one is needed. A speed out of range does not keep the others from being set. Thread:
/// event loop; takes ConfigStoreLock.
UbusHandler ubusSetMotorConfig;
