// Presets and tours as callers, the motors and the clock see them.

#include "head.h"

namespace {

using Steps = std::vector<int32_t>;

TEST_F(HeadInTheLab, KeepsPresetsOverARestartAndGoesToThem)
{
    up();
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"75","y_coord":"30"})"), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.call("setPreset", R"({"id":"5","name":"it's","save_ptz":"1"})"),
              R"({"name":"it's","id":"5","error_code":0})");
    ASSERT_EQ(lab.killPtzd(SIGTERM), 0);
    ASSERT_TRUE(lab.startPtzd()) << lab.error();
    EXPECT_EQ(lab.call("getPresetAll"),
              R"({"id":["5"],"name":["it's"],"read_only":["0"],"position_pan":["0.500000"],)"
              R"("position_tilt":["0.491803"],"error_code":0})"); // 2250 of 3000, 910 of 1220
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"0","y_coord":"0"})"), DONE);
    ASSERT_TRUE(settled(3)); // the calibration after the restart is one, too
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 1500);
    lab.forget();
    EXPECT_EQ(lab.call("gotoPreset", R"({"id":"5","speed_pan":"0.5"})"), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 2250);
    EXPECT_EQ(moves(LAB_PAN), Steps{750});
    EXPECT_EQ(lab.call("gotoPreset", R"({"id":"4"})"), R"({"error_code":-64321})");
}

TEST_F(HeadInTheLab, ScansOnItsOwnAndStaysAwayFromAUser)
{
    LabOptions options = fastHead();
    options.config["tour"] = tourPackage("on", 1, -20, 10);
    options.clockSpeed = 20;
    up(options);
    // After the 60 s that follow the calibration, a step and 15 s of rest at a time.
    ASSERT_TRUE(waitUntil([&] { return moves(LAB_PAN).size() >= 5; }, DEADLINE)) << lab.ptzdLog();
    Steps steps = moves(LAB_PAN);
    steps.resize(5);
    EXPECT_EQ(steps, (Steps{-200, 100, 100, 100, -100}));
    EXPECT_TRUE(moves(LAB_TILT).empty());
    for (const LabCetEntry& entry : lab.cetLog()) {
        EXPECT_TRUE(entry.isEvent || entry.text == "3") << "the origin is a tour's";
    }
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    EXPECT_EQ(lab.call("stop"), DONE);
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"100","y_coord":"0"})"), DONE);
    ASSERT_TRUE(waitUntil([&] { return rests() && lab.axisNow(LAB_PAN).shaft == 2500; }, DEADLINE));
    const int64_t rested = lab.labTimeNs();
    ASSERT_TRUE(waitUntil([&] { return lab.axisNow(LAB_PAN).shaft != 2500; }, DEADLINE));
    EXPECT_GT(lab.labTimeNs() - rested, 50'000'000'000) << "a minute, less what the test itself takes";
    ASSERT_TRUE(lab.uciSet("tour.tour_info.enabled", "off"));
    EXPECT_EQ(lab.call("reload_tour_info"), DONE);
    lab.realTime();
}

TEST_F(HeadInTheLab, FollowsTheWeeklyPlan)
{
    LabOptions options = fastHead();
    options.config["tour"] = tourPackage("on", 2, 0, 0);
    options.clockSpeed = 20;
    options.wallClock = "2031-05-05 07:50:00"; // a Monday
    up(options);
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"75","y_coord":"-6"})"), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.call("setPreset", R"({"id":"3","save_ptz":"1"})"), R"({"name":"preset3","id":"3","error_code":0})");
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"0","y_coord":"-6"})"), DONE);
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(lab.call("set_plan_config", R"({"monday":[)" + planEntry("monday_1", 480, 720, "3") + "]}"), DONE);
    EXPECT_EQ(lab.uciGet("ptz_plan.monday_1.action_id"), "3");
    lab.forget();
    const int64_t start = lab.labTimeNs();
    ASSERT_TRUE(waitUntil([&] { return lab.labTimeNs() - start > 70'000'000'000; }, DEADLINE));
    EXPECT_TRUE(moves(LAB_PAN).empty()) << "not 08:00 yet";
    ASSERT_TRUE(lab.setWall("2031-05-05 08:00:00"));
    ASSERT_TRUE(waitUntil([&] { return lab.axisNow(LAB_PAN).shaft == 2250; }, DEADLINE)) << lab.ptzdLog();
    ASSERT_TRUE(settled());
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(moves(LAB_PAN), Steps{750}) << "once";
    EXPECT_EQ(lab.call("delPreset", R"({"id":["3"]})"), DONE);
    EXPECT_EQ(lab.uciGet("ptz_plan.monday_1"), std::nullopt);
    lab.realTime();
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
        EXPECT_EQ(lab.call(round % 2 == 0 ? "stop" : "moveTo", R"({"x_coord":"5","y_coord":"0"})"), DONE);
        EXPECT_EQ(lab.call("delPreset", R"({"id":["1"]})"), DONE);
    }
    ASSERT_TRUE(lab.uciSet("tour.tour_info.enabled", "off"));
    EXPECT_EQ(lab.call("reload_tour_info"), DONE);
    lab.realTime();
    EXPECT_TRUE(settled());
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
}

} // namespace
