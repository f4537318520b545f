#include "motor/motion_record.h"

#include "core/numbers.h"
#include "motor/coordinates.h"
#include "ubus/bus_adapter.h"

#include <stdlib.h>

namespace {

const char* nameOf(MotionSource source)
{
    switch (source) {
    case MotionSource::User:
        return "user";
    case MotionSource::Track:
        return "track";
    case MotionSource::Return:
        return "return";
    case MotionSource::Tour:
        return "tour";
    case MotionSource::Calibration:
        return "calibration";
    }
    return "";
}

const char* nameOf(MotionOutcome outcome)
{
    switch (outcome) {
    case MotionOutcome::Reached:
        return "reached";
    case MotionOutcome::Limit:
        return "limit";
    case MotionOutcome::Stopped:
        return "stopped";
    case MotionOutcome::Superseded:
        return "superseded";
    case MotionOutcome::Undecided:
    case MotionOutcome::Failed:
        break;
    }
    return "failed";
}

/// Whether two positions are at most one coordinate unit apart: drivers round, and some stop a step short.
bool near(AxisIndex axis, int64_t steps, int64_t others)
{
    const MotorAxis& motor = gContext.axes[axis];
    return llabs(steps - others) <= motor.total_steps / motor.range;
}

/// Whether an axis is at the end of its travel, or of what commands may use of it.
bool atTravelEnd(AxisIndex axis, int64_t position)
{
    return near(axis, position, 0) || near(axis, position, gContext.axes[axis].total_steps) ||
           near(axis, position, coordToSteps(axis, CoordLimits[axis].low)) ||
           near(axis, position, coordToSteps(axis, CoordLimits[axis].high));
}

/// Whether commands cannot take an axis to that position.
bool beyondTravel(AxisIndex axis, int64_t steps)
{
    const int64_t low = coordToSteps(axis, CoordLimits[axis].low);
    const int64_t high = coordToSteps(axis, CoordLimits[axis].high);
    return (steps < low && !near(axis, steps, low)) || (steps > high && !near(axis, steps, high));
}

/// How one axis has ended that rests; Undecided when that is short of its target.
MotionOutcome axisOutcome(AxisIndex axis, int32_t position) REQUIRES(gContext.record.MotionRecordLock)
{
    const int32_t target = gContext.record.target.steps[axis];
    const bool there = near(axis, position, target);
    if (gContext.record.target.kind == MotionTarget::Kind::Limit)
        return there ? MotionOutcome::Limit : MotionOutcome::Reached;
    if (there)
        return MotionOutcome::Reached;
    if (atTravelEnd(axis, position) && (gContext.record.exact || beyondTravel(axis, target)))
        return MotionOutcome::Limit;
    return gContext.record.exact ? MotionOutcome::Undecided : MotionOutcome::Reached;
}

/// How the open motion has ended whose head rests; Undecided when that is short of its target.
MotionOutcome outcomeAtRest(const HeadStatus& head) REQUIRES(gContext.record.MotionRecordLock)
{
    if (gContext.record.outcome != MotionOutcome::Undecided || gContext.record.target.kind == MotionTarget::Kind::None)
        return gContext.record.outcome;
    const MotionOutcome pan = axisOutcome(PAN, head[PAN].position);
    const MotionOutcome tilt = axisOutcome(TILT, head[TILT].position);
    if (pan == MotionOutcome::Undecided || tilt == MotionOutcome::Undecided)
        return MotionOutcome::Undecided;
    return pan == MotionOutcome::Limit ? pan : tilt;
}

void place(MotionEvent& event, int32_t panSteps, int32_t tiltSteps)
{
    event.placed = true;
    event.x = static_cast<int64_t>(stepsToCoord(PAN, panSteps)) * flipSign(PAN);
    event.y = static_cast<int64_t>(stepsToCoord(TILT, tiltSteps)) * flipSign(TILT);
}

void add(const MotionEvent& event) REQUIRES(gContext.record.MotionRecordLock)
{
    const uint32_t waiting = gContext.record.waiting.load();
    if (waiting == MotionRecord::QUEUE_LENGTH)
        return; // cannot be: see QUEUE_LENGTH
    gContext.record.queue[(gContext.record.first + waiting) % MotionRecord::QUEUE_LENGTH] = event;
    gContext.record.waiting.store(waiting + 1);
}

void endOpen(MotionOutcome outcome, uint32_t by, const MotionPlace& at) REQUIRES(gContext.record.MotionRecordLock)
{
    gContext.record.open = false;
    if (!motionSubscribed())
        return;
    MotionEvent event{};
    event.id = gContext.record.id;
    event.outcome = nameOf(outcome);
    event.by = by;
    if (at.known)
        place(event, at.head[PAN].position, at.head[TILT].position);
    add(event);
}

/// Takes the notification that has waited longest. @return false when none waits.
bool take(MotionEvent& event) EXCLUDES(gContext.record.MotionRecordLock)
{
    const LockGuard hold(gContext.record.MotionRecordLock);
    const uint32_t waiting = gContext.record.waiting.load();
    if (waiting == 0)
        return false;
    event = gContext.record.queue[gContext.record.first];
    gContext.record.first = (gContext.record.first + 1) % MotionRecord::QUEUE_LENGTH;
    gContext.record.waiting.store(waiting - 1);
    return true;
}

} // namespace

