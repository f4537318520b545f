#include "motor/motion_state.h"

#include "core/lens_mask_library.h"
#include "core/timer.h"
#include "motor/position_store.h"
#include "motor/quiet_period.h"
#include "ubus/notify.h"

namespace {

/// Whether the motion is a tour's that no command has taken over yet.
bool isToursOwn() REQUIRES(gContext.motion.MotionStateLock)
{
    return gContext.motion.motion_active.load() == 1 && gContext.motion.motion_origin.load() == ORIGIN_TOUR &&
           gContext.motion.tourTicket == gContext.motion.stepMoveGeneration.load();
}

void countAsUserMotion() REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.user_moved_recently.store(1);
    tourPresetReset();
}

void beginLensMask() REQUIRES(gContext.motion.MotionStateLock)
{
    (void)announceFromRest(ORIGIN_USER);
    countAsUserMotion(); // also when it takes over another's motion
}

void beginTrack() REQUIRES(gContext.motion.MotionStateLock)
{
    if (!announceFromRest(ORIGIN_TRACK))
        return;
    gContext.motion.track_back_done.store(0);
    tourPresetReset();
}

void beginPreset() REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.user_moved_recently.store(1);
    if (announceFromRest(ORIGIN_USER))
        tourPresetReset();
    else
        gContext.motion.motion_origin.store(ORIGIN_USER);
}

void settleActive() REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.motion_active.store(0);
    savesHeadRests();
    const int32_t origin = gContext.motion.motion_origin.load();
    motorNotifyState(NOTIFY_IDLE, origin);
    if (origin != ORIGIN_TOUR)
        countAsUserMotion();
}

void beginCalibration() REQUIRES(gContext.motion.MotionStateLock)
{
    // The motion that the calibration has halted ends here: its poll finds no rest while the axes calibrate.
    if (gContext.motion.motion_active.load() != 0)
        settleActive();
    timerStop(&gContext.timers.statusPollTimer);
    (void)announceFromRest(ORIGIN_USER);
    countAsUserMotion();
}

void settleByUser() REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.motion_origin.store(ORIGIN_USER);
    motorNotifyState(NOTIFY_IDLE, ORIGIN_USER);
    gContext.motion.motion_active.store(0);
    savesHeadRests();
    countAsUserMotion();
    quietPeriodsStart();
}

MotionSource sourceOf(MotionBegin variant)
{
    switch (variant) {
    case MotionBegin::Track:
        return MotionSource::Track;
    case MotionBegin::Return:
        return MotionSource::Return;
    case MotionBegin::Calibration:
        return MotionSource::Calibration;
    case MotionBegin::User:
    case MotionBegin::LensMask:
    case MotionBegin::Preset:
        break;
    }
    return MotionSource::User;
}

} // namespace

ResultCode refusedBy(uint32_t reasons)
{
    if ((reasons & CALIBRATING) != 0 && gContext.motion.calibrating.load() != 0)
        return ERR_CALIBRATING;
    if ((reasons & LENS_MASK) != 0 && lensMaskEnabled() != 0)
        return ERR_LENS_MASK;
    if ((reasons & PANORAMA) != 0 && gContext.panorama.panoramaRunning.load() != 0)
        return ERR_PANORAMA;
    return RESULT_OK;
}

void stepMoveCancel()
{
    LockGuard hold(gContext.motion.MotionLock);
    if (gContext.motion.stepMoveActive == 1)
        stepMoveClear();
    else
        gContext.motion.stepMoveGeneration.fetch_add(1); // a tour's step that is about to drive learns it from this
}

void stepMoveClear()
{
    gContext.motion.stepMoveActive = 0;
    gContext.motion.stepMoveDirection = 0;
    gContext.motion.stepMoveRemaining = 0;
    gContext.motion.stepMoveGeneration.fetch_add(1);
}

