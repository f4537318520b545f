// The head of the unit tests: motors that live in the test, the real configuration store in a folder of its own, and
// handlers that answer in JSON.
#pragma once

#include "fakes/fake_motor.h"
#include "fakes/fake_surroundings.h"
#include "ubus/bus_adapter.h"

#include <gtest/gtest.h>

#include <string>

class StoredHead : public testing::Test {
protected:
    Timers& timers = gContext.timers;
    MotionState& motion = gContext.motion;

    void SetUp() override;
    void TearDown() override;

    /// Replaces a package's file.
    static void write(const std::string& package, const std::string& text);
    static void remove(const std::string& package);
    /// What is stored, the file's whole text.
    static std::string file(const std::string& package);
    /// From now on nothing can be written.
    static void spoilStore();
    /// Calls a handler with a JSON object of arguments. @return its reply as compact JSON.
    static std::string call(UbusHandler* handler, const std::string& arguments = "{}");
    static bool reported(const std::string& function, const std::string& text);

    /// Puts both axes there, in steps.
    static void standAt(int32_t pan, int32_t tilt);
    /// All move and stop requests, in order.
    static std::vector<FakeRequest> driven();
    /// Runs `command` once, at the next request of a kind to an axis, before that is answered.
    static void atNext(AxisIndex axis, unsigned long request, const std::function<void()>& command);
};
