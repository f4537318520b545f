// The basic motions: by a displacement, to a coordinate, and stop.
//
// Thread: event loop. Each takes MotionLock and MotionStateLock, one after the other, never both.
#pragma once

#include "core/result_code.h"
#include "ubus/method_call.h"

#include <stdint.h>

/// Shared by `move`, `moveTo` and the panorama's moves.
inline constexpr blobmsg_policy coordPolicy[] = {
    {"x_coord", BLOBMSG_TYPE_STRING},
    {"y_coord", BLOBMSG_TYPE_STRING},
};

/// Starts both axes by a displacement, cut at the travel limits; returns once they are started, not when they rest.
///
/// @param dx, dy  coordinate units, image-flip sign not yet applied; any value
/// @return RESULT_OK, or the first that applies: ERR_CALIBRATING, ERR_LENS_MASK, ERR_PANORAMA while busy; ERR_DEVICE
///         when a request fails; ERR_NO_TRAVEL when an axis is to move but has no way to go (the head is left alone)
[[nodiscard]] ResultCode moveHead(int32_t dx, int32_t dy);

/// Starts both axes toward an absolute target; returns once they are started, not when they rest.
///
/// @param xCoord, yCoord  coordinate units, image-flip sign not yet applied; with it, pan must lie in -150..150 and
///                        tilt in -39..61
/// @return RESULT_OK, or the first that applies: ERR_PARAM outside the limits; ERR_CALIBRATING, ERR_LENS_MASK,
///         ERR_PANORAMA while busy (these four leave the head alone); ERR_DEVICE when a request fails
[[nodiscard]] ResultCode moveHeadTo(int32_t xCoord, int32_t yCoord);

/// Stops both axes and ends the motion.
/// @return RESULT_OK, or ERR_CALIBRATING, ERR_LENS_MASK, ERR_PANORAMA (nothing is stopped), ERR_DEVICE (the motion
///         counts as ended all the same)
[[nodiscard]] ResultCode stopHead();

/// `move`, `moveTo`, `stop`.
UbusHandler ubusMoveMotor;
UbusHandler ubusMoveMotorTo;
UbusHandler ubusStopMotorRotate;
