#include "motor/quiet_period.h"

namespace {

void startPeriod(DaemonTimer& timer, int64_t lengthNs) REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.quietPeriods.fetch_add(1);
    timerStart(&timer, lengthNs, lengthNs);
}

/// Ends a quiet period while the head rests. Under the lock that the transition to rest holds while it arms the timer:
/// a motion that begins and ends meanwhile would else have its rest taken for over, and its timer disarmed for good.
/// An expiry that waited for the lock while that happened belongs to the period before.
void endQuietPeriod(DaemonTimer& timer, std::atomic<int32_t>& word, int32_t over)
    EXCLUDES(gContext.motion.MotionStateLock)
{
    const uint32_t before = gContext.motion.quietPeriods.load();
    LockGuard hold(gContext.motion.MotionStateLock);
    if (gContext.motion.motion_active.load() != 0 || gContext.motion.quietPeriods.load() != before)
        return;
    word.store(over);
    timerStop(&timer);
}

} // namespace

void quietPeriodsStart()
{
    if (gContext.motion.user_moved_recently.load() != 0)
        startPeriod(gContext.timers.usrMoveStopTimer, USR_MOVE_STOP_NS);
    if (gContext.motion.scanStepDone.load() == 0)
        startPeriod(gContext.timers.scanMoveStopTimer, SCAN_MOVE_STOP_NS);
}

void usrMoveStopTimeout(void*)
{
    endQuietPeriod(gContext.timers.usrMoveStopTimer, gContext.motion.user_moved_recently, 0);
}

void scanMoveStopTimeout(void*)
{
    endQuietPeriod(gContext.timers.scanMoveStopTimer, gContext.motion.scanStepDone, 1);
}
