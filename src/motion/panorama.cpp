#include "motion/panorama.h"

#include "motion/displacement.h"
#include "motion/move.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

namespace {

constexpr int32_t START_X = -150; // coordinate units, image-flip sign not yet applied
constexpr int32_t START_Y = -10;

ResultCode goToStart()
{
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK); busy != RESULT_OK)
        return busy;
    int32_t target[AXIS_COUNT];
    if (!targetSteps(START_X, START_Y, target))
        return ERR_PARAM;
    const MotionStartScope start; // a mask off that is halted here has not come to rest, so nothing is stored
    HeadStatus head{};
    if (const ResultCode result = motionTakeOver(head); result != RESULT_OK)
        return result;
    saveNowAndDisarm();
    return beginAndDrive(MotionBegin::User, head, fullSpeedCommands(head, target[PAN], target[TILT]));
}

} // namespace

ResultCode panoramaStart()
{
    gContext.panorama.panoramaRunning.store(1); // before the checks: from here on the tour begins no motion
    const ResultCode result = goToStart();
    if (result != RESULT_OK)
        gContext.panorama.panoramaRunning.store(0);
    return result;
}

ResultCode panoramaMove(int32_t dx, int32_t dy)
{
    const Displacement by{flipped(PAN, dx), flipped(TILT, dy)};
    if (!withinLimits(PAN, by.pan) || !withinLimits(TILT, by.tilt))
        return ERR_PARAM;
    const MotionStartScope start;
    HeadStatus head{};
    int32_t steps[AXIS_COUNT];
    if (const ResultCode result = takeOverForDisplacement(by, head, steps); result != RESULT_OK)
        return result;
    return beginAndDrive(MotionBegin::User, head,
                         {relativeCommand(steps[PAN], gContext.axes[PAN].max_speed),
                          relativeCommand(steps[TILT], gContext.axes[TILT].max_speed)},
                         targetOf(head, by));
}

void ubusStartPanorama(const Call& call)
{
    replyCode(call, panoramaStart());
}

void ubusMovePanorama(const Call& call)
{
    serveNumbers(call, coordPolicy, panoramaMove);
}

void ubusStopPanorama(const Call& call)
{
    const MotionStartScope start;
    HeadStatus head{};
    ResultCode result = motionTakeOver(head);
    if (result == RESULT_OK) {
        const StoredPosition target = storedPositionLogged();
        result = beginAndDrive(MotionBegin::User, head,
                               fullSpeedCommands(head, target.axes[PAN].steps, target.axes[TILT].steps));
    }
    gContext.panorama.panoramaRunning.store(0);
    replyCode(call, result);
}
