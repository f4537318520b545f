#include "motion/track.h"

#include "core/log.h"
#include "motion/displacement.h"
#include "motion/stored_switch.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <algorithm>

namespace {

int32_t allowedSpeed(AxisIndex axis, int32_t speed)
{
    return std::clamp(speed, 1, gContext.axes[axis].max_speed);
}

/// Brings the head back now that nobody tracks any more, unless it is on its way already.
ResultCode leaveTracking()
{
    MotorStatus pan{};
    MotorStatus tilt{};
    if (const ResultCode result = motorReadStatus(pan, tilt); result != RESULT_OK)
        return result;
    const bool running = pan.running != 0 || tilt.running != 0;
    const int32_t origin = gContext.motion.motion_origin.load();
    if (running && origin == ORIGIN_TRACK) {
        if (const ResultCode result = motorStopBoth(); result != RESULT_OK)
            return result;
    }
    if (!running || origin != ORIGIN_RETURN)
        (void)moveToLastPostion(); // reported there; the switch itself has been taken over
    return RESULT_OK;
}

} // namespace

ResultCode trackTarget(int32_t dx, int32_t dy, int32_t xSpeed, int32_t ySpeed)
{
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    MotorStatus pan{};
    MotorStatus tilt{};
    if (const ResultCode result = motorReadStatus(pan, tilt); result != RESULT_OK)
        return result;
    if (pan.running != 0 || tilt.running != 0)
        return ERR_CALIBRATING;
    const int32_t origin = gContext.motion.motion_origin.load();
    // Also where a user's command took over an earlier tracking motion, whose origin stayed.
    if (origin == ORIGIN_USER || origin == ORIGIN_TOUR || gContext.position.savePending.load())
        saveNowAndDisarm();
    int32_t steps[AXIS_COUNT];
    if (const ResultCode result = displacementSteps({flipped(PAN, dx), flipped(TILT, dy)}, pan, tilt, steps);
        result != RESULT_OK)
        return result;
    stepMoveCancel(); // one whose axis stands at the limit ticks on
    return beginAndDrive(MotionBegin::Track, relativeCommand(steps[PAN], allowedSpeed(PAN, xSpeed)),
                         relativeCommand(steps[TILT], allowedSpeed(TILT, ySpeed)));
}

int32_t loadTargetTrackConfig()
{
    gContext.track.targetTrackEnabled.store(storedSwitchOn(UCI_TARGET_TRACK, "target_track_info") ? 1 : 0);
    return 0;
}

void ubusTargetTrack(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    serveNumbers(call, trackPolicy, trackTarget);
}

void ubusTargetTrackBack(const Call& call)
{
    replyCode(call, moveToLastPostion());
}

void ubusReloadTargetTrackConfig(const Call& call)
{
    const bool wasEnabled = gContext.track.targetTrackEnabled.load() == 1;
    (void)loadTargetTrackConfig(); // always 0
    const bool switchedOff = wasEnabled && gContext.track.targetTrackEnabled.load() == 0;
    if (!switchedOff || refusedBy(CALIBRATING | LENS_MASK) != RESULT_OK)
        return replyErrCode(call, RESULT_OK);
    if (const ResultCode busy = refusedBy(PANORAMA); busy != RESULT_OK)
        return replyErrCode(call, busy);
    replyErrCode(call, leaveTracking());
}
