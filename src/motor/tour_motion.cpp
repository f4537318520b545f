#include "motor/tour_motion.h"

#include "motor/motion_state.h"

namespace {

TourMove moved(ResultCode result)
{
    return result == RESULT_OK ? TourMove::Started : TourMove::Failed;
}

/// Whether a tour step may send a request to the axes: only while the lock is held, which every command takes before it
/// sends its own.
bool mayDrive(uint32_t ticket) REQUIRES(gContext.motion.MotionLock)
{
    return gContext.motion.stepMoveActive == 0 && tourTicketNow() == ticket &&
           refusedBy(CALIBRATING | LENS_MASK | PANORAMA) == RESULT_OK;
}

/// Whether a tour step may begin a motion.
bool mayBegin(uint32_t ticket) REQUIRES(gContext.motion.MotionStateLock)
{
    return tourTicketNow() == ticket && gContext.motion.motion_active.load() == 0 &&
           gContext.motion.user_moved_recently.load() == 0 && gContext.motion.track_back_done.load() != 0 &&
           refusedBy(CALIBRATING | LENS_MASK | PANORAMA) == RESULT_OK;
}

/// The begin step, to be followed by started. @return false, with nothing begun, when the tour must not begin.
bool begin(uint32_t ticket) EXCLUDES(gContext.motion.MotionStateLock)
{
    {
        LockGuard hold(gContext.motion.MotionStateLock);
        if (!mayBegin(ticket))
            return false;
        motionStarting();
        gContext.motion.tourTicket = ticket;
        (void)announceFromRest(ORIGIN_TOUR);
    }
    statusPollStart();
    return true;
}

/// Says that the move requests have been sent, or never will be because a command has overtaken the step: the motion
/// that was announced is then that command's, and a user's.
TourMove started(TourMove result) EXCLUDES(gContext.motion.MotionStateLock)
{
    if (result == TourMove::Overtaken) {
        LockGuard hold(gContext.motion.MotionStateLock);
        if (gContext.motion.motion_active.load() != 0)
            gContext.motion.user_moved_recently.store(1); // else `stop` has settled the motion as a user's
    }
    motionStarted();
    motionRecordSend();
    return result;
}

/// Under the lock that a command takes before its requests: one that overtakes the step begins its own motion
/// afterwards.
TourMove recorded(ResultCode driven, const HeadStatus& head, const HeadCommand& command)
    REQUIRES(gContext.motion.MotionLock)
{
    motionRecordBegin(MotionSource::Tour, targetOf(head, command), head);
    motionRecordDriven(driven);
    return moved(driven);
}

TourMove sendMoves(uint32_t ticket, const HeadStatus& head, const HeadCommand& command)
    EXCLUDES(gContext.motion.MotionLock)
{
    LockGuard hold(gContext.motion.MotionLock);
    return mayDrive(ticket) ? recorded(driveAxes(command), head, command) : TourMove::Overtaken;
}

TourMove sendScanMove(uint32_t ticket, const HeadStatus& head, const MotorCommand& pan)
    EXCLUDES(gContext.motion.MotionLock)
{
    LockGuard hold(gContext.motion.MotionLock);
    if (!mayDrive(ticket))
        return TourMove::Overtaken;
    const ResultCode result = motorMove(PAN, pan);
    // Cleared before the motion can settle: the transition to rest arms the timer that sets it again.
    if (result == RESULT_OK)
        gContext.motion.scanStepDone.store(0);
    return recorded(result, head, {pan, {}});
}

} // namespace

uint32_t tourTicketNow()
{
    return gContext.motion.stepMoveGeneration.load();
}

TourMove tourTakeOver(uint32_t ticket, HeadStatus& head)
{
    if (motorReadStatus(head) != RESULT_OK)
        return TourMove::Failed;
    if (!head.running())
        return TourMove::Started;
    LockGuard hold(gContext.motion.MotionLock);
    return mayDrive(ticket) ? moved(motorStopBoth()) : TourMove::Overtaken;
}

TourMove tourDrive(uint32_t ticket, const HeadStatus& head, const HeadCommand& command)
{
    return begin(ticket) ? started(sendMoves(ticket, head, command)) : TourMove::Overtaken;
}

TourMove tourDriveScan(uint32_t ticket, const HeadStatus& head, const MotorCommand& pan)
{
    if (!begin(ticket))
        return TourMove::Overtaken;
    tourPresetReset();
    return started(sendScanMove(ticket, head, pan));
}

void tourPresetSet(int32_t id)
{
    LockGuard hold(gContext.motion.MotionStateLock);
    gContext.motion.tourCurrentPresetId.store(id);
}

void tourStartAnew()
{
    LockGuard hold(gContext.motion.MotionStateLock);
    if (gContext.motion.motion_active.load() != 0)
        return;
    gContext.motion.user_moved_recently.store(0);
    tourPresetReset();
    gContext.motion.scanStepDone.store(1);
    gContext.motion.track_back_done.store(1);
}
