// Motions by a displacement: the steps that it comes to.
#pragma once

#include "motor/motion_record.h"

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

/// Where a displacement ends that is not cut.
[[nodiscard]] MotionTarget targetOf(const HeadStatus& head, const Displacement& by);

/// Takes the head over for a displacement: reads both axes, works out its steps and halts a motion under way. The
/// status stays that from before. Within a MotionStartScope.
/// @return RESULT_OK, ERR_DEVICE when a request fails, ERR_NO_TRAVEL as above (nothing is halted).
/// Any thread; takes MotionLock.
[[nodiscard]] ResultCode takeOverForDisplacement(const Displacement& by, HeadStatus& head,
                                                 int32_t (&steps)[AXIS_COUNT]);
