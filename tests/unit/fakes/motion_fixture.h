// What tests of motions share: a daemon at rest, and what it told the motors.
#pragma once

#include "fakes/fake_motor.h"
#include "fakes/fake_surroundings.h"
#include "motor/motion_state.h"
#include "ubus/notify.h"

#include <gtest/gtest.h>

class MotionTest : public testing::Test {
protected:
    using Options = std::map<std::string, std::string>;
    Timers& timers = gContext.timers;

    void SetUp() override
    {
        resetDaemon();
    }
    /// All move and stop requests, in order.
    static std::vector<FakeRequest> driven()
    {
        std::vector<FakeRequest> found;
        for (const FakeRequest& request : fakeMotor.requests)
            if (request.number == MOTOR_IOC_MOVE || request.number == MOTOR_IOC_STOP)
                found.push_back(request);
        return found;
    }
    static FakeRequest move(AxisIndex axis, int32_t speed, int32_t steps)
    {
        return {axis, MOTOR_IOC_MOVE, speed, steps};
    }
    static FakeRequest stop(AxisIndex axis)
    {
        return {axis, MOTOR_IOC_STOP, 0, 0};
    }
    static void storePosition(int32_t pan, int32_t tilt)
    {
        fakes.options["x_motor.steps"] = std::to_string(pan);
        fakes.options["y_motor.steps"] = std::to_string(tilt);
    }
    static void standAt(int32_t pan, int32_t tilt)
    {
        fakeMotor.status[PAN].position = pan;
        fakeMotor.status[TILT].position = tilt;
    }
    /// Expects that a refused command left the head, its state, its timers and the store alone.
    void expectUntouched()
    {
        EXPECT_TRUE(driven().empty());
        EXPECT_TRUE(fakes.notifications.empty());
        EXPECT_FALSE(fakes.armed(timers.statusPollTimer));
        EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
        EXPECT_EQ(fakes.commits, 0);
        EXPECT_EQ(fakes.worker, nullptr);
    }
};