MotionPlace motionPlaceNow()
{
    MotionPlace here;
    here.known = motionSubscribed() && motionRecordOpen() != 0 && motorReadStatus(here.head) == RESULT_OK;
    return here;
}

MotionTarget targetOf(const HeadStatus& head, const HeadCommand& command)
{
    const auto sum = [&](AxisIndex axis, const MotorCommand& axisCommand) {
        return saturated32(static_cast<int64_t>(head[axis].position) + axisCommand.steps);
    };
    return {MotionTarget::Kind::Place, {sum(PAN, command.pan), sum(TILT, command.tilt)}};
}

void motionRecordBegin(MotionSource source, const MotionTarget& target, const HeadStatus& before)
{
    const LockGuard hold(gContext.record.MotionRecordLock);
    if (gContext.record.open) {
        const MotionOutcome rested = before.running() ? MotionOutcome::Undecided : outcomeAtRest(before);
        // One that a command has halted and left open was halted to make way.
        const bool superseded = rested == MotionOutcome::Undecided || rested == MotionOutcome::Stopped;
        endOpen(superseded ? MotionOutcome::Superseded : rested, superseded ? gContext.record.id + 1 : 0,
                {true, before});
    }
    ++gContext.record.id;
    gContext.record.open = true;
    gContext.record.target = target;
    gContext.record.exact = !before.running();
    gContext.record.outcome = MotionOutcome::Undecided;
    if (!motionSubscribed())
        return;
    MotionEvent event{};
    event.id = gContext.record.id;
    event.begins = true;
    event.origin = nameOf(source);
    if (target.kind == MotionTarget::Kind::Place)
        place(event, target.steps[PAN], target.steps[TILT]);
    add(event);
}

void motionRecordDriven(ResultCode result)
{
    const LockGuard hold(gContext.record.MotionRecordLock);
    if (result != RESULT_OK)
        gContext.record.outcome = MotionOutcome::Failed;
}

void motionRecordHalted(ResultCode result)
{
    const LockGuard hold(gContext.record.MotionRecordLock);
    gContext.record.outcome = result == RESULT_OK ? MotionOutcome::Stopped : MotionOutcome::Failed;
}

void motionRecordEnd(MotionOutcome outcome, const MotionPlace& place)
{
    const LockGuard hold(gContext.record.MotionRecordLock);
    if (gContext.record.open)
        endOpen(gContext.record.outcome == MotionOutcome::Failed ? MotionOutcome::Failed : outcome, 0, place);
}

uint32_t motionRecordOpen()
{
    const LockGuard hold(gContext.record.MotionRecordLock);
    return gContext.record.open ? gContext.record.id : 0;
}

void motionRecordRested(uint32_t id, uint32_t started, const HeadStatus& head)
{
    const LockGuard hold(gContext.record.MotionRecordLock);
    // A command counts its begin before it halts the head, and begins its motion here after that: with equal counts the
    // head rests because this motion is over.
    if (gContext.record.open && gContext.record.id == id && gContext.motion.motionsBegun.load() == started)
        endOpen(outcomeAtRest(head), 0, {true, head});
}

void motionRecordSend()
{
    if (gContext.record.waiting.load() == 0)
        return;
    // Taken and sent under one lock: what another thread has taken before has been sent once this one has the lock.
    const BusGuard hold;
    for (MotionEvent event{}; take(event);)
        motionNotify(event);
}
