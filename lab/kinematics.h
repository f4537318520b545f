#pragma once
// Where an axis is at a given lab time: computed from the clock, never by a thread.
//
// A motion makes speed x factor steps a second until it has made all its steps. The shaft stops at a mechanical end
// (0 and total_steps) while the time of the motion still passes, and the driver's count is clamped to the same range.
// All functions are plain arithmetic on the record given: any thread, no lock of their own.

#include "lab/lab_state.h"

/// An axis at one moment. Positions in steps.
struct LabAxisNow {
    int32_t shaft;
    int32_t count;
    int32_t speed;     // of the motion, or the configured one at rest
    int32_t running;   // 0 or 1
    int32_t direction; // +1 or -1
    int32_t left;      // signed steps still to be made
    int64_t rate;      // signed steps per second of lab time; 0 at rest
};

LabAxisNow axisAt(const LabAxis& axis, int64_t labNs);

/// Lab time at which the motion under way has made its last step; labNs of its start when the axis rests.
int64_t motionEndNs(const LabAxis& axis);

/// Brings the record up to `labNs`: a motion that is over is completed, one under way goes on from here.
void settleAxis(LabAxis& axis, int64_t labNs);

/// Replaces whatever runs by a motion of `steps`, from where the axis is at `labNs`. Speed word 0 means the
/// configured speed, others are limited to 1..maxSpeed. Zero steps end at once. Returns the number of the motion.
uint32_t startMotion(LabAxis& axis, int64_t labNs, int32_t speedWord, int32_t steps);

/// Whether a motion ran to its end, as far as the record was settled. False when it was stopped or replaced, and for
/// one more than 31 motions ago.
bool motionCompleted(const LabAxis& axis, uint32_t motionId);

/// Ends the motion under way where it is; unless it was over already it never counts as completed.
void stopMotion(LabAxis& axis, int64_t labNs);

/// Sets the driver's count, limited to the travel; a motion under way goes on from there.
void setAxisCount(LabAxis& axis, int64_t labNs, int32_t steps);

/// Sets the configured speed, limited to 1..maxSpeed, also that of a motion under way.
void setAxisSpeed(LabAxis& axis, int64_t labNs, int32_t speed);

/// Sets the steps per second and unit of speed; 1 at least.
void setAxisFactor(LabAxis& axis, int64_t labNs, int32_t factor);

/// The driver loses count, speed and motion; the shaft stays where it is at `labNs`.
void losePower(LabAxis& axis, int64_t labNs);
