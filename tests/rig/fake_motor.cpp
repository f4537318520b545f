#include "rig/fake_motor.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>

#include <algorithm>

FakeMotor fakeMotor;
std::atomic<unsigned> fakeMotorAnswered;

namespace {
constexpr int FIRST_FD = 1000; // no real descriptor of the test
}

std::vector<FakeRequest> FakeMotor::sent(unsigned long number) const
{
    std::vector<FakeRequest> found;
    std::ranges::copy_if(requests, std::back_inserter(found), [&](const auto& one) { return one.number == number; });
    return found;
}

void giveAxesFakeMotors()
{
    fakeMotor = {};
    fakeMotor.capability[PAN] = {300, 8, 3000, {}};
    fakeMotor.capability[TILT] = {122, 8, 1220, {}};
    fakeMotor.status[PAN] = {0, 4, 1500, 0, 1};
    fakeMotor.status[TILT] = {0, 4, 610, 0, 1};
    for (const AxisIndex axis : {PAN, TILT}) {
        gContext.axes[axis].fd = FIRST_FD + axis;
        gContext.axes[axis].range = fakeMotor.capability[axis].range;
        gContext.axes[axis].max_speed = fakeMotor.capability[axis].max_speed;
        gContext.axes[axis].total_steps = fakeMotor.capability[axis].total_steps;
    }
}

#pragma GCC diagnostic ignored "-Wmissing-declarations"

extern "C" {

int __real_open(const char* path, int flags, ...);

int __wrap_open(const char* path, int flags, ...)
{
    for (const AxisIndex axis : {PAN, TILT})
        if (strcmp(path, gContext.axes[axis].device_path) == 0)
            return FIRST_FD + axis;
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return __real_open(path, flags, mode);
}

int __wrap_ioctl(int fd, unsigned long number, ...)
{
    va_list args;
    va_start(args, number);
    void* record = va_arg(args, void*);
    va_end(args);
    const auto axis = static_cast<AxisIndex>(fd - FIRST_FD);
    FakeRequest request{axis, number, 0, 0};
    if (record && number != MOTOR_IOC_GET_CAPA && number != MOTOR_IOC_GET_STATUS) {
        const auto* command = static_cast<const MotorCommand*>(record);
        request.speed = command->speed;
        request.steps = command->steps;
    }
    fakeMotor.requests.push_back(request);
    if (fakeMotor.onRequest)
        fakeMotor.onRequest(request);
    if (fakeMotor.failing[{axis, number}]) {
        errno = EIO;
        return -1;
    }
    if (number == MOTOR_IOC_GET_CAPA)
        *static_cast<MotorCapability*>(record) = fakeMotor.capability[axis];
    if (number == MOTOR_IOC_GET_STATUS)
        *static_cast<MotorStatus*>(record) = fakeMotor.status[axis];
    if (number == MOTOR_IOC_STOP)
        fakeMotor.status[axis].running = 0;
    ++fakeMotorAnswered;
    return 0;
}

} // extern "C"
