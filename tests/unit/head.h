// The head of the unit tests: the daemon's rig with the real configuration store, and what the tests say about it.
#pragma once

#include "config/uci_store.h"
#include "core/lens_mask_library.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "motor/status_poll.h"
#include "preset/preset_store.h"
#include "rig/daemon_rig.h"
#include "tour/tour_state.h"

#include <gtest/gtest.h>

#include <filesystem>

using rig::section;

inline const FakeTimer TEN_SECONDS{10'000'000'000, 10'000'000'000};

/// Pan goes 300 units in 3000 steps at up to 8, tilt 122 units in 1220 steps at up to 6; both rest in the middle, 1500
/// and 610, where tilt's limits are 390 steps down and 610 up.
class Head : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        setenv("TZ", "UTC0", 1);
    }
    void SetUp() override
    {
        restart();
    }
    void TearDown() override
    {
        rig::reset();
    }
    /// A daemon at rest with packages as given and the others empty.
    static void restart(Settings settings = {})
    {
        for (const char* package : {"ptzd", "image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"})
            settings.try_emplace(package, "");
        rig::reset();
        rig::provide(settings);
        ASSERT_EQ(cfg_uci_init(), 0);
        gContext.preset.presetsLoaded = true;
        fakeMotor.capability[TILT].max_speed = gContext.axes[TILT].max_speed = 6;
        fakeMotor.status[TILT].speed = 3; // pan's is 4
    }
    static std::string position(int pan, int tilt)
    {
        return section("motor", "x_motor", {{"steps", std::to_string(pan)}}) +
               section("motor", "y_motor", {{"steps", std::to_string(tilt)}});
    }
    /// A range of the stored plan.
    static std::string planned(const std::string& name, const char* start, const char* end, const char* action,
                               const char* id)
    {
        return section(name.substr(0, name.find('_')), name,
                       {{"start_time", start}, {"end_time", end}, {"action_type", action}, {"action_id", id}});
    }
    /// The switch of the lens mask, or of the tracking, as it is stored.
    static std::string enabled(const std::string& name, const std::string& value)
    {
        return section("info", name, {{"enabled", value}});
    }

    /// Calls a method with a JSON object of arguments. @return its reply as compact JSON.
    static std::string call(const std::string& method, const std::string& arguments = "{}")
    {
        (void)rig::call(method, arguments);
        return fakes.reply;
    }
    static std::string xy(int x, int y)
    {
        return R"({"x_coord":")" + std::to_string(x) + R"(","y_coord":")" + std::to_string(y) + R"("})";
    }
    static std::string code(int value)
    {
        return R"({"error_code":)" + std::to_string(value) + "}";
    }
    static std::string errCode(int value)
    {
        return R"({"err_code":)" + std::to_string(value) + "}";
    }
    static bool reported(const std::string& function, const std::string& text)
    {
        return std::count(fakes.reports.begin(), fakes.reports.end(), FakeReport{function, text + "\n"}) == 1;
    }
    static void mask(const char* value)
    {
        rig::store("lens_mask", enabled("lens_mask_info", value));
        EXPECT_EQ(call("lensMask"), errCode(RESULT_OK));
    }

    /// Puts both axes there, in steps.
    static void standAt(int32_t pan, int32_t tilt)
    {
        fakeMotor.status[PAN].position = pan;
        fakeMotor.status[TILT].position = tilt;
    }
    /// The head has arrived there, and the status poll sees it.
    static void restAt(int32_t pan, int32_t tilt)
    {
        standAt(pan, tilt);
        motorStatusPoll(nullptr);
        EXPECT_EQ(gContext.motion.motion_active.load(), 0);
    }
    /// All requests that change something since the last look, in order: "pan stop, tilt move 10 at 8".
    static std::string driven()
    {
        static const std::map<unsigned long, const char*> NAMES = {
            {MOTOR_IOC_MOVE, "move"},     {MOTOR_IOC_STOP, "stop"},          {MOTOR_IOC_ROTATE, "rotate"},
            {MOTOR_IOC_SET_SPEED, "set"}, {MOTOR_IOC_SET_POSITION, "place"},
        };
        std::string text;
        for (const FakeRequest& request : fakeMotor.requests) {
            if (!NAMES.count(request.number))
                continue;
            text += (text.empty() ? "" : ", ") + std::string(request.axis == PAN ? "pan " : "tilt ") +
                    NAMES.at(request.number);
            if (request.number != MOTOR_IOC_STOP && request.number != MOTOR_IOC_SET_SPEED)
                text += " " + std::to_string(request.steps);
            if (request.number == MOTOR_IOC_MOVE || request.number == MOTOR_IOC_SET_SPEED)
                text += " at " + std::to_string(request.speed);
        }
        fakeMotor.requests.clear();
        return text;
    }
    /// Runs `command` once, at the next request of a kind to an axis, before that is answered.
    static void atNext(AxisIndex axis, unsigned long request, const std::function<void()>& command)
    {
        fakeMotor.onRequest = [=](const FakeRequest& made) {
            if (made.axis != axis || made.number != request)
                return;
            const auto once = command; // outlives the function that it is called from
            fakeMotor.onRequest = nullptr;
            once();
        };
    }

    Timers& timers = gContext.timers;
    MotionState& motion = gContext.motion;
};
