// The bus that goes away, callers that wait for the start, and tours that meet commands.

#include "head.h"

#include <atomic>
#include <thread>

namespace {

TEST_F(HeadInTheLab, IsBackAfterEveryRestartOfTheBus)
{
    up(slowHead());
    for (int round = 0; round < repetitions(5, 50); ++round) {
        lab.forget();
        ASSERT_EQ(lab.call("moveTo", coords(round % 2 == 0 ? 60 : 0, 0)), DONE) << round;
        ASSERT_TRUE(lab.stopBus());
        ASSERT_TRUE(lab.startBus()) << lab.error();
        const auto restarted = std::chrono::steady_clock::now();
        ASSERT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE)) << round;
        const auto took = std::chrono::steady_clock::now() - restarted;
        EXPECT_LT(took, std::getenv("PTZD_LONG_TESTS") ? 2500ms : 10000ms) << round;
        ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
        ASSERT_EQ(lab.axisNow(LAB_PAN).shaft, round % 2 == 0 ? 2100 : 1500) << "the motion ends as if nothing happened";
        ASSERT_TRUE(waitUntil([&] { return lab.invoke("CET", "notify_motor_idle").status == 0; }, DEADLINE));
    }
}

// A call may reach the daemon together with the bus daemon's answer to the registration of its object.
TEST_F(HeadInTheLab, ServesCallersThatWaitForItsStart)
{
    up();
    std::atomic<bool> ending{false};
    std::atomic<int> answered{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i)
        callers.emplace_back([&] {
            while (!ending.load())
                answered += lab.invoke("ptzd", "checkMotorStatus", "", 1s).status == 0 ? 1 : 0;
        });
    for (int start = 0; start < repetitions(5, 50); ++start) {
        ASSERT_TRUE(lab.killPtzd(SIGKILL).has_value());
        EXPECT_TRUE(lab.startPtzd()) << lab.error();
        const int before = answered.load();
        EXPECT_TRUE(waitUntil([&] { return answered.load() > before + 10; }, DEADLINE)) << "start " << start;
    }
    ending.store(true);
    for (std::thread& caller : callers)
        caller.join();
}

// Commands of a user, changes of presets and plan, and a tour that always wants to go on: the daemon stays in order.
TEST_F(HeadInTheLab, ToursAndCommandsTogetherLeaveOneIdleForEachMoving)
{
    LabOptions options = fastHead();
    options.config["tour"] = tourPackage("on", 1, -100, 100);
    options.clockSpeed = 100;
    up(options);
    const std::string day = R"({"monday":[)" + planEntry("monday_1", 0, 1440, "1") + "]}";
    for (int round = 0; round < repetitions(15, 300); ++round) {
        // Starts the tour anew whatever a user has done; its step then meets the commands that follow.
        EXPECT_EQ(lab.call("reload_tour_info"), DONE);
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 7));
        EXPECT_EQ(lab.call("setPreset", R"({"id":"1"})"), R"({"name":"preset1","id":"1","error_code":0})");
        EXPECT_EQ(lab.call("set_plan_config", day), DONE);
        EXPECT_EQ(lab.call(round % 2 == 0 ? "stop" : "moveTo", coords(5, 0)), DONE);
        EXPECT_EQ(lab.call("delPreset", R"({"id":["1"]})"), DONE);
    }
    ASSERT_TRUE(lab.uciSet("tour.tour_info.enabled", "off"));
    EXPECT_EQ(lab.call("reload_tour_info"), DONE);
    lab.realTime();
    EXPECT_TRUE(settled());
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
}

} // namespace
