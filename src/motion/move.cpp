#include "motion/move.h"

#include "core/log.h"
#include "motion/displacement.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

ResultCode moveHead(int32_t dx, int32_t dy)
{
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    const MotionStartScope start;
    const Displacement by{flipped(PAN, dx), flipped(TILT, dy)};
    HeadStatus head{};
    int32_t steps[AXIS_COUNT];
    if (const ResultCode result = takeOverForDisplacement(by, head, steps); result != RESULT_OK)
        return result;
    const ResultCode result = beginAndDrive(
        MotionBegin::User, head, {relativeCommand(steps[PAN]), relativeCommand(steps[TILT])}, targetOf(head, by));
    saveStepsArm();
    return result;
}

ResultCode moveHeadTo(int32_t xCoord, int32_t yCoord)
{
    int32_t target[AXIS_COUNT];
    if (!targetSteps(xCoord, yCoord, target))
        return ERR_PARAM;
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    const MotionStartScope start;
    HeadStatus head{};
    if (const ResultCode result = motionTakeOver(head); result != RESULT_OK)
        return result;
    const ResultCode result = beginAndDrive(MotionBegin::User, head, targetCommands(head, target[PAN], target[TILT]));
    saveStepsArm();
    return result;
}

ResultCode stopHead()
{
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    const MotionStartScope halting; // the poll would take the rest for the motion's own end
    const ResultCode result = motionHalt();
    motionSettle(MotionSettle::Stop, MotionOutcome::Stopped);
    motionRecordSend();
    saveStepsArm();
    return result;
}

void ubusMoveMotor(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    serveNumbers(call, coordPolicy, moveHead);
}

void ubusMoveMotorTo(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    serveNumbers(call, coordPolicy, moveHeadTo);
}

void ubusStopMotorRotate(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    replyCode(call, stopHead());
}
