#include "motor/status_poll.h"

#include "motor/motion_state.h"

// A tick reads the axes first and decides under MotionStateLock afterwards. In between a motion may begin, and one that
// has begun rests until its move requests are sent; neither may be taken for the motion's end. So a tick settles only
// if every motion begun before it read the axes was started by then, and none has begun since.
void motorStatusPoll(void*)
{
    const uint32_t motion = motionRecordOpen();
    const uint32_t started = gContext.motion.motionsStarted.load(); // before the other, which it never overtakes
    if (gContext.motion.motionsBegun.load() != started)
        return;
    HeadStatus head{};
    if (motorReadStatus(head) != RESULT_OK || head.running())
        return;
    motionRecordRested(motion, started, head);
    motionRecordSend(); // at once: the notifications below can last for seconds
    // The holder of the lock may be sending a notification for seconds. The next tick tries again, and no tick waits.
    if (!gContext.motion.MotionStateLock.tryLock())
        return;
    if (gContext.motion.motionsBegun.load() == started)
        motionSettlePolled();
    gContext.motion.MotionStateLock.unlock();
}
