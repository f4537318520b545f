// A tour's own take-over and drive, which give way to every command.
//
// A tour step takes a ticket before it looks at anything else. Each of its requests to the axes is sent under
// MotionLock, and only while the ticket counts; every command invalidates it under that lock before it sends its own
// requests. So a command that comes at any moment of the step has the last word.
#pragma once

#include "core/motion.h"
#include "motor/motor_device.h"

#include <stdint.h>

enum class TourMove {
    Started,
    Failed,    // a request failed
    Overtaken, // by a command, before a move request went out
};

/// A tour step's ticket, which counts until a command takes the head over. Any thread; no lock.
[[nodiscard]] uint32_t tourTicketNow();

/// Reads the head's status and stops the axes when one runs; the status stays that from before. Thread: touring; takes
/// MotionLock.
[[nodiscard]] TourMove tourTakeOver(uint32_t ticket, HeadStatus& head) EXCLUDES(gContext.motion.MotionLock);

/// Begins a motion to a preset and sends its move requests, both in any case; `head` is the status that tourTakeOver
/// has read. Thread: touring; takes MotionStateLock and MotionLock, one after the other.
[[nodiscard]] TourMove tourDrive(uint32_t ticket, const HeadStatus& head, const HeadCommand& command)
    EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// The same for a step of a scan, which moves pan alone and must rest before the next one. It takes the head away from
/// a preset tour's preset.
[[nodiscard]] TourMove tourDriveScan(uint32_t ticket, const HeadStatus& head, const MotorCommand& pan)
    EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// Notes the preset that a tour sends the head to, 1..8, or 0. Thread: touring.
void tourPresetSet(int32_t id) EXCLUDES(gContext.motion.MotionStateLock);

/// Lets the tour start anew after its settings have changed, unless a motion is under way. Thread: touring.
void tourStartAnew() EXCLUDES(gContext.motion.MotionStateLock);
