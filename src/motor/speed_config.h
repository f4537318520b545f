// The speeds of the axes and the length of a step move.
#pragma once

#include "ubus/method_call.h"

inline constexpr blobmsg_policy speedPolicy[] = {
    {"x_speed", BLOBMSG_TYPE_STRING},
    {"y_speed", BLOBMSG_TYPE_STRING},
    {"sustain", BLOBMSG_TYPE_STRING},
};

/// `setConfig`: sets either axis's speed (1..max_speed), in the driver and in storage, and the ticks of a step move, in
/// memory only; each is optional, one is needed. A speed out of range does not keep the others from being set. Thread:
/// event loop; takes ConfigStoreLock.
UbusHandler ubusSetMotorConfig;