ResultCode motionHalt()
{
    stepMoveCancel();
    const ResultCode result = motorStopBoth();
    motionRecordHalted(result);
    return result;
}

ResultCode motionHaltIfRunning(const HeadStatus& head)
{
    if (head.running())
        return motionHalt();
    stepMoveCancel();
    return RESULT_OK;
}

ResultCode motionTakeOver(HeadStatus& head)
{
    if (const ResultCode result = motorReadStatus(head); result != RESULT_OK)
        return result;
    return motionHaltIfRunning(head);
}

void motionBegin(MotionBegin variant)
{
    {
        LockGuard hold(gContext.motion.MotionStateLock);
        switch (variant) {
        case MotionBegin::User:
            announceUsersMotion();
            break;
        case MotionBegin::LensMask:
            beginLensMask();
            break;
        case MotionBegin::Track:
            beginTrack();
            break;
        case MotionBegin::Return:
            (void)announceFromRest(ORIGIN_RETURN);
            break;
        case MotionBegin::Preset:
            beginPreset();
            break;
        case MotionBegin::Calibration:
            beginCalibration();
            break;
        }
        if (variant != MotionBegin::LensMask && lensMaskEnabled() == 0)
            savesAllowAtRest();
    }
    stepMoveCancel(); // again: a tour's step may have begun since the halt
    if (variant != MotionBegin::Calibration)
        statusPollStart();
}

void motionStarting()
{
    gContext.motion.motionsBegun.fetch_add(1);
}

void motionStarted()
{
    gContext.motion.motionsStarted.fetch_add(1);
}

ResultCode beginAndDrive(MotionBegin variant, const HeadStatus& before, const HeadCommand& command)
{
    return beginAndDrive(variant, before, command, targetOf(before, command));
}

ResultCode beginAndDrive(MotionBegin variant, const HeadStatus& before, const HeadCommand& command,
                         const MotionTarget& target)
{
    motionBegin(variant);
    const ResultCode result = driveAxes(command);
    motionRecordBegin(sourceOf(variant), target, before); // after the requests, which nobody's notification delays
    motionRecordDriven(result);
    motionRecordSend();
    return result;
}

void motionSettle(MotionSettle variant, MotionOutcome outcome)
{
    const MotionPlace here = motionPlaceNow();
    LockGuard hold(gContext.motion.MotionStateLock);
    switch (variant) {
    case MotionSettle::Stop:
        if (isToursOwn())
            break; // the poll stays, and settles that one
        motionRecordEnd(outcome, here);
        timerStop(&gContext.timers.statusPollTimer);
        if (gContext.motion.motion_active.load() == 1)
            settleByUser();
        break;
    case MotionSettle::Calibration:
        motionRecordEnd(outcome, here);
        motionStarted();
        settleByUser();
        break;
    }
}

void motionSettlePolled()
{
    timerStop(&gContext.timers.statusPollTimer);
    if (gContext.motion.motion_active.load() != 1)
        return;
    settleActive();
    quietPeriodsStart();
}

void motionEndTracking()
{
    LockGuard hold(gContext.motion.MotionStateLock);
    if (gContext.motion.track_back_done.load() != 0)
        return;
    gContext.motion.track_back_done.store(1);
    countAsUserMotion();
    quietPeriodsStart();
}

bool announceFromRest(int32_t origin)
{
    if (gContext.motion.motion_active.load() != 0)
        return false;
    gContext.motion.motion_origin.store(origin);
    motorNotifyState(NOTIFY_MOVING, origin);
    gContext.motion.motion_active.store(1);
    return true;
}

void announceUsersMotion()
{
    if (announceFromRest(ORIGIN_USER))
        countAsUserMotion();
}

void tourPresetReset()
{
    gContext.motion.tourCurrentPresetId.store(0);
}

void statusPollStart()
{
    timerStart(&gContext.timers.statusPollTimer, STATUS_POLL_NS, STATUS_POLL_NS);
}
