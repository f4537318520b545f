#include "motor/tour_motion.h"

#include "motor/motion_state.h"

namespace {

TourMove moved(ResultCode result)
{
    return result == RESULT_OK ? TourMove::Started : TourMove::Failed;
}

TourMove sendMoves(uint32_t ticket, const MotorCommand& pan, const MotorCommand* tilt)
    EXCLUDES(gContext.motion.MotionLock)
{
    LockGuard hold(gContext.motion.MotionLock);
    if (!tourMayDrive(ticket))
        return TourMove::Overtaken;
    if (tilt)
        return moved(driveAxes(pan, *tilt));
    const ResultCode result = motorMove(PAN, pan);
    // Cleared before the motion can settle: the transition to rest arms the timer that sets it again.
    if (result == RESULT_OK)
        gContext.motion.scanStepDone.store(0);
    return moved(result);
}

} // namespace

TourMove tourTakeOver(uint32_t ticket, MotorStatus& pan, MotorStatus& tilt)
{
    if (motorReadStatus(pan, tilt) != RESULT_OK)
        return TourMove::Failed;
    if (pan.running == 0 && tilt.running == 0)
        return TourMove::Started;
    LockGuard hold(gContext.motion.MotionLock);
    return tourMayDrive(ticket) ? moved(motorStopBoth()) : TourMove::Overtaken;
}

TourMove tourDrive(uint32_t ticket, const MotorCommand& pan, const MotorCommand* tilt)
{
    if (!motionBeginTour(ticket, tilt != nullptr))
        return TourMove::Overtaken;
    const TourMove result = sendMoves(ticket, pan, tilt);
    motionTourStarted(result == TourMove::Overtaken);
    return result;
}
