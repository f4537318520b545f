#include "motion/quiet_period.h"

#include "core/context.h"

void usrMoveStopTimeout(void*)
{
    if (gContext.motion.motion_active.load() != 0)
        return;
    gContext.motion.user_moved_recently.store(0);
    timerStop(&gContext.timers.usrMoveStopTimer);
}

void scanMoveStopTimeout(void*)
{
    if (gContext.motion.motion_active.load() != 0)
        return;
    gContext.tour.scanStepDone.store(1);
    timerStop(&gContext.timers.scanMoveStopTimer);
}
