// The shared motion state, and the steps that every motion is made of: halt, begin, drive, settle.
//
// A motion command reads both axes, halts them if one runs, begins, drives; the status poll finds the end and settles.
// Every begin that finds the head at rest sends one moving notification, and every such motion ends with one idle
// notification, whichever of poll, stop and calibration comes first.
#pragma once

#include "core/context.h"
#include "core/motion.h"
#include "core/result_code.h"
#include "core/timer.h"
#include "motor/motor_device.h"

#include <stdint.h>

inline constexpr int64_t STATUS_POLL_NS = 50 * NS_PER_MS;
inline constexpr int64_t USR_MOVE_STOP_NS = 60 * NS_PER_SECOND;
inline constexpr int64_t SCAN_MOVE_STOP_NS = 15 * NS_PER_SECOND;

enum class MotionBegin {
    User,
    Step, // a user's, of a step move that is under way
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

/// motionHalt, when either of the statuses just read shows an axis running; else only a step move is cancelled, which
/// ticks on when its axis has reached the limit.
[[nodiscard]] ResultCode motionHaltIfRunning(const MotorStatus& pan, const MotorStatus& tilt)
    EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// Takes the head over for a new motion: reads both statuses, then motionHaltIfRunning. The statuses stay those from
/// before the halt.
[[nodiscard]] ResultCode motionTakeOver(MotorStatus& pan, MotorStatus& tilt)
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

/// The user's begin step for the thread of a step move, whose requests have been sent before.
/// @return false, with nothing begun, once that step has been cancelled or has ended.
/// Any thread; takes MotionStateLock and, under it, BusLock.
[[nodiscard]] bool motionBeginStep(uint32_t generation) EXCLUDES(gContext.motion.MotionStateLock);

/// Says that axes are about to be halted and driven anew: until motionStarted no status poll takes their rest for the
/// motion's end. A begin step includes it. Any thread; no lock.
void motionStarting();

/// What a tour step shows when it is about to do something to the head; to be taken before the step looks at anything
/// else. It is worth nothing any more once a command has taken the head over. Any thread; no lock.
[[nodiscard]] uint32_t tourTicketNow();

/// Whether a tour step may send a request to the axes: only while the lock is held, which every command takes before it
/// sends its own.
[[nodiscard]] bool tourMayDrive(uint32_t ticket) REQUIRES(gContext.motion.MotionLock);

/// The moving transition of a tour step, to be followed by motionTourStarted. A step that does not go to a preset makes
/// a preset tour send the head again.
/// @return false, with nothing begun, when the ticket is worth nothing or the head is not the tour's to move.
/// Thread: touring; takes MotionStateLock and, under it, BusLock.
[[nodiscard]] bool motionBeginTour(uint32_t ticket, bool toPreset) EXCLUDES(gContext.motion.MotionStateLock);

/// Says that a tour step's move requests have been sent, or never will be because a command has overtaken it: the
/// motion that was announced is then that command's, and a user's. Thread: touring; takes MotionStateLock.
void motionTourStarted(bool overtaken) EXCLUDES(gContext.motion.MotionStateLock);

/// Says that the move requests of a begin step, or after motionStarting, have been sent. Any thread; no lock.
void motionStarted();

/// motionStarting and motionStarted for the length of a scope, which a command's halt and begin step lie in: what it
/// halts does not come to its end in between. Any thread; no lock.
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

/// Sends a move request to pan and then to tilt, both in any case. @return ERR_DEVICE when either failed.
[[nodiscard]] ResultCode driveAxes(const MotorCommand& pan, const MotorCommand& tilt);

/// motionBegin, driveAxes and motionStarted. @return what driveAxes says.
[[nodiscard]] ResultCode beginAndDrive(MotionBegin variant, const MotorCommand& pan, const MotorCommand& tilt)
    EXCLUDES(gContext.motion.MotionStateLock);

/// The idle transition of `stop`, which ends the status poll too, and of a calibration; the status poll has its own.
/// `stop`, which has halted the head, leaves both alone when another thread's motion has begun since. Any thread; takes
/// MotionStateLock and, under it, BusLock.
void motionSettle(MotionSettle variant) EXCLUDES(gContext.motion.MotionStateLock);

/// Arms usrMoveStopTimer, and scanMoveStopTimer while a scan step has not rested.
void quietPeriodsStart() REQUIRES(gContext.motion.MotionStateLock);

/// Callback of statusPollTimer: settles the motion once both axes stand still; a failed read is tried again with the
/// next tick. Thread: timer; takes MotionStateLock.
void motorStatusPoll(void* motionOrigin) EXCLUDES(gContext.motion.MotionStateLock);
