#include "lab/kinematics.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr int64_t BILLION = 1'000'000'000;

int64_t stepsPerSecond(const LabAxis& axis)
{
    return int64_t{axis.motionSpeed} * axis.factor;
}

int64_t motionLengthNs(const LabAxis& axis)
{
    const int64_t rate = stepsPerSecond(axis);
    const int64_t way = std::llabs(axis.motionSteps) * BILLION - axis.motionPhase;
    return (way + rate - 1) / rate;
}

/// Way made since the start of the motion under way, in billionths of a step; less than all of it.
int64_t wayMade(const LabAxis& axis, int64_t labNs)
{
    const int64_t elapsed = std::max<int64_t>(labNs - axis.motionStartNs, 0);
    return axis.motionPhase + elapsed * stepsPerSecond(axis);
}

int32_t within(int64_t steps, int32_t totalSteps)
{
    return static_cast<int32_t>(std::clamp<int64_t>(steps, 0, totalSteps));
}

int32_t limitedSpeed(const LabAxis& axis, int32_t speed)
{
    return std::clamp(speed, 1, std::max(axis.maxSpeed, 1));
}

void restAt(LabAxis& axis, const LabAxisNow& now)
{
    axis.shaft = now.shaft;
    axis.count = now.count;
    axis.motionSteps = 0;
    axis.motionPhase = 0;
}

} // namespace

int64_t motionEndNs(const LabAxis& axis)
{
    return axis.motionSteps == 0 ? axis.motionStartNs : axis.motionStartNs + motionLengthNs(axis);
}

LabAxisNow axisAt(const LabAxis& axis, int64_t labNs)
{
    const bool over = labNs >= motionEndNs(axis);
    int64_t done = axis.motionSteps;
    if (!over)
        done = wayMade(axis, labNs) / BILLION * (axis.motionSteps < 0 ? -1 : 1);
    return {
        .shaft = within(axis.shaft + done, axis.totalSteps),
        .count = within(axis.count + done, axis.totalSteps),
        .speed = over ? axis.speed : axis.motionSpeed,
        .running = over ? 0 : 1,
        .direction = axis.direction,
        .left = static_cast<int32_t>(axis.motionSteps - done),
        .rate = over ? 0 : stepsPerSecond(axis) * (axis.motionSteps < 0 ? -1 : 1),
    };
}

void settleAxis(LabAxis& axis, int64_t labNs)
{
    if (axis.motionSteps == 0)
        return;
    const LabAxisNow now = axisAt(axis, labNs);
    if (!now.running) {
        restAt(axis, now);
        axis.completed |= 1;
        return;
    }
    const int64_t phase = wayMade(axis, labNs) % BILLION;
    restAt(axis, now);
    axis.motionSteps = now.left;
    axis.motionPhase = phase;
    axis.motionStartNs = std::max(labNs, axis.motionStartNs);
}

bool motionCompleted(const LabAxis& axis, uint32_t motionId)
{
    const uint32_t age = axis.motionId - motionId;
    return age < 32 && (axis.completed >> age & 1) != 0;
}

uint32_t startMotion(LabAxis& axis, int64_t labNs, int32_t speedWord, int32_t steps)
{
    stopMotion(axis, labNs);
    ++axis.motionId;
    axis.completed <<= 1;
    axis.motionStartNs = labNs;
    axis.motionSteps = steps;
    axis.motionSpeed = speedWord == 0 ? axis.speed : limitedSpeed(axis, speedWord);
    if (steps == 0)
        axis.completed |= 1;
    else
        axis.direction = steps < 0 ? -1 : 1;
    return axis.motionId;
}

void stopMotion(LabAxis& axis, int64_t labNs)
{
    settleAxis(axis, labNs);
    axis.motionSteps = 0;
    axis.motionPhase = 0;
}

void setAxisCount(LabAxis& axis, int64_t labNs, int32_t steps)
{
    settleAxis(axis, labNs);
    axis.count = within(steps, axis.totalSteps);
}

void setAxisSpeed(LabAxis& axis, int64_t labNs, int32_t speed)
{
    settleAxis(axis, labNs);
    axis.speed = limitedSpeed(axis, speed);
    if (axis.motionSteps != 0)
        axis.motionSpeed = axis.speed;
}

void setAxisFactor(LabAxis& axis, int64_t labNs, int32_t factor)
{
    settleAxis(axis, labNs);
    axis.factor = std::max(factor, 1);
}

void losePower(LabAxis& axis, int64_t labNs)
{
    stopMotion(axis, labNs);
    axis.count = 0;
    axis.speed = 1;
    axis.direction = 1;
}
