#include "motion/step.h"

#include "core/log.h"
#include "core/worker.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_args.h"

#include <sys/prctl.h>
#include <time.h>

#include <initializer_list>
#include <limits>

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

/// The command of a step from where the head is: to the limit in the sector's direction.
/// @return ERR_NO_TRAVEL when the axis that is to move is there already.
ResultCode limitCommand(const StepSector& sector, const HeadStatus& head, HeadCommand& out)
{
    MotorCommand axes[AXIS_COUNT] = {};
    for (const AxisIndex axis : {PAN, TILT}) {
        const int32_t sense = flipSign(axis) * sector.sense[axis];
        if (sense == 0)
            continue;
        const int32_t limit = coordToSteps(axis, sense > 0 ? CoordLimits[axis].high : CoordLimits[axis].low);
        axes[axis] = relativeCommand(targetCommand(head[axis], limit).steps);
        if (axes[axis].steps == 0)
            return ERR_NO_TRAVEL;
    }
    out = {axes[PAN], axes[TILT]};
    return RESULT_OK;
}

/// Stops pan and then tilt, both in any case. @return ERR_DEVICE when either failed.
ResultCode stopEach()
{
    const ResultCode panResult = motorStop(PAN);
    const ResultCode tiltResult = motorStop(TILT);
    return panResult != RESULT_OK ? panResult : tiltResult;
}

/// The begin step: a user's, of a motion whose requests have been sent before.
void announceStep() REQUIRES(gContext.motion.MotionStateLock)
{
    // It ends under the lock: a `stop` that cancels the step from then on settles the motion.
    const MotionStartScope start;
    announceUsersMotion();
    savesAllowAtRest();
}

/// The begin step of the step's thread. @return false, with nothing begun, once the step has been cancelled or has
/// ended.
bool beginStep(uint32_t generation) EXCLUDES(gContext.motion.MotionStateLock)
{
    {
        // Compared under the lock: a command that cancels the step begins or settles before this, or after it.
        LockGuard hold(gContext.motion.MotionStateLock);
        if (gContext.motion.stepMoveGeneration.load() != generation)
            return false;
        announceStep();
    }
    statusPollStart();
    return true;
}

/// One tick. @return false when the step is over, whoever ended it.
bool stepTick(uint32_t generation)
{
    LockGuard hold(gContext.motion.MotionLock);
    if (gContext.motion.stepMoveGeneration.load() != generation)
        return false; // cancelled: a stop now could end the motion of the command that did it
    if (gContext.motion.stepMoveRemaining > 1 && !workersStopping()) {
        --gContext.motion.stepMoveRemaining;
        return true;
    }
    motionRecordDriven(stopEach()); // an axis that refuses runs on to its limit
    stepMoveClear();
    return false;
}

void* stepMoveThread(void* argument)
{
    const WorkerScope scope(WorkerEntry::Adopt);
    const auto generation = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
    // A daemon that ends meanwhile waits for this thread: the head, which runs already, is stopped all the same.
    if (scope.entered() && !beginStep(generation))
        return nullptr;
    (void)prctl(PR_SET_TIMERSLACK, 1); // the default, 50 us a tick, would lengthen every step by a twentieth
    do
        nanosleep(&TICK, nullptr);
    while (stepTick(generation));
    return nullptr;
}

void countAnew(int32_t direction) REQUIRES(gContext.motion.MotionLock)
{
    gContext.motion.stepMoveDirection = direction;
    gContext.motion.stepMoveRemaining = gContext.motion.stepSustainTicks.load();
}

/// A step's motion in the record: it has no target, but may be ended by its axis's limit. Under the lock that its
/// thread takes before it stops the head.
void recordStep(const HeadStatus& head, const HeadCommand& command, ResultCode driven)
    REQUIRES(gContext.motion.MotionLock)
{
    MotionTarget target = targetOf(head, command);
    target.kind = MotionTarget::Kind::Limit;
    for (const AxisIndex axis : {PAN, TILT})
        if (target.steps[axis] == head[axis].position)
            target.steps[axis] = std::numeric_limits<int32_t>::min(); // the other axis reaches nothing
    motionRecordBegin(MotionSource::User, target, head);
    motionRecordDriven(driven);
}

