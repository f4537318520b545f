#include "motion/step.h"

#include "core/log.h"
#include "core/worker.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <sys/prctl.h>
#include <time.h>

namespace {

constexpr timespec TICK{0, NS_PER_MS};

/// The direction of travel in a range of degrees, both ends included: +1 toward the upper limit, -1 toward the lower.
struct StepSector {
    int32_t from;
    int32_t to;
    int32_t sense[AXIS_COUNT];
};

constexpr StepSector stepSectors[] = {
    {0, 45, {1, 0}},     {46, 90, {0, 1}},    {91, 134, {0, 1}},   {135, 180, {-1, 0}},
    {181, 225, {-1, 0}}, {226, 270, {0, -1}}, {271, 314, {0, -1}}, {315, 359, {1, 0}},
};

const StepSector* sectorOf(int32_t direction)
{
    for (const StepSector& sector : stepSectors)
        if (direction >= sector.from && direction <= sector.to)
            return &sector;
    return nullptr;
}

/// What sends an axis to its limit in a sense; false when it is to move and stands there.
bool limitCommand(AxisIndex axis, int32_t sense, const MotorStatus& status, MotorCommand& out)
{
    const int32_t flippedSense = flipSign(axis) * sense;
    out = {};
    if (flippedSense == 0)
        return true;
    const int32_t limit = coordToSteps(axis, flippedSense > 0 ? CoordLimits[axis].high : CoordLimits[axis].low);
    out = relativeCommand(targetCommand(status, limit).steps);
    return out.steps != 0;
}

/// One tick. @return false when the step is over, whoever ended it.
bool stepTick(uint32_t generation)
{
    LockGuard hold(gContext.motion.MotionLock);
    if (gContext.motion.stepMoveGeneration.load() != generation)
        return false; // cancelled: a stop now could end the motion of whoever cancelled it
    if (gContext.motion.stepMoveRemaining > 1 && !workersStopping()) {
        --gContext.motion.stepMoveRemaining;
        return true;
    }
    (void)motorStop(PAN); // an axis that refuses runs on to its limit
    (void)motorStop(TILT);
    stepMoveClear();
    return false;
}

void* stepMoveThread(void* argument)
{
    const WorkerScope scope(WorkerEntry::Adopt);
    const auto generation = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
    // A daemon that ends meanwhile waits for this thread: the head, which runs already, is stopped all the same.
    if (scope.entered() && !motionBeginStep(generation))
        return nullptr;
    (void)prctl(PR_SET_TIMERSLACK, 1); // the default, 50 us a tick, would lengthen every step by a twentieth
    do
        nanosleep(&TICK, nullptr);
    while (stepTick(generation));
    return nullptr;
}

ResultCode startStep(int32_t direction, const MotorCommand& pan, const MotorCommand& tilt)
    REQUIRES(gContext.motion.MotionLock)
{
    MotorStatus panNow{};
    MotorStatus tiltNow{};
    if (const ResultCode result = motorReadStatus(panNow, tiltNow); result != RESULT_OK)
        return result;
    if (panNow.running != 0 || tiltNow.running != 0) {
        if (const ResultCode result = motorStopBoth(); result != RESULT_OK)
            return result;
    }
    // The requests go out before the thread's begin step, so that nothing is pending in between.
    if (const ResultCode result = driveAxes(pan, tilt); result != RESULT_OK)
        return result;
    gContext.motion.stepMoveDirection = direction;
    gContext.motion.stepMoveRemaining = gContext.motion.stepSustainTicks.load();
    gContext.motion.stepMoveActive = 1;
    const uint32_t generation = gContext.motion.stepMoveGeneration.fetch_add(1) + 1;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a number is all that the thread needs, and it fits
    if (workerStart(stepMoveThread, reinterpret_cast<void*>(static_cast<uintptr_t>(generation))) == 0)
        return RESULT_OK;
    stepMoveClear();
    return ERR_DEVICE;
}

/// Turns the step under way into another direction. `turned`: its move requests were sent.
ResultCode turnStep(const MotorCommand& pan, const MotorCommand& tilt, bool& turned)
    REQUIRES(gContext.motion.MotionLock)
{
    const ResultCode panStopped = motorStop(PAN);
    const ResultCode tiltStopped = motorStop(TILT);
    if (panStopped != RESULT_OK || tiltStopped != RESULT_OK)
        return ERR_DEVICE;
    turned = true;
    return driveAxes(pan, tilt);
}

/// Starts a step, or goes on with the one under way, whose thread then counts anew. `turned`: move
/// requests have sent it another way.
ResultCode startOrContinueStep(int32_t direction, const MotorCommand& pan, const MotorCommand& tilt, bool& turned)
{
    LockGuard hold(gContext.motion.MotionLock);
    if (gContext.motion.stepMoveActive == 0)
        return startStep(direction, pan, tilt);
    if (gContext.motion.stepMoveDirection != direction) {
        if (const ResultCode result = turnStep(pan, tilt, turned); result != RESULT_OK)
            return result;
    }
    gContext.motion.stepMoveDirection = direction;
    gContext.motion.stepMoveRemaining = gContext.motion.stepSustainTicks.load();
    return RESULT_OK;
}

} // namespace

ResultCode stepHead(int32_t direction)
{
    const StepSector* sector = sectorOf(direction);
    if (!sector)
        return ERR_PARAM;
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    MotorStatus pan{};
    MotorStatus tilt{};
    if (const ResultCode result = motorReadStatus(pan, tilt); result != RESULT_OK)
        return result;
    MotorCommand panCommand{};
    MotorCommand tiltCommand{};
    if (!limitCommand(PAN, sector->sense[PAN], pan, panCommand) ||
        !limitCommand(TILT, sector->sense[TILT], tilt, tiltCommand))
        return ERR_NO_TRAVEL;
    // The poll must not take the rest between a turn's stops and its move requests for the end. It may have found the
    // end before, at the limit; then the turned step is a motion of its own, and its thread has made its begin step
    // already.
    bool turned = false;
    motionStarting();
    const ResultCode result = startOrContinueStep(direction, panCommand, tiltCommand, turned);
    motionStarted();
    if (turned) {
        motionBegin(MotionBegin::Step);
        motionStarted();
    }
    if (result == RESULT_OK)
        saveStepsArm();
    return result;
}

void ubusMoveMotorStep(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    serveNumbers(call, stepPolicy, stepHead);
}
