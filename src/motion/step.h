// Step moves: a short motion of one axis in a direction, which every repetition extends.
//
// A step has a thread that counts its ticks of about a millisecond and stops the axes at their end. The thread owns the
// step as long as stepMoveGeneration is the one it was started with; it looks under MotionLock, where every other
// command cancels the step, so none of its stops can follow a cancel.
#pragma once

#include "core/result_code.h"
#include "ubus/method_call.h"

#include <stdint.h>

inline constexpr blobmsg_policy stepPolicy[] = {{"direction", BLOBMSG_TYPE_STRING}};

/// Starts a step, extends the one under way when its direction is the same, or turns it into another direction.
///
/// @param direction  degrees, 0..359, image-flip sign not yet applied: 0 is positive pan, 90 positive tilt
/// @return RESULT_OK, or the first that applies: ERR_PARAM for another direction; ERR_CALIBRATING, ERR_LENS_MASK,
///         ERR_PANORAMA while busy; ERR_NO_TRAVEL at the limit (all these leave the head alone); ERR_DEVICE when a
///         request fails or the thread cannot be created
/// Thread: event loop. Takes MotionLock, and keeps it over the requests; hold neither motion lock.
[[nodiscard]] ResultCode stepHead(int32_t direction);

/// `moveStep`.
UbusHandler ubusMoveMotorStep;
