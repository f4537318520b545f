// Two motor drivers that live in the test: they stand behind ioctl(2), so the product's own adapter is tested too.
#pragma once

#include "motor/motor_device.h"

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct FakeRequest {
    AxisIndex axis;
    unsigned long number;
    int32_t speed; // words of a MotorCommand; 0 for requests without one
    int32_t steps;

    bool operator==(const FakeRequest&) const = default;
};

struct FakeMotor {
    MotorStatus status[AXIS_COUNT]{};
    MotorCapability capability[AXIS_COUNT]{};
    std::vector<FakeRequest> requests;
    std::map<std::pair<AxisIndex, unsigned long>, bool> failing;
    std::function<void(const FakeRequest&)> onRequest; // runs before the request is answered

    void fail(AxisIndex axis, unsigned long number)
    {
        failing[{axis, number}] = true;
    }
    /// The requests of one kind, in order.
    [[nodiscard]] std::vector<FakeRequest> sent(unsigned long number) const;
};

extern FakeMotor fakeMotor;

/// Requests that were answered: what another thread waits for before it touches the fake.
extern std::atomic<unsigned> fakeMotorAnswered;

/// A healthy head: pan 300 units in 3000 steps, tilt 122 units in 1220 steps, max_speed 8, both in the middle, at rest.
void giveAxesFakeMotors();
