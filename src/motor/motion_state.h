// The shared motion state, and the steps that every motion is made of: halt, begin, drive, settle.
//
// A motion command reads both axes, halts them if one runs, begins, drives; the status poll finds the end and settles.
// Every begin that finds the head at rest sends one moving notification, and every such motion ends with one idle
// notification, whichever of poll, stop and calibration comes first.
#pragma once

#include "core/motion.h"
#include "core/result_code.h"
#include "core/timer.h"
#include "motor/motion_record.h"
#include "motor/motor_device.h"

#include <stdint.h>

inline constexpr int64_t STATUS_POLL_NS = 50 * NS_PER_MS;

enum class MotionBegin {
    User,
    LensMask,
    Track,
    Return,
    Preset, // a user's; always counts as one, also when it takes over another's motion
    Calibration,
};

enum class MotionSettle {
    Stop,
    Calibration,
};

/// What can forbid a motion; a command names those that forbid its own.
enum BusyReason : uint32_t {
    CALIBRATING = 1,
    LENS_MASK = 2,
    PANORAMA = 4,
};

/// @param reasons  BusyReason values, added up
/// @return RESULT_OK, or the code of the first of them that applies now: ERR_CALIBRATING, ERR_LENS_MASK, ERR_PANORAMA.
/// Any thread; no lock.
[[nodiscard]] ResultCode refusedBy(uint32_t reasons);

/// Stops both axes before a new motion, and cancels a step move. The motion state is left alone, so that the begin step
/// that follows sends no second notification. Within a MotionStartScope.
/// @return RESULT_OK, or ERR_DEVICE: tilt is not stopped when pan fails.
/// Any thread; takes MotionLock, hold neither motion lock.
[[nodiscard]] ResultCode motionHalt() EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// motionHalt, when the status just read shows an axis running; else only a step move is cancelled, which ticks on when
/// its axis has reached the limit.
[[nodiscard]] ResultCode motionHaltIfRunning(const HeadStatus& head)
    EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// Takes the head over for a new motion: reads its status, then motionHaltIfRunning. The status stays that from before
/// the halt.
[[nodiscard]] ResultCode motionTakeOver(HeadStatus& head)
    EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// Cancels a step move and a tour's step: once this returns, their threads send nothing any more. Every command that is
/// about to drive the head does so, in its halt and in its begin step. Any thread; takes MotionLock.
void stepMoveCancel() EXCLUDES(gContext.motion.MotionLock);

/// Ends a step move, whoever ends it.
void stepMoveClear() REQUIRES(gContext.motion.MotionLock);

/// The moving transition; sends the moving notification when the head was at rest, and arms the status poll (but for a
/// calibration, whose own end settles). Within a MotionStartScope that lasts until the move requests are sent; a
/// calibration's lasts from its motionStarting until it settles. Any thread; takes MotionStateLock and, under it,
/// BusLock; can last as long as a notification.
void motionBegin(MotionBegin variant) EXCLUDES(gContext.motion.MotionStateLock);

/// From the first on no status poll takes the rest of the axes for a motion's end; the second says that the move
/// requests have been sent. Any thread; no lock.
void motionStarting();
void motionStarted();

/// Both, for the length of a scope: from before a command's halt until its move requests are sent. Any thread; no lock.
class MotionStartScope {
public:
    MotionStartScope()
    {
        motionStarting();
    }
    ~MotionStartScope()
    {
        motionStarted();
    }
    MotionStartScope(const MotionStartScope&) = delete;
    MotionStartScope& operator=(const MotionStartScope&) = delete;
};

/// motionBegin, driveAxes and the motion's record, whose notifications are sent last. Within a MotionStartScope that
/// began before the head was halted.
/// @param before  the head's status from before the halt
/// @param target  where the motion is to end; without it, where the command goes from there
/// @return what driveAxes says
[[nodiscard]] ResultCode beginAndDrive(MotionBegin variant, const HeadStatus& before, const HeadCommand& command)
    EXCLUDES(gContext.motion.MotionStateLock);
[[nodiscard]] ResultCode beginAndDrive(MotionBegin variant, const HeadStatus& before, const HeadCommand& command,
                                       const MotionTarget& target) EXCLUDES(gContext.motion.MotionStateLock);

/// The idle transition of `stop`, which ends the status poll too, and of a calibration. `stop`, which has halted the
/// head, leaves both alone when a tour's motion has begun since. The motion's record ends with it; its notification is
/// still to be sent. Any thread; takes MotionStateLock and, under it, BusLock.
/// @param outcome  of the motion, unless it has failed before
void motionSettle(MotionSettle variant, MotionOutcome outcome) EXCLUDES(gContext.motion.MotionStateLock);

/// The idle transition of the status poll, which ends with it; nothing when `stop` came first. Takes BusLock.
void motionSettlePolled() REQUIRES(gContext.motion.MotionStateLock);

/// Ends a tracking episode, if there is one: the tour may go on after the user's quiet period. Any thread.
void motionEndTracking() EXCLUDES(gContext.motion.MotionStateLock);

// What begin steps of other files are made of.

/// The moving transition from rest; takes BusLock. @return false while a motion is under way: it keeps its origin and
/// gets no second notification.
bool announceFromRest(int32_t origin) REQUIRES(gContext.motion.MotionStateLock);

/// announceFromRest for a user's motion, which keeps the tour away from the head.
void announceUsersMotion() REQUIRES(gContext.motion.MotionStateLock);

/// Makes a preset tour send the head again. Any thread; no lock.
void tourPresetReset();

/// Arms the status poll after a begin step. The lock is released before: the poll takes it, and a notification can keep
/// it for seconds. Any thread.
void statusPollStart() EXCLUDES(gContext.motion.MotionStateLock);
