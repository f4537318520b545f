#include "motor/motor_device.h"

#include "core/numbers.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

// The C libraries disagree about the type of a request's number; the kernel sees its lower 32 bits.
template <typename Number>
Number numberOf(int (*)(int, Number, ...));
using RequestNumber = decltype(numberOf(ioctl));

ResultCode request(AxisIndex axis, unsigned long number, void* record)
{
    return ioctl(gContext.axes[axis].fd, static_cast<RequestNumber>(number), record) == 0 ? RESULT_OK : ERR_DEVICE;
}

} // namespace

int motorOpen(AxisIndex axis)
{
    return open(gContext.axes[axis].device_path, O_RDONLY | O_CLOEXEC);
}

void motorClose(AxisIndex axis)
{
    if (gContext.axes[axis].fd > 0)
        close(gContext.axes[axis].fd);
    gContext.axes[axis].fd = 0;
}

ResultCode motorGetCapability(AxisIndex axis, MotorCapability& out)
{
    return request(axis, MOTOR_IOC_GET_CAPA, &out);
}

ResultCode motorGetStatus(AxisIndex axis, MotorStatus& out)
{
    return request(axis, MOTOR_IOC_GET_STATUS, &out);
}

ResultCode motorReadStatus(HeadStatus& out)
{
    out = {};
    if (const ResultCode result = motorGetStatus(PAN, out.axes[PAN]); result != RESULT_OK)
        return result;
    return motorGetStatus(TILT, out.axes[TILT]);
}

ResultCode motorSetPosition(AxisIndex axis, int32_t steps)
{
    MotorCommand command{};
    command.steps = steps;
    return request(axis, MOTOR_IOC_SET_POSITION, &command);
}

ResultCode motorSetSpeed(AxisIndex axis, int32_t speed)
{
    MotorCommand command{};
    command.speed = speed;
    return request(axis, MOTOR_IOC_SET_SPEED, &command);
}

ResultCode motorRotate(AxisIndex axis, int32_t steps)
{
    MotorCommand command{};
    command.steps = steps;
    return request(axis, MOTOR_IOC_ROTATE, &command);
}

ResultCode motorMove(AxisIndex axis, const MotorCommand& command)
{
    MotorCommand sent = command; // the request's argument is not const
    return request(axis, MOTOR_IOC_MOVE, &sent);
}

ResultCode motorStop(AxisIndex axis)
{
    return request(axis, MOTOR_IOC_STOP, nullptr);
}

ResultCode motorStopBoth()
{
    if (const ResultCode result = motorStop(PAN); result != RESULT_OK)
        return result;
    return motorStop(TILT);
}

ResultCode driveAxes(const HeadCommand& command)
{
    const ResultCode panResult = motorMove(PAN, command.pan);
    const ResultCode tiltResult = motorMove(TILT, command.tilt);
    return panResult != RESULT_OK ? panResult : tiltResult;
}

MotorCommand relativeCommand(int32_t steps, int32_t speed)
{
    MotorCommand command{};
    command.speed = speed;
    command.steps = steps;
    return command;
}

MotorCommand targetCommand(const MotorStatus& status, int32_t targetSteps)
{
    const int32_t steps = saturated32(static_cast<int64_t>(targetSteps) - status.position);
    return {status.reserved, status.speed, steps, {status.running, status.direction}};
}

HeadCommand targetCommands(const HeadStatus& head, int32_t panSteps, int32_t tiltSteps)
{
    return {targetCommand(head[PAN], panSteps), targetCommand(head[TILT], tiltSteps)};
}

HeadCommand fullSpeedCommands(const HeadStatus& head, int32_t panSteps, int32_t tiltSteps)
{
    HeadCommand command = targetCommands(head, panSteps, tiltSteps);
    command.pan.speed = gContext.axes[PAN].max_speed;
    command.tilt.speed = gContext.axes[TILT].max_speed;
    return command;
}
