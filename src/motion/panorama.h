// The panorama: the head goes to a start position, sweeps by displacements, and comes back.
//
// While it runs, every other motion is refused. All its moves run at the axes' largest speed. Thread: event loop; each
// takes MotionLock and MotionStateLock, one after the other, never both.
#pragma once

#include "core/result_code.h"
#include "ubus/method_call.h"

#include <stdint.h>

/// Stores the position, when the head rests, and starts both axes toward the panorama's start position; a panorama that
/// runs starts over.
/// @return RESULT_OK, or, with no panorama running, ERR_CALIBRATING, ERR_LENS_MASK, ERR_PARAM when the start position
///         lies outside the limits (these three leave the head alone), ERR_DEVICE when a request fails
[[nodiscard]] ResultCode panoramaStart();

/// Starts both axes by a displacement, whether a panorama runs or not and whatever else forbids motions.
/// @param dx, dy  coordinate units, image-flip sign not yet applied; with it, pan must lie in -150..150 and tilt in
///                -39..61; cut at the travel limits
/// @return RESULT_OK, ERR_PARAM outside these ranges, ERR_NO_TRAVEL when an axis is to move but has no way to go (these
///         leave the head alone), ERR_DEVICE when a request fails
[[nodiscard]] ResultCode panoramaMove(int32_t dx, int32_t dy);

/// `startPanorama`, `movePanorama`, and `stopPanorama`, which goes back to the stored position, home where none is
/// stored, and ends the panorama in any case.
UbusHandler ubusStartPanorama;
UbusHandler ubusMovePanorama;
UbusHandler ubusStopPanorama;
