// What is slow, and who waits for it: the figures of docs/failures.md. The long form only; it prints a row each.

#include "fault_head.h"
#include "lab/core/process.h"

#include <signal.h>

#include <algorithm>

namespace {

using Clock = std::chrono::steady_clock;

class Slow : public FaultyHead {
protected:
    void SetUp() override
    {
        if (!std::getenv("PTZD_LONG_TESTS"))
            GTEST_SKIP() << "measures for half a minute";
        FaultyHead::SetUp();
        up(withFaults());
    }
    /// Does something beside a client that asks without pause for what needs neither motor nor settings, and prints how
    /// long both took; neither may take longer than `limit`.
    void measure(const std::string& what, std::chrono::milliseconds limit, const std::function<std::string()>& action)
    {
        std::atomic<bool> ending{false};
        Clock::duration longest{};
        std::thread bystander([&] {
            while (!ending.load()) {
                const auto start = Clock::now();
                (void)lab.invoke("ptzd", "checkMotorStatus", "", 20s);
                longest = std::max(longest, Clock::now() - start);
            }
        });
        std::this_thread::sleep_for(50ms);
        const auto start = Clock::now();
        const std::string result = action();
        const Clock::duration took = Clock::now() - start;
        std::this_thread::sleep_for(50ms);
        ending.store(true);
        bystander.join();
        std::printf("| %s | %ld ms | %ld ms | %s |\n", what.c_str(), static_cast<long>(took / 1ms),
                    static_cast<long>(longest / 1ms), result.c_str());
        EXPECT_LT(took, limit) << what;
        EXPECT_LT(longest, limit) << what;
    }
    void measureCall(const char* method, const std::string& what, const std::string& arguments = "")
    {
        measure(std::string("`") + method + "`, " + what, 9s, [&] {
            const LabReply reply = lab.invoke("ptzd", method, arguments, 20s);
            return reply.status == 0 ? reply.text.substr(0, 60) : "status " + std::to_string(reply.status);
        });
    }
    void measureEnd(const std::string& when)
    {
        measure("SIGTERM while " + when, 5s, [&] {
            EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
            return std::string("ends with status 0");
        });
    }
    void settle()
    {
        EXPECT_TRUE(waitUntil([&] { return rests() && lab.records.callsToCet("notify_motor_idle") > 0; }, DEADLINE));
        std::this_thread::sleep_for(200ms); // the poll has seen it
        lab.records.clear();
    }
};

TEST_F(Slow, Motors)
{
    for (const int delay : {100, 2000}) {
        const std::string late = " answered after " + std::to_string(delay) + " ms";
        lab.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, delay);
        measureCall("getStatus", "x `GET_STATUS`" + late);
        measureCall("stop", "x `GET_STATUS`" + late);
        lab.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, 0);
        lab.motors.delayRequest(LAB_PAN, LAB_MOVE, delay);
        measureCall("moveTo", "x `MOVE`" + late, coords(delay == 100 ? 30 : 0, 0));
        lab.motors.delayRequest(LAB_PAN, LAB_MOVE, 0);
        settle();
    }
    lab.motors.delayRequest(LAB_PAN, LAB_ROTATE, 3'600'000);
    EXPECT_EQ(lab.call("manualCalibrate"), DONE);
    measureCall("moveTo", "while a calibration hangs", coords(0, 0));
    measureEnd("a calibration hangs");
}

TEST_F(Slow, Receivers)
{
    for (const LabCetMode mode : {CET_LATE, CET_SILENT}) {
        const std::string name = mode == CET_LATE ? "\"CET\" answers after 900 ms" : "\"CET\" never answers";
        lab.cet.setAnswer(mode, 900);
        measureCall("moveTo", name, coords(30, 0));
        EXPECT_TRUE(waitUntil([&] { return lab.records.callsToCet("notify_motor_idle") == 1; }, DEADLINE));
        measureCall("getStatus", "during the idle notification, " + name);
        measureCall("moveTo", "during the idle notification, " + name, coords(0, 0));
        lab.cet.setAnswer(CET_OK);
        std::this_thread::sleep_for(2500ms);
        settle();
    }
    ASSERT_TRUE(lab.programs.stopCet());
    measureCall("moveTo", "no \"CET\"", coords(30, 0));
    std::this_thread::sleep_for(2s);
    const pid_t bus = static_cast<pid_t>(std::stol(fileText("/pid/ubusd")));
    ASSERT_TRUE(lab.programs.startCet());
    lab.motors.setFactor(LAB_PAN, 100);
    EXPECT_EQ(lab.call("moveTo", coords(60, 0)), DONE); // at 400 steps a second
    measure("bus stopped for 3 s during a motion", 10s, [&] {
        sendSignal(bus, SIGSTOP);
        std::this_thread::sleep_for(3s);
        EXPECT_TRUE(rests() && lab.motors.now(LAB_PAN).shaft == 2100);
        sendSignal(bus, SIGCONT);
        return std::string("the motion ends meanwhile");
    });
    settle();
    sendSignal(bus, SIGSTOP);
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    sendSignal(bus, SIGCONT);
}

TEST_F(Slow, Storage)
{
    for (const FaultCall call : {FAULT_WRITE, FAULT_CREATE}) {
        const std::string name = call == FAULT_WRITE ? "file system full" : "file system read-only";
        arm({.text = name, .call = call, .subject = "/etc/config"}, true);
        const std::string before = fileText("/etc/config/ptzd");
        measureCall("setPreset", name, R"({"id":"1"})");
        measureCall("setConfig", name, R"({"x_speed":"5"})");
        EXPECT_EQ(fileText("/etc/config/ptzd"), before) << name;
        disarm();
    }
    EXPECT_EQ(lab.call("setPreset", R"({"id":"1"})"), R"({"name":"preset1","id":"1","error_code":0})");
}

} // namespace
