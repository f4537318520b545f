#include "motor/motor_init.h"

#include "core/log.h"
#include "core/shutdown.h"
#include "motor/calibration.h"
#include "motor/coordinates.h"
#include "motor/position_store.h"

namespace {

constexpr int OPEN_RETRY_MS = 1000;

/// Zero or less in any of these would divide by zero or leave no way to move.
bool makesSense(const MotorCapability& capability)
{
    return capability.range >= 1 && capability.total_steps >= 1 && capability.max_speed >= 1;
}

} // namespace

int32_t motorInit(AxisIndex axis)
{
    MotorAxis& motor = gContext.axes[axis];
    int fd = motorOpen(axis);
    while (fd <= 0) {
        LOG_ERROR("can't open %s file, sleep 1 second and retry\n", motor.device_path);
        if (shutdownSleep(OPEN_RETRY_MS))
            return -1;
        fd = motorOpen(axis);
    }
    motor.fd = fd;
    MotorCapability capability{};
    if (motorGetCapability(axis, capability) != RESULT_OK || !makesSense(capability)) {
        LOG_ERROR("can't get capability of %s\n", motor.device_path);
        return -1;
    }
    motor.range = capability.range;
    motor.max_speed = capability.max_speed;
    motor.total_steps = capability.total_steps;
    int32_t returnSteps = homeSteps(axis);
    if (gContext.position.power_off_recover.load() != 0)
        returnSteps = storedSteps(axis).steps; // none stored: home
    calibrationSetTarget(axis, returnSteps);
    return 0;
}
