#include "motor/motor_report.h"

#include "core/log.h"
#include "core/motion.h"
#include "core/numbers.h"
#include "core/shutdown.h"
#include "motor/calibration.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/motor_device.h"
#include "motor/position_store.h"
#include "ubus/method_reply.h"

namespace {

constexpr int OPEN_RETRY_MS = 1000;

/// Zero or less in any of these would divide by zero or leave no way to move.
bool makesSense(const MotorCapability& capability)
{
    return capability.range >= 1 && capability.total_steps >= 1 && capability.max_speed >= 1;
}

void addSpeed(const char* name, AxisIndex axis, const MotorStatus& status)
{
    // A driver may say anything in these three; each product is cut to 32 bits.
    const int32_t signedSpeed = saturated32(static_cast<int64_t>(status.speed) * flipSign(axis));
    const int32_t directed = saturated32(static_cast<int64_t>(signedSpeed) * status.direction);
    replyAddDecimal(name, saturated32(static_cast<int64_t>(directed) * status.running));
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

void ubusGetMotorCapa(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    const MotorAxis& pan = gContext.axes[PAN];
    const MotorAxis& tilt = gContext.axes[TILT];
    replyBegin();
    replyAddInt("error_code", RESULT_OK);
    void* table = replyOpenTable("capability");
    replyAddDecimal("x_coord_min", -(pan.range / 2));
    replyAddDecimal("x_coord_max", pan.range / 2);
    replyAddDecimal("y_coord_min", -(tilt.range / 2));
    replyAddDecimal("y_coord_max", tilt.range / 2);
    replyAddDecimal("x_max_speed", pan.max_speed);
    replyAddDecimal("y_max_speed", tilt.max_speed);
    replyAddText("simultaneous", gContext.motion.simultaneous.load() == 1 ? "enabled" : "disabled");
    replyAddText("preset", "enabled");
    replyAddText("calibrate", "enabled");
    replyClose(table);
    replySend(call);
}

void ubusGetMotorStatus(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    MotorStatus pan{};
    MotorStatus tilt{};
    if (const ResultCode result = motorReadStatus(pan, tilt); result != RESULT_OK)
        return replyCode(call, result);
    replyBegin();
    replyAddInt("error_code", RESULT_OK);
    void* table = replyOpenTable("status");
    replyAddDecimal("x_coord", static_cast<int64_t>(stepsToCoord(PAN, pan.position)) * flipSign(PAN));
    replyAddDecimal("y_coord", static_cast<int64_t>(stepsToCoord(TILT, tilt.position)) * flipSign(TILT));
    addSpeed("x_speed", PAN, pan);
    addSpeed("y_speed", TILT, tilt);
    replyClose(table);
    replySend(call);
}

void ubusCheckMotorStatus(const Call& call)
{
    replyErrCode(call, refusedBy(CALIBRATING));
}
