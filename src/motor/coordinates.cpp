#include "motor/coordinates.h"

#include "core/numbers.h"

namespace {

/// The steps of a displacement in coordinate units.
int64_t stepsOf(AxisIndex axis, int64_t displacement)
{
    return displacement * gContext.axes[axis].total_steps / gContext.axes[axis].range;
}

} // namespace

int32_t flipSign(AxisIndex axis)
{
    return FlipSignTable[gContext.image.imageFlipType.load()][axis];
}

int64_t flipped(AxisIndex axis, int32_t coord)
{
    return static_cast<int64_t>(flipSign(axis)) * coord;
}

bool withinLimits(AxisIndex axis, int64_t coord)
{
    return coord >= CoordLimits[axis].low && coord <= CoordLimits[axis].high;
}

int32_t coordToSteps(AxisIndex axis, int32_t coord)
{
    const MotorAxis& motor = gContext.axes[axis];
    return saturated32(static_cast<int64_t>(coord) * motor.total_steps / motor.range + motor.total_steps / 2);
}

int32_t stepsToCoord(AxisIndex axis, int32_t steps)
{
    const MotorAxis& motor = gContext.axes[axis];
    return saturated32(static_cast<int64_t>(motor.range) * steps / motor.total_steps - motor.range / 2);
}

bool targetSteps(int32_t xCoord, int32_t yCoord, int32_t (&out)[AXIS_COUNT])
{
    const int64_t pan = flipped(PAN, xCoord);
    const int64_t tilt = flipped(TILT, yCoord);
    if (!withinLimits(PAN, pan) || !withinLimits(TILT, tilt))
        return false;
    out[PAN] = coordToSteps(PAN, static_cast<int32_t>(pan));
    out[TILT] = coordToSteps(TILT, static_cast<int32_t>(tilt));
    return true;
}

int32_t homeSteps(AxisIndex axis)
{
    return coordToSteps(axis, gContext.axes[axis].home_coord);
}

int32_t relativeSteps(AxisIndex axis, int64_t displacement, int32_t position)
{
    const int64_t delta = stepsOf(axis, displacement);
    const int64_t high = coordToSteps(axis, CoordLimits[axis].high);
    const int64_t low = coordToSteps(axis, CoordLimits[axis].low);
    if (position + delta > high)
        return saturated32(high - position);
    if (position + delta < low)
        return saturated32(low - position);
    return saturated32(delta);
}

int32_t displaced(AxisIndex axis, int64_t displacement, int32_t position)
{
    return saturated32(position + stepsOf(axis, displacement));
}
