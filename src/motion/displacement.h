// Motions by a displacement: the steps that it comes to.
#pragma once

#include "motor/motor_device.h"

#include <stdint.h>

/// A displacement of the head, coordinate units, image-flip sign applied; any value.
struct Displacement {
    int64_t pan;
    int64_t tilt;
};

/// The steps of a displacement from where the axes are, cut at the travel limits.
/// @return RESULT_OK, or ERR_NO_TRAVEL when an axis is to move but has no way to go. Any thread; no lock.
[[nodiscard]] ResultCode displacementSteps(const Displacement& by, const HeadStatus& head,
                                           int32_t (&steps)[AXIS_COUNT]);

/// Takes the head over for a displacement: reads both axes, works out its steps and halts a motion under way.
/// @return RESULT_OK, ERR_DEVICE when a request fails, ERR_NO_TRAVEL as above (nothing is halted).
/// Any thread; takes MotionLock.
[[nodiscard]] ResultCode takeOverForDisplacement(const Displacement& by, int32_t (&steps)[AXIS_COUNT]);
