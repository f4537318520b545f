// The bus that goes away, callers that wait for the start, and random interleavings of all that moves the head.

#include "head.h"

#include <atomic>
#include <random>
#include <thread>
#include <utility>

namespace {

TEST_F(HeadInTheLab, IsBackAfterEveryRestartOfTheBus)
{
    up(slowHead());
    for (int round = 0; round < repetitions(5, 50); ++round) {
        lab.records.clear();
        ASSERT_EQ(lab.call("moveTo", coords(round % 2 == 0 ? 60 : 0, 0)), DONE) << round;
        ASSERT_TRUE(lab.programs.stopBus());
        ASSERT_TRUE(lab.programs.startBus()) << lab.error();
        const auto restarted = std::chrono::steady_clock::now();
        ASSERT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE)) << round;
        const auto took = std::chrono::steady_clock::now() - restarted;
        EXPECT_LT(took, std::getenv("PTZD_LONG_TESTS") ? 2500ms : 10000ms) << round;
        ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
        ASSERT_EQ(lab.motors.now(LAB_PAN).shaft, round % 2 == 0 ? 2100 : 1500)
            << "the motion ends as if nothing happened";
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
        ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
        EXPECT_TRUE(lab.programs.startPtzd()) << lab.error();
        const int before = answered.load();
        EXPECT_TRUE(waitUntil([&] { return answered.load() > before + 10; }, DEADLINE)) << "start " << start;
    }
    ending.store(true);
    for (std::thread& caller : callers)
        caller.join();
}

/// Every start is answered by one stop before the next, calls and events alike.
void expectAlternation(const std::vector<LabCetEntry>& log)
{
    bool moving = false;
    bool started = false;
    for (const LabCetEntry& entry : log) {
        bool& state = entry.isEvent ? started : moving;
        const bool begins = entry.isEvent ? entry.text == "start" : entry.name == "notify_motor_moving";
        EXPECT_NE(state, begins) << entry.name << " " << entry.text << " twice";
        state = begins;
    }
    EXPECT_FALSE(moving || started) << "a motion has not ended";
}

TEST_F(HeadInTheLab, KeepsEveryMotionWholeUnderRandomInterleavings)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return static_cast<int32_t>(random() % n); };
    LabOptions options = fastHead();
    options.factor = 5000;
    up(options);
    const LabRequest disturbed[] = {LAB_GET_STATUS, LAB_MOVE, LAB_STOP};
    for (int i = 0; i < repetitions(200, 2000); ++i) {
        if (below(4) == 0)
            lab.motors.failRequest(below(2) ? LAB_PAN : LAB_TILT, disturbed[below(3)]);
        if (below(4) == 0)
            lab.motors.delayRequest(below(2) ? LAB_PAN : LAB_TILT, disturbed[below(3)], below(30));
        const std::string x = std::to_string(below(301) - 150);
        const std::string y = std::to_string(below(100) - 39);
        const std::string coords = R"({"x_coord":")" + x + R"(","y_coord":")" + y + "\"}";
        const int kind = below(8);
        const std::string reply = kind == 7 ? lab.call("stop") : lab.call(kind < 4 ? "moveTo" : "move", coords);
        EXPECT_TRUE(reply == DONE || reply == REFUSED_DEVICE || reply == REFUSED_NO_TRAVEL) << reply;
        std::this_thread::sleep_for(std::chrono::milliseconds(below(3) == 0 ? below(120) : below(12)));
    }
    ASSERT_TRUE(lab.motors.clearFaults(LAB_PAN) && lab.motors.clearFaults(LAB_TILT));
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    ASSERT_TRUE(settled());
    const auto polled = [&] { return lab.motors.served(LAB_PAN, LAB_GET_STATUS); };
    uint32_t last = polled();
    EXPECT_TRUE(waitUntil(
        [&] {
            std::this_thread::sleep_for(200ms);
            return std::exchange(last, polled()) == last;
        },
        DEADLINE))
        << "the poll runs on";
    expectAlternation(lab.records.cetLog());
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
    ASSERT_TRUE(lab.settings.set("tour.tour_info.enabled", "off"));
    EXPECT_EQ(lab.call("reload_tour_info"), DONE);
    lab.clock.realTime();
    EXPECT_TRUE(settled());
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    expectAlternation(lab.records.cetLog());
}

} // namespace
