// Calibration: gives the driver its position back after a start, or on request.
#pragma once

#include "core/context.h"
#include "core/log.h"
#include "motor/motor_device.h"
#include "ubus/method_call.h"

#include <stdint.h>

/// What a calibration run does with one axis.
struct CalibrationTarget {
    int32_t fd;
    int32_t returnSteps; // absolute position to finish at
    int32_t totalSteps;
};

/// Sets one axis's target in gContext.calibrationArg. Thread: main, while no calibration runs.
void calibrationSetTarget(AxisIndex axis, int32_t returnSteps);

/// Starts the calibration thread on the targets; the daemon counts as calibrating from this call on. The head must
/// have been halted; `before` is its status from before that. Within a MotionStartScope. @return 0, or -1, not
/// calibrating and logged under the caller's name, when the thread cannot be created. Thread: main; takes BusLock.
[[nodiscard]] int32_t calibrationStart(const HeadStatus& before, LogSite caller = logSite());

/// `manualCalibrate`: calibrates both axes and ends at the home position.
UbusHandler ubusManualCalibrate;