ResultCode startStep(int32_t direction, const HeadStatus& head, const HeadCommand& command)
    REQUIRES(gContext.motion.MotionLock)
{
    HeadStatus now{};
    if (const ResultCode result = motorReadStatus(now); result != RESULT_OK)
        return result;
    if (now.running()) {
        const ResultCode result = motorStopBoth();
        motionRecordHalted(result);
        if (result != RESULT_OK)
            return result;
    }
    // The requests go out before the thread's begin step, so that nothing is pending in between.
    const ResultCode driven = driveAxes(command);
    recordStep(head, command, driven);
    if (driven != RESULT_OK)
        return driven;
    countAnew(direction);
    gContext.motion.stepMoveActive = 1;
    const uint32_t generation = gContext.motion.stepMoveGeneration.fetch_add(1) + 1;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a number is all that the thread needs, and it fits
    if (workerStart(stepMoveThread, reinterpret_cast<void*>(static_cast<uintptr_t>(generation))) == 0)
        return RESULT_OK;
    stepMoveClear();
    motionRecordDriven(ERR_DEVICE);
    return ERR_DEVICE;
}

struct Continued {
    ResultCode result;
    bool turned; // move requests have sent the head another way
};

/// Goes on with the step under way, whose thread then counts anew.
Continued continueStep(int32_t direction, const HeadStatus& head, const HeadCommand& command)
    REQUIRES(gContext.motion.MotionLock)
{
    const bool turns = gContext.motion.stepMoveDirection != direction;
    if (turns) {
        const ResultCode stopped = stopEach();
        motionRecordHalted(stopped);
        if (stopped != RESULT_OK)
            return {stopped, false};
        const ResultCode driven = driveAxes(command);
        recordStep(head, command, driven);
        if (driven != RESULT_OK)
            return {driven, true};
    } else {
        recordStep(head, command, RESULT_OK);
    }
    countAnew(direction);
    return {RESULT_OK, turns};
}

Continued startOrContinueStep(int32_t direction, const HeadStatus& head, const HeadCommand& command)
    EXCLUDES(gContext.motion.MotionLock)
{
    const MotionStartScope start; // a turn's rest between its stops and its move requests is no end
    LockGuard hold(gContext.motion.MotionLock);
    if (gContext.motion.stepMoveActive == 0)
        return {startStep(direction, head, command), false};
    return continueStep(direction, head, command);
}

/// The begin step of a turn. The poll may have found the step's end before, at the limit; then the turned step is a
/// motion of its own, whose thread has made its begin step already.
void beginTurn() EXCLUDES(gContext.motion.MotionStateLock)
{
    {
        LockGuard hold(gContext.motion.MotionStateLock);
        announceStep();
    }
    statusPollStart();
}

} // namespace

ResultCode stepHead(int32_t direction)
{
    const StepSector* sector = sectorOf(direction);
    if (!sector)
        return ERR_PARAM;
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    HeadStatus head{};
    if (const ResultCode result = motorReadStatus(head); result != RESULT_OK)
        return result;
    HeadCommand command{};
    if (const ResultCode result = limitCommand(*sector, head, command); result != RESULT_OK)
        return result;
    const Continued step = startOrContinueStep(direction, head, command);
    if (step.turned)
        beginTurn();
    motionRecordSend();
    statusPollStart(); // which ends the record, also of a step that is cancelled before its thread has begun it
    if (step.result == RESULT_OK)
        saveStepsArm();
    return step.result;
}

void ubusMoveMotorStep(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    serveNumbers(call, stepPolicy, stepHead);
}
