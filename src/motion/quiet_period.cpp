#include "motion/quiet_period.h"

#include "core/context.h"

// Both under the lock that the transition to rest holds while it arms their timers: a motion that begins and ends
// meanwhile would else have its rest taken for over, and its timer disarmed for good.

void usrMoveStopTimeout(void*)
{
    LockGuard hold(gContext.motion.MotionStateLock);
    if (gContext.motion.motion_active.load() != 0)
        return;
    gContext.motion.user_moved_recently.store(0);
    timerStop(&gContext.timers.usrMoveStopTimer);
}

void scanMoveStopTimeout(void*)
{
    LockGuard hold(gContext.motion.MotionStateLock);
    if (gContext.motion.motion_active.load() != 0)
        return;
    gContext.tour.scanStepDone.store(1);
    timerStop(&gContext.timers.scanMoveStopTimer);
}
