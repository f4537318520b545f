// The shared motion state, and the steps that every motion is made of: halt, begin, drive, settle.
//
// A motion command reads both axes, halts them if one runs, begins, drives; the status poll finds the end and settles.
// Every begin that finds the head at rest sends one moving notification, and every such motion ends with one idle
// notification, whichever of poll, stop and calibration comes first.
#pragma once

#include "core/motion.h"
#include "core/result_code.h"
#include "core/timer.h"
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
/// that follows sends no second notification. @return RESULT_OK, or ERR_DEVICE: tilt is not stopped when pan fails.
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
/// calibration, whose own end settles). Each begin must be followed by motionStarted, or, for a calibration, by its
/// settle: until then no status poll takes the resting axes for the motion's end.
/// Any thread; takes MotionStateLock and, under it, BusLock; can last as long as a notification.
void motionBegin(MotionBegin variant) EXCLUDES(gContext.motion.MotionStateLock);

/// Says that the move requests of a begin step have been sent. Any thread; no lock.
void motionStarted();

/// Keeps the status poll, for the length of a scope, from taking the rest of the axes for a motion's end: between a
/// command's halt and its begin step, say, or while a step move turns. Any thread; no lock.
class MotionStartScope {
public:
    MotionStartScope()
    {
        gContext.motion.motionsBegun.fetch_add(1);
    }
    ~MotionStartScope()
    {
        motionStarted();
    }
    MotionStartScope(const MotionStartScope&) = delete;
    MotionStartScope& operator=(const MotionStartScope&) = delete;
};

/// motionBegin, driveAxes and motionStarted. @return what driveAxes says.
[[nodiscard]] ResultCode beginAndDrive(MotionBegin variant, const HeadCommand& command)
    EXCLUDES(gContext.motion.MotionStateLock);

/// The idle transition of `stop`, which ends the status poll too, and of a calibration. `stop`, which has halted the
/// head, leaves both alone when a tour's motion has begun since. Any thread; takes MotionStateLock and, under it,
/// BusLock.
void motionSettle(MotionSettle variant) EXCLUDES(gContext.motion.MotionStateLock);

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
