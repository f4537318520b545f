// What is slow, and who waits for it: the figures of docs/failures.md. The long form only; it prints a row each.

#include "fault_head.h"
#include "lab/core/process.h"

#include <signal.h>

#include <algorithm>

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start)
{
    return static_cast<long>((Clock::now() - start) / 1ms);
}

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
    template <typename Action>
    void measure(const std::string& what, std::chrono::milliseconds limit, Action action)
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
        const long took = msSince(start);
        std::this_thread::sleep_for(50ms);
        ending.store(true);
        bystander.join();
        std::printf("| %s | %ld ms | %ld ms | %s |\n", what.c_str(), took, static_cast<long>(longest / 1ms),
                    result.c_str());
        EXPECT_LT(took, limit.count()) << what;
        EXPECT_LT(longest, limit) << what;
    }
    void measureCall(const char* method, const std::string& what, std::chrono::milliseconds limit,
                     const std::string& arguments = "")
    {
        measure(std::string("`") + method + "`, " + what, limit, [&] {
            const LabReply reply = lab.invoke("ptzd", method, arguments, 20s);
            return reply.status == 0 ? reply.text.substr(0, 24) : "status " + std::to_string(reply.status);
        });
    }
    void measureEnd(const std::string& when)
    {
        const auto start = Clock::now();
        EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
        std::printf("| SIGTERM while %s | %ld ms | – | ends with status 0 |\n", when.c_str(), msSince(start));
        EXPECT_LT(msSince(start), 5000);
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
        const auto limit = std::chrono::milliseconds(4 * delay) + 3s;
        lab.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, delay);
        measureCall("getStatus", "x `GET_STATUS`" + late, limit);
        measureCall("stop", "x `GET_STATUS`" + late, limit);
        lab.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, 0);
        lab.motors.delayRequest(LAB_PAN, LAB_MOVE, delay);
        measureCall("moveTo", "x `MOVE`" + late, limit, coords(delay == 100 ? 30 : 0, 0));
        lab.motors.delayRequest(LAB_PAN, LAB_MOVE, 0);
        settle();
    }
    lab.motors.delayRequest(LAB_PAN, LAB_ROTATE, 3'600'000);
    EXPECT_EQ(lab.call("manualCalibrate"), DONE);
    measureCall("moveTo", "while a calibration hangs", 3s, coords(0, 0));
    measureEnd("a calibration hangs");
}

TEST_F(Slow, Cet)
{
    for (const LabCetMode mode : {CET_LATE, CET_SILENT}) {
        const std::string name = mode == CET_LATE ? "\"CET\" answers after 900 ms" : "\"CET\" never answers";
        lab.cet.setAnswer(mode, 900);
        measureCall("moveTo", name, 5s, coords(30, 0));
        EXPECT_TRUE(waitUntil([&] { return lab.records.callsToCet("notify_motor_idle") == 1; }, DEADLINE));
        measureCall("getStatus", "during the idle notification, " + name, 5s);
        measureCall("moveTo", "during the idle notification, " + name, 5s, coords(0, 0));
        lab.cet.setAnswer(CET_OK);
        std::this_thread::sleep_for(2500ms);
        settle();
    }
    ASSERT_TRUE(lab.programs.stopCet());
    measureCall("moveTo", "no \"CET\"", 5s, coords(30, 0));
    std::this_thread::sleep_for(2s);
}

TEST_F(Slow, Storage)
{
    const struct {
        const char* name;
        std::vector<FaultCall> failing;
    } cases[] = {{"file system full", {FAULT_WRITE}}, {"file system read-only", {FAULT_CREATE, FAULT_RENAME}}};
    for (const auto& [name, failing] : cases) {
        for (const FaultCall call : failing)
            arm({.text = name, .call = call, .subject = "/etc/config"}, true);
        const std::string before = fileText("/etc/config/ptzd");
        measureCall("setPreset", name, 3s, R"({"id":"1"})");
        measureCall("setConfig", name, 3s, R"({"x_speed":"5"})");
        measureCall("moveTo", name, 3s, coords(30, 0));
        settle();
        EXPECT_EQ(fileText("/etc/config/ptzd"), before) << name;
        disarm();
    }
    EXPECT_EQ(lab.call("setPreset", R"({"id":"1"})"), R"({"name":"preset1","id":"1","error_code":0})");
}

TEST_F(Slow, AStalledBus)
{
    const pid_t bus = static_cast<pid_t>(std::stol(fileText("/pid/ubusd")));
    lab.motors.setFactor(LAB_PAN, 100);
    EXPECT_EQ(lab.call("moveTo", coords(60, 0)), DONE); // 600 steps at 400 a second
    const auto began = Clock::now();
    measure("bus stopped for 3 s during a motion", 10s, [&] {
        sendSignal(bus, SIGSTOP);
        std::this_thread::sleep_for(3s);
        EXPECT_TRUE(rests() && lab.motors.now(LAB_PAN).shaft == 2100);
        sendSignal(bus, SIGCONT);
        return std::string("the motion ends meanwhile");
    });
    EXPECT_TRUE(settled());
    std::printf("| the end of that motion is told | %ld ms after its start | – | |\n", msSince(began));
    sendSignal(bus, SIGSTOP);
    measureEnd("the bus is stopped");
    sendSignal(bus, SIGCONT);
}

// The poll's thread is then inside the bus library, and keeps it to itself.
TEST_F(FaultyHead, EndsThoughTheBusHasStalledInMidNotification)
{
    up(withFaults());
    ASSERT_EQ(lab.call("setPowerOffRecover", R"({"recover":"1"})"), DONE);
    const pid_t bus = static_cast<pid_t>(std::stol(fileText("/pid/ubusd")));
    lab.motors.setFactor(LAB_PAN, 250); // 0.2 s
    EXPECT_EQ(lab.call("moveTo", coords(20, 0)), DONE);
    sendSignal(bus, SIGSTOP);
    EXPECT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    std::this_thread::sleep_for(300ms); // the poll has seen it, and begins to notify
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    EXPECT_NE(fileText("/etc/config/ptzd").find("'1700'"), std::string::npos) << "the pending position is stored";
    sendSignal(bus, SIGCONT);
}

} // namespace
