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
    int32_t steps[AXIS_COUNT];
    if (const ResultCode result = takeOverForDisplacement({flipped(PAN, dx), flipped(TILT, dy)}, steps);
        result != RESULT_OK)
        return result;
    const ResultCode result =
        beginAndDrive(MotionBegin::User, {relativeCommand(steps[PAN]), relativeCommand(steps[TILT])});
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
    HeadStatus head{};
    if (const ResultCode result = motionTakeOver(head); result != RESULT_OK)
        return result;
    const ResultCode result = beginAndDrive(MotionBegin::User, targetCommands(head, target[PAN], target[TILT]));
    saveStepsArm();
    return result;
}

ResultCode stopHead()
{
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    const ResultCode result = motionHalt();
    motionSettle(MotionSettle::Stop);
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
