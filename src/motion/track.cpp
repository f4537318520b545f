#include "motion/track.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "motion/displacement.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <algorithm>
#include <initializer_list>

namespace {

int32_t allowedSpeed(AxisIndex axis, int32_t speed)
{
    return std::clamp(speed, 1, gContext.axes[axis].max_speed);
}

ResultCode readStatusLogged(HeadStatus& head, LogSite caller)
{
    if (motorReadStatus(head) == RESULT_OK)
        return RESULT_OK;
    logWrite(LOG_LEVEL_ERROR, caller, "get status from driver failed.\n");
    return ERR_DEVICE;
}

/// Reads the head's status, at rest: halts a tracking motion. A failed read is logged under the caller's name.
ResultCode haltTracking(HeadStatus& head, LogSite caller = logSite())
{
    if (const ResultCode result = readStatusLogged(head, caller); result != RESULT_OK || !head.running())
        return result;
    if (gContext.motion.motion_origin.load() != ORIGIN_TRACK)
        return ERR_CALIBRATING;
    if (const ResultCode halted = motionHalt(); halted != RESULT_OK)
        return halted;
    return readStatusLogged(head, caller);
}

/// Brings the head back after the end of tracking, unless it is on its way already.
ResultCode leaveTracking()
{
    const MotionStartScope start;
    HeadStatus head{};
    if (const ResultCode result = motorReadStatus(head); result != RESULT_OK)
        return result;
    const int32_t origin = gContext.motion.motion_origin.load();
    if (head.running() && origin == ORIGIN_TRACK) {
        const ResultCode result = motorStopBoth();
        motionRecordHalted(result);
        if (result != RESULT_OK)
            return result;
    }
    if (!head.running() || origin != ORIGIN_RETURN)
        (void)moveToLastPostion(); // logged there; the switch itself has been taken over
    return RESULT_OK;
}

} // namespace

ResultCode trackTarget(int32_t dx, int32_t dy, int32_t xSpeed, int32_t ySpeed)
{
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    HeadStatus head{};
    if (const ResultCode result = motorReadStatus(head); result != RESULT_OK)
        return result;
    if (head.running())
        return ERR_CALIBRATING;
    const int32_t origin = gContext.motion.motion_origin.load();
    // Also where a user's command took over an earlier tracking motion, whose origin stayed.
    if (origin == ORIGIN_USER || origin == ORIGIN_TOUR || gContext.position.savePending.load())
        saveNowAndDisarm();
    const Displacement by{flipped(PAN, dx), flipped(TILT, dy)};
    int32_t steps[AXIS_COUNT];
    if (const ResultCode result = displacementSteps(by, head, steps); result != RESULT_OK)
        return result;
    const MotionStartScope start;
    stepMoveCancel(); // one whose axis is at the limit ticks on
    return beginAndDrive(MotionBegin::Track, head,
                         {relativeCommand(steps[PAN], allowedSpeed(PAN, xSpeed)),
                          relativeCommand(steps[TILT], allowedSpeed(TILT, ySpeed))},
                         targetOf(head, by));
}

ResultCode moveToLastPostion()
{
    motionEndTracking();
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    const StoredPosition target = storedPosition();
    for (const AxisIndex axis : {PAN, TILT}) {
        if (!target.axes[axis].read) {
            LOG_ERROR("error to get option %s.steps\n", gContext.axes[axis].section);
            return ERR_DEVICE;
        }
    }
    const MotionStartScope start;
    HeadStatus head{};
    if (const ResultCode result = haltTracking(head); result != RESULT_OK)
        return result;
    if (gContext.motion.motion_origin.load() == ORIGIN_USER) {
        LOG_TRACE("motor just moved by user, need not move to last position.\n");
        return RESULT_OK;
    }
    const HeadCommand command = targetCommands(head, target.axes[PAN].steps, target.axes[TILT].steps);
    if (command.pan.steps == 0 && command.tilt.steps == 0) {
        LOG_TRACE("here is the same as last postion\n");
        return RESULT_OK;
    }
    stepMoveCancel(); // one whose axis is at the limit ticks on
    const ResultCode result = beginAndDrive(MotionBegin::Return, head, command);
    if (result != RESULT_OK)
        LOG_ERROR("move error\n");
    return result;
}

void loadTargetTrackConfig()
{
    gContext.track.targetTrackEnabled.store(storedSwitchOn(UCI_TARGET_TRACK, "target_track_info") ? 1 : 0);
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
    loadTargetTrackConfig();
    const bool switchedOff = wasEnabled && gContext.track.targetTrackEnabled.load() == 0;
    if (!switchedOff || refusedBy(CALIBRATING | LENS_MASK) != RESULT_OK)
        return replyErrCode(call, RESULT_OK);
    if (const ResultCode busy = refusedBy(PANORAMA); busy != RESULT_OK)
        return replyErrCode(call, busy);
    replyErrCode(call, leaveTracking());
}
