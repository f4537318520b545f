#include "motor/motion_state.h"

#include "motor/position_store.h"
#include "ubus/notify.h"

namespace {

// A tick of the status poll reads the axes first and decides under MotionStateLock afterwards. In between a motion may
// begin, and a motion that has begun rests until its move requests are sent; neither may be taken for the motion's end.
// So startsSeen counts: its low byte how many begin steps have not sent their requests yet, the rest every begin and
// every start. A tick settles only if nothing is pending and nothing has changed since before it read the axes.
constexpr uint32_t START_PENDING = 1;
constexpr uint32_t START_EVENT = 0x100;
constexpr uint32_t START_PENDING_MASK = 0xFF;
constexpr uint32_t TOUR_PENDING = 0x80; // the tour's own, of which there is one at most

void startOpened()
{
    gContext.motion.startsSeen.fetch_add(START_EVENT + START_PENDING);
}

void startClosed()
{
    gContext.motion.startsSeen.fetch_add(START_EVENT - START_PENDING);
}

bool startPending(uint32_t seen)
{
    return (seen & START_PENDING_MASK) != 0;
}

/// Whether a motion of another thread than the event loop's is about to start, or has just been started by a tour: one
/// that no halt has taken over.
bool othersMotion() REQUIRES(gContext.motion.MotionStateLock)
{
    if ((gContext.motion.startsSeen.load() & START_PENDING_MASK & ~TOUR_PENDING) != 0)
        return true;
    return gContext.motion.motion_active.load() == 1 && gContext.motion.motion_origin.load() == ORIGIN_TOUR &&
           gContext.motion.tourTicket == tourTicketNow();
}

/// The moving transition from rest. @return false while a motion is under way: it keeps its origin and gets no second
/// notification.
bool announceFromRest(int32_t origin) REQUIRES(gContext.motion.MotionStateLock)
{
    if (gContext.motion.motion_active.load() != 0)
        return false;
    gContext.motion.motion_origin.store(origin);
    motorNotifyState(NOTIFY_MOVING, origin);
    gContext.motion.motion_active.store(1);
    return true;
}

void countAsUserMotion() REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.user_moved_recently.store(1);
    gContext.motion.tourCurrentPresetId.store(0);
}

void beginUser() REQUIRES(gContext.motion.MotionStateLock)
{
    if (announceFromRest(ORIGIN_USER))
        countAsUserMotion();
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
    gContext.motion.tourCurrentPresetId.store(0);
}

void beginPreset() REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.user_moved_recently.store(1);
    if (announceFromRest(ORIGIN_USER))
        gContext.motion.tourCurrentPresetId.store(0);
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

void userQuietStart() REQUIRES(gContext.motion.MotionStateLock)
{
    gContext.motion.quietPeriods.fetch_add(1);
    timerStart(&gContext.timers.usrMoveStopTimer, USR_MOVE_STOP_NS, USR_MOVE_STOP_NS);
}

void scanQuietStart() REQUIRES(gContext.motion.MotionStateLock)
{
    if (gContext.motion.scanStepDone.load() != 0)
        return;
    gContext.motion.quietPeriods.fetch_add(1);
    timerStart(&gContext.timers.scanMoveStopTimer, SCAN_MOVE_STOP_NS, SCAN_MOVE_STOP_NS);
}

void settlePolled() REQUIRES(gContext.motion.MotionStateLock)
{
    if (gContext.motion.motion_active.load() != 1)
        return;
    settleActive();
    if (gContext.motion.user_moved_recently.load() != 0)
        userQuietStart();
    scanQuietStart();
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
    return motorStopBoth();
}

ResultCode motionHaltIfRunning(const MotorStatus& pan, const MotorStatus& tilt)
{
    if (pan.running != 0 || tilt.running != 0)
        return motionHalt();
    stepMoveCancel();
    return RESULT_OK;
}

ResultCode motionTakeOver(MotorStatus& pan, MotorStatus& tilt)
{
    if (const ResultCode result = motorReadStatus(pan, tilt); result != RESULT_OK)
        return result;
    return motionHaltIfRunning(pan, tilt);
}

