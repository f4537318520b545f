// What is slow, and who waits for it: the figures of docs/failures.md. The long form only; it prints a row each.

#include "fault_head.h"
#include "lab/core/process.h"

#include <signal.h>

#include <algorithm>
#include <atomic>

namespace {

using Clock = std::chrono::steady_clock;

long ms(Clock::duration time)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

/// A client that asks `checkMotorStatus`, which needs neither motor nor settings, as often as it can.
class Bystander {
public:
    explicit Bystander(const Lab& lab) : lab_(lab), thread_([this] { ask(); })
    {
    }
    ~Bystander()
    {
        (void)longest();
    }
    Bystander(const Bystander&) = delete;
    Bystander& operator=(const Bystander&) = delete;

    /// Ends it. @return its longest wait for an answer.
    Clock::duration longest()
    {
        ending_.store(true);
        if (thread_.joinable())
            thread_.join();
        return longest_;
    }

private:
    void ask()
    {
        while (!ending_.load()) {
            const auto start = Clock::now();
            (void)lab_.invoke("ptzd", "checkMotorStatus", "", 20s);
            longest_ = std::max(longest_, Clock::now() - start);
        }
    }

    const Lab& lab_;
    std::atomic<bool> ending_{false};
    Clock::duration longest_{};
    std::thread thread_;
};

class Slow : public FaultyHead {
protected:
    void SetUp() override
    {
        if (!std::getenv("PTZD_LONG_TESTS"))
            GTEST_SKIP() << "measures for half a minute";
        FaultyHead::SetUp();
        LabOptions options = withFaults();
        up(options);
    }
    /// Does something beside a bystander and prints how long both took; neither may take longer than `limit`.
    template <typename Action>
    void measure(const std::string& what, std::chrono::milliseconds limit, Action action)
    {
        Bystander bystander(lab);
        std::this_thread::sleep_for(50ms);
        const auto start = Clock::now();
        const std::string result = action();
        const auto took = Clock::now() - start;
        std::this_thread::sleep_for(50ms);
        const auto other = bystander.longest();
        std::printf("| %s | %ld ms | %ld ms | %s |\n", what.c_str(), ms(took), ms(other), result.c_str());
        EXPECT_LT(took, limit) << what;
        EXPECT_LT(other, limit) << what;
    }
    std::string call(const char* method, const std::string& arguments = "")
    {
        const LabReply reply = lab.invoke("ptzd", method, arguments, 20s);
        return reply.status == 0 ? reply.text : "status " + std::to_string(reply.status);
    }
    void settle()
    {
        EXPECT_TRUE(waitUntil([&] { return rests() && lab.records.callsToCet("notify_motor_idle") > 0; }, DEADLINE));
        std::this_thread::sleep_for(200ms); // the poll has seen it
        lab.records.clear();
    }
    void failFiles(FaultCall function, int error)
    {
        FaultRecord& record = control().calls[function];
        (void)snprintf(record.subject, sizeof(record.subject), "/etc/config");
        record.error.store(error);
        record.passes.store(0);
        record.failures.store(FAULT_EVER);
    }
};

TEST_F(Slow, Motors)
{
    for (const int delay : {100, 2000}) {
        const std::string late = " answered after " + std::to_string(delay) + " ms";
        const auto limit = std::chrono::milliseconds(4 * delay) + 3s;
        lab.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, delay);
        measure("`getStatus`, x `GET_STATUS`" + late, limit, [&] { return call("getStatus").substr(0, 15) + "…"; });
        measure("`stop`, x `GET_STATUS`" + late, limit, [&] { return call("stop"); });
        lab.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, 0);
        lab.motors.delayRequest(LAB_PAN, LAB_MOVE, delay);
        measure("`moveTo`, x `MOVE`" + late, limit, [&] { return call("moveTo", coords(delay == 100 ? 30 : 0, 0)); });
        lab.motors.delayRequest(LAB_PAN, LAB_MOVE, 0);
        settle();
    }
}

