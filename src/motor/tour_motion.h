// A tour's own take-over and drive, which give way to every command.
//
// A tour step takes a ticket (motion_state.h) before it looks at anything else. Each of its requests to the axes is
// sent under MotionLock, and only while the ticket counts; every command invalidates it under that lock before it sends
// its own requests. So a command that comes at any moment of the step has the last word.
#pragma once

#include "core/motion.h"
#include "motor/motor_device.h"

#include <stdint.h>

enum class TourMove {
    Started,
    Failed,    // a request failed
    Overtaken, // by a command, before a move request went out
};

/// Reads both statuses and stops the axes when one runs; the statuses stay those from before. Thread: touring; takes
/// MotionLock.
[[nodiscard]] TourMove tourTakeOver(uint32_t ticket, MotorStatus& pan, MotorStatus& tilt)
    EXCLUDES(gContext.motion.MotionLock);

/// Begins the motion and sends its move requests, both in any case. Without a tilt command it is a step of a scan,
/// which must rest before the next one. Thread: touring; takes MotionStateLock and MotionLock, one after the other.
[[nodiscard]] TourMove tourDrive(uint32_t ticket, const MotorCommand& pan, const MotorCommand* tilt)
    EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);