void motionBegin(MotionBegin variant)
{
    {
        LockGuard hold(gContext.motion.MotionStateLock);
        startOpened();
        switch (variant) {
        case MotionBegin::User:
        case MotionBegin::Step:
            beginUser();
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
    if (variant != MotionBegin::Step)
        stepMoveCancel(); // again: a tour's step may have begun since the halt
    // Armed with the lock released: the poll takes it, and a notification can keep it for seconds.
    if (variant != MotionBegin::Calibration)
        timerStart(&gContext.timers.statusPollTimer, STATUS_POLL_NS, STATUS_POLL_NS);
}

bool motionBeginStep(uint32_t generation)
{
    {
        // Asked under the lock: whoever cancels the step and then begins or settles finds it begun, or keeps it out.
        LockGuard hold(gContext.motion.MotionStateLock);
        if (gContext.motion.stepMoveGeneration.load() != generation)
            return false;
        // Nothing is pending once the lock is free: the step's requests went out before, and a `stop` that cancels it
        // from now on settles it.
        gContext.motion.startsSeen.fetch_add(START_EVENT);
        beginUser();
        savesAllowAtRest();
    }
    timerStart(&gContext.timers.statusPollTimer, STATUS_POLL_NS, STATUS_POLL_NS);
    return true;
}

void motionStarting()
{
    startOpened();
}

uint32_t tourTicketNow()
{
    return gContext.motion.stepMoveGeneration.load();
}

bool tourMayDrive(uint32_t ticket)
{
    return gContext.motion.stepMoveActive == 0 && tourTicketNow() == ticket &&
           refusedBy(CALIBRATING | LENS_MASK | PANORAMA) == RESULT_OK;
}

bool motionBeginTour(uint32_t ticket, bool toPreset)
{
    {
        LockGuard hold(gContext.motion.MotionStateLock);
        if (tourTicketNow() != ticket || gContext.motion.motion_active.load() != 0 ||
            gContext.motion.user_moved_recently.load() != 0 || gContext.motion.track_back_done.load() == 0 ||
            refusedBy(CALIBRATING | LENS_MASK | PANORAMA) != RESULT_OK)
            return false;
        gContext.motion.startsSeen.fetch_add(START_EVENT + TOUR_PENDING);
        gContext.motion.tourTicket = ticket;
        (void)announceFromRest(ORIGIN_TOUR);
        if (!toPreset)
            gContext.motion.tourCurrentPresetId.store(0);
    }
    timerStart(&gContext.timers.statusPollTimer, STATUS_POLL_NS, STATUS_POLL_NS);
    return true;
}

void motionTourStarted(bool overtaken)
{
    if (overtaken) {
        LockGuard hold(gContext.motion.MotionStateLock);
        if (gContext.motion.motion_active.load() != 0)
            gContext.motion.user_moved_recently.store(1); // else `stop` has settled the motion as a user's
    }
    gContext.motion.startsSeen.fetch_add(START_EVENT - TOUR_PENDING);
}

void motionStarted()
{
    startClosed();
}

ResultCode driveAxes(const MotorCommand& pan, const MotorCommand& tilt)
{
    const ResultCode panResult = motorMove(PAN, pan);
    const ResultCode tiltResult = motorMove(TILT, tilt);
    return panResult != RESULT_OK ? panResult : tiltResult;
}

ResultCode beginAndDrive(MotionBegin variant, const MotorCommand& pan, const MotorCommand& tilt)
{
    motionBegin(variant);
    const ResultCode result = driveAxes(pan, tilt);
    motionStarted();
    return result;
}

void quietPeriodsStart()
{
    userQuietStart();
    scanQuietStart();
}

void motionSettle(MotionSettle variant)
{
    LockGuard hold(gContext.motion.MotionStateLock);
    switch (variant) {
    case MotionSettle::Stop:
        if (othersMotion())
            break; // the poll stays, and settles that one
        timerStop(&gContext.timers.statusPollTimer);
        if (gContext.motion.motion_active.load() == 1)
            settleByUser();
        break;
    case MotionSettle::Calibration:
        startClosed();
        settleByUser();
        break;
    }
}

void motorStatusPoll(void*)
{
    const uint32_t seen = gContext.motion.startsSeen.load();
    if (startPending(seen))
        return;
    MotorStatus pan{};
    MotorStatus tilt{};
    if (motorReadStatus(pan, tilt) != RESULT_OK || pan.running != 0 || tilt.running != 0)
        return;
    // Whoever holds the lock may be sending a notification for seconds: the next tick asks again, and none piles up.
    if (!gContext.motion.MotionStateLock.tryLock())
        return;
    if (gContext.motion.startsSeen.load() == seen) {
        timerStop(&gContext.timers.statusPollTimer);
        settlePolled();
    }
    gContext.motion.MotionStateLock.unlock();
}