TEST_F(Slow, ARotationThatNeverEnds)
{
    lab.motors.delayRequest(LAB_PAN, LAB_ROTATE, 3'600'000);
    EXPECT_EQ(call("manualCalibrate"), DONE);
    measure("`moveTo` while a calibration hangs", 3s, [&] { return call("moveTo", coords(0, 0)); });
    const auto start = Clock::now();
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    std::printf("| SIGTERM while a calibration hangs | %ld ms | – | ends with status 0 |\n", ms(Clock::now() - start));
    EXPECT_LT(Clock::now() - start, 5s);
}

TEST_F(Slow, Cet)
{
    struct Mode {
        LabCetMode mode;
        int delay;
        const char* name;
    };
    for (const Mode& one :
         {Mode{CET_LATE, 900, "\"CET\" answers after 900 ms"}, Mode{CET_SILENT, 0, "\"CET\" never answers"}}) {
        const std::string name = one.name;
        lab.cet.setAnswer(one.mode, one.delay);
        measure("`moveTo`, " + name, 5s, [&] { return call("moveTo", coords(30, 0)); });
        EXPECT_TRUE(waitUntil([&] { return lab.records.callsToCet("notify_motor_idle") == 1; }, DEADLINE));
        measure("`getStatus` during the idle notification, " + name, 5s,
                [&] { return call("getStatus").substr(0, 15) + "…"; });
        measure("`moveTo` during the idle notification, " + name, 5s, [&] { return call("moveTo", coords(0, 0)); });
        lab.cet.setAnswer(CET_OK);
        std::this_thread::sleep_for(2500ms);
        settle();
    }
    ASSERT_TRUE(lab.programs.stopCet());
    measure("`moveTo`, no \"CET\"", 5s, [&] { return call("moveTo", coords(30, 0)); });
    std::this_thread::sleep_for(2s);
}

TEST_F(Slow, Storage)
{
    const auto measureAll = [&](const std::string& name) {
        const std::string before = fileText("/etc/config/ptzd");
        measure("`setPreset`, " + name, 3s, [&] { return call("setPreset", R"({"id":"1"})"); });
        measure("`setConfig`, " + name, 3s, [&] { return call("setConfig", R"({"x_speed":"5"})"); });
        measure("`moveTo`, " + name, 3s, [&] { return call("moveTo", coords(30, 0)); });
        settle();
        EXPECT_EQ(fileText("/etc/config/ptzd"), before) << name;
    };
    failFiles(FAULT_WRITE, ENOSPC);
    measureAll("file system full");
    disarm();
    for (const FaultCall function : {FAULT_CREATE, FAULT_RENAME})
        failFiles(function, EROFS);
    measureAll("file system read-only");
    disarm();
    EXPECT_EQ(call("setPreset", R"({"id":"1"})"), R"({"name":"preset1","id":"1","error_code":0})");
}

TEST_F(Slow, AStalledBus)
{
    const pid_t bus = static_cast<pid_t>(std::stol(fileText("/pid/ubusd")));
    lab.motors.setFactor(LAB_PAN, 100);
    EXPECT_EQ(call("moveTo", coords(60, 0)), DONE); // 600 steps at 400 a second
    const auto began = Clock::now();
    measure("bus stopped for 3 s during a motion", 10s, [&] {
        sendSignal(bus, SIGSTOP);
        std::this_thread::sleep_for(3s);
        const bool arrived = rests() && lab.motors.now(LAB_PAN).shaft == 2100;
        sendSignal(bus, SIGCONT);
        EXPECT_TRUE(arrived);
        return std::string("the motion ends meanwhile");
    });
    EXPECT_TRUE(settled());
    std::printf("| the end of that motion is told | %ld ms after its start | – | |\n", ms(Clock::now() - began));
    sendSignal(bus, SIGSTOP);
    const auto start = Clock::now();
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    std::printf("| SIGTERM while the bus is stopped | %ld ms | – | ends with status 0 |\n", ms(Clock::now() - start));
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
    std::this_thread::sleep_for(300ms); // the poll has seen it, and begins to tell it
    const auto start = Clock::now();
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    std::printf("| SIGTERM while a notification waits for a stopped bus | %ld ms | – | ends with status 0 |\n",
                ms(Clock::now() - start));
    EXPECT_NE(fileText("/etc/config/ptzd").find("'1700'"), std::string::npos) << "the pending position is stored";
    sendSignal(bus, SIGCONT);
}

} // namespace
