// The coordinate system: units to steps and back, limits, and the signs of the image flip.
//
// A coordinate is an integer whose 0 is the middle of an axis's travel. All functions read the axes' capability, which
// does not change after start-up: any thread, no lock. Arithmetic is done in 64 bits; divisions truncate toward zero.
#pragma once

#include "motor/motor_device.h"

#include <stdint.h>

#include <atomic>

/// Owner: image/flip_config.
struct ImageState {
    std::atomic<int32_t> imageFlipType{0}; // 0..3, row of FlipSignTable
};

struct CoordRange {
    int32_t low;
    int32_t high;
};

/// What a commanded coordinate may be, its sign applied; both ends are allowed.
inline constexpr CoordRange CoordLimits[AXIS_COUNT] = {{-150, 150}, {-39, 61}};

/// The signs of both axes under each image flip type.
inline constexpr int32_t FlipSignTable[4][AXIS_COUNT] = {{1, 1}, {-1, 1}, {1, -1}, {-1, -1}};

/// An axis's sign under the current image flip type: +1 or -1.
[[nodiscard]] int32_t flipSign(AxisIndex axis);

/// A caller's coordinate or displacement with the sign applied.
[[nodiscard]] int64_t flipped(AxisIndex axis, int32_t coord);

[[nodiscard]] bool withinLimits(AxisIndex axis, int64_t coord);

/// Absolute steps of a coordinate, and back.
[[nodiscard]] int32_t coordToSteps(AxisIndex axis, int32_t coord);
[[nodiscard]] int32_t stepsToCoord(AxisIndex axis, int32_t steps);

/// Both axes' absolute steps of a caller's coordinates.
/// @param xCoord, yCoord  coordinate units, image-flip sign not yet applied
/// @return false, `out` unchanged, when one lies outside its limits, the sign applied
[[nodiscard]] bool targetSteps(int32_t xCoord, int32_t yCoord, int32_t (&out)[AXIS_COUNT]);

/// The absolute position of the axis's home, in steps.
[[nodiscard]] int32_t homeSteps(AxisIndex axis);

/// The steps of a relative displacement from a position, cut to the travel limits in its own direction.
/// @param displacement  coordinate units, its sign applied; any value
/// @param position      steps, as the driver reports it
[[nodiscard]] int32_t relativeSteps(AxisIndex axis, int64_t displacement, int32_t position);

/// The absolute position, in steps, at which such a displacement ends when it is not cut.
[[nodiscard]] int32_t displaced(AxisIndex axis, int64_t displacement, int32_t position);
