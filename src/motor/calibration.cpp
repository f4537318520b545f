#include "motor/calibration.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "core/worker.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "motor/speed_config.h"
#include "ubus/method_reply.h"

#include <initializer_list>

namespace {

bool inFactoryMode()
{
    const UciTransaction transaction(UCI_DIAGD);
    int32_t enabled = 0;
    (void)cfg_uci_get_int_value(UCI_DIAGD, "factory_mode", "enabled", &enabled); // missing: not in factory mode
    return enabled == 1;
}

/// Against the zero end, over the whole travel, back to the return position. @return how that has ended.
MotionOutcome motorCali(AxisIndex axis, const CalibrationTarget& target)
{
    // A refused position or speed changes nothing: the rotations find the ends all the same.
    (void)motorSetPosition(axis, target.returnSteps);
    (void)motorSetSpeed(axis, gContext.axes[axis].max_speed);
    if (inFactoryMode()) {
        LOG_TRACE("in factory mode, skip calibration rotate\n");
        return MotionOutcome::Reached;
    }
    LOG_TRACE("start calibration rotate.\n");
    MotorStatus atFarEnd{};
    atFarEnd.position = target.totalSteps;
    const int32_t back = targetCommand(atFarEnd, target.returnSteps).steps; // saturates
    for (const int32_t steps : {-target.totalSteps, target.totalSteps, back}) {
        if (workersStopping())
            return MotionOutcome::Stopped;
        if (motorRotate(axis, steps) != RESULT_OK) {
            LOG_ERROR("calibration  failed\n");
            return MotionOutcome::Failed;
        }
    }
    LOG_TRACE("end calibration rotate.\n");
    return MotionOutcome::Reached;
}

/// The axis's configured speed. One that cannot be used is replaced by the default, in the store too, to be committed
/// with the next change; logs under the caller's name when it cannot be set there.
int32_t usableSpeed(AxisIndex axis, LogSite caller = logSite())
{
    const MotorAxis& motor = gContext.axes[axis];
    const UciTransaction transaction(UCI_PTZD);
    int32_t stored = -1;
    (void)cfg_uci_get_int_value(UCI_PTZD, motor.section, "speed", &stored); // missing: the default
    const int32_t speed = stored > 0 && stored <= motor.max_speed ? stored : DEFAULT_SPEED[axis];
    if (speed != stored && cfg_uci_set_int_value(UCI_PTZD, motor.section, "speed", speed) != 0)
        logWrite(LOG_LEVEL_ERROR, caller, "error to set option %s.speed\n", motor.section);
    return speed;
}

void* ptzdCali(void* argument)
{
    const WorkerScope scope(WorkerEntry::Adopt);
    if (!scope.entered())
        return nullptr;
    const auto* targets = static_cast<const CalibrationTarget*>(argument);
    motionBegin(MotionBegin::Calibration);
    MotionOutcome outcome = MotionOutcome::Reached;
    for (const AxisIndex axis : {PAN, TILT}) {
        if (const MotionOutcome one = motorCali(axis, targets[axis]); one != MotionOutcome::Reached)
            outcome = one;
        (void)motorSetSpeed(axis, usableSpeed(axis)); // the driver keeps its own when it refuses
    }
    motionSettle(MotionSettle::Calibration, outcome);
    gContext.motion.calibrating.store(0);
    motionRecordSend(); // only now: whoever waits for the end may give the next command at once
    return nullptr;
}

/// Whether a manual calibration may run now; halts the head and sets the targets to the home position.
/// @param head  is set to the status from before
ResultCode prepareManualCalibration(HeadStatus& head)
{
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    if (const ResultCode result = motionTakeOver(head); result != RESULT_OK)
        return result;
    calibrationSetTarget(PAN, homeSteps(PAN));
    calibrationSetTarget(TILT, homeSteps(TILT));
    return RESULT_OK;
}

} // namespace

void calibrationSetTarget(AxisIndex axis, int32_t returnSteps)
{
    gContext.calibrationArg[axis] = {gContext.axes[axis].fd, returnSteps, gContext.axes[axis].total_steps};
}

int32_t calibrationStart(const HeadStatus& before, LogSite caller)
{
    // Set here, not by the thread: no request may slip in before that runs. So is the record: its begin is sent before
    // the reply of the call.
    gContext.motion.calibrating.store(1);
    motionStarting();
    motionRecordBegin(MotionSource::Calibration, {}, before);
    motionRecordSend();
    if (workerStart(ptzdCali, gContext.calibrationArg) == 0)
        return 0;
    gContext.motion.calibrating.store(0);
    motionRecordEnd(MotionOutcome::Failed, motionPlaceNow());
    motionRecordSend();
    motionStarted();
    logWrite(LOG_LEVEL_ERROR, caller, "motor calibrate failed\n");
    return -1;
}

void ubusManualCalibrate(const Call& call)
{
    const MotionStartScope start;
    HeadStatus head{};
    ResultCode result = prepareManualCalibration(head);
    if (result == RESULT_OK && calibrationStart(head) != 0)
        result = ERR_DEVICE;
    if (result == RESULT_OK)
        saveStepsArm(); // stores the home position once the head rests there
    replyCode(call, result);
}
