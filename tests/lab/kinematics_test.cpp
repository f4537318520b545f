// Where an axis is at a given moment, worked out by hand.

#include "lab/kinematics.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t MS = 1'000'000;

/// 100 steps a second for each unit of speed, at speed 3, in the middle of 1000 steps.
LabAxis middle()
{
    LabAxis axis{};
    axis.range = 100;
    axis.maxSpeed = 8;
    axis.totalSteps = 1000;
    axis.factor = 100;
    axis.shaft = 500;
    axis.count = 500;
    axis.speed = 3;
    axis.direction = 1;
    return axis;
}

TEST(Kinematics, MakesWholeStepsAtConstantSpeedHoweverOftenItIsLookedAt)
{
    LabAxis axis = middle();
    startMotion(axis, 1000 * MS, 2, -10); // 200 steps a second: one in 5 ms
    EXPECT_EQ(axisAt(axis, 1004 * MS).count, 500);
    EXPECT_EQ(axisAt(axis, 1005 * MS).count, 499);
    const LabAxisNow late = axisAt(axis, 1049 * MS);
    EXPECT_EQ(late.left, -1);
    EXPECT_EQ(late.speed, 2);
    EXPECT_EQ(late.direction, -1);
    EXPECT_EQ(late.rate, -200);
    EXPECT_EQ(axisAt(axis, 1050 * MS).running, 0);
    EXPECT_EQ(axisAt(axis, 1050 * MS).speed, 3) << "at rest the configured speed counts";
    startMotion(axis, 2000 * MS, 0, 300); // 300 steps a second, a step in 3 1/3 ms
    for (int64_t t = 2000 * MS; t < 3000 * MS; t += 1'234'567)
        settleAxis(axis, t);
    EXPECT_EQ(axisAt(axis, 2999 * MS).count, 789);
    EXPECT_EQ(axisAt(axis, 3000 * MS).count, 790);
    startMotion(axis, 3000 * MS, 0, -300);
    setAxisSpeed(axis, 3500 * MS, 1);     // 150 steps made, 150 left at 100 a second
    setAxisFactor(axis, 4000 * MS, 1000); // 100 left at 1000 a second
    EXPECT_EQ(motionEndNs(axis), 4100 * MS);
    startMotion(axis, 4000 * MS, 1, INT32_MIN); // 2,147,483,648 steps at 1000 a second: nothing overflows
    EXPECT_EQ(motionEndNs(axis), 4000 * MS + 2'147'483'648'000'000);
}

TEST(Kinematics, TheShaftStopsAtAnEndWhileTimePassesAndTheCountIsClamped)
{
    LabAxis axis = middle();
    setAxisCount(axis, 0, 100); // the driver is wrong by 400
    startMotion(axis, 0, 1, -700);
    EXPECT_EQ(axisAt(axis, 2000 * MS).count, 0);
    EXPECT_EQ(axisAt(axis, 6999 * MS).running, 1);
    EXPECT_EQ(axisAt(axis, 7000 * MS).running, 0);
    EXPECT_EQ(axisAt(axis, 7000 * MS).shaft, 0);
}

TEST(Kinematics, RemembersWhichMotionsRanToTheirEndAndWhereTheShaftIsWithoutPower)
{
    LabAxis axis = middle();
    const uint32_t whole = startMotion(axis, 0, 1, 10);
    const uint32_t replaced = startMotion(axis, 100 * MS, 1, 10); // just when the first is over
    const uint32_t stopped = startMotion(axis, 150 * MS, 1, 10);
    stopMotion(axis, 249 * MS);
    const uint32_t nothing = startMotion(axis, 300 * MS, 1, 0);
    EXPECT_EQ(axisAt(axis, 300 * MS).count, 500 + 10 + 5 + 9);
    const uint32_t powerless = startMotion(axis, 1000 * MS, 1, -100);
    losePower(axis, 1500 * MS);
    EXPECT_EQ(axisAt(axis, 5000 * MS).shaft, 524 - 50);
    EXPECT_EQ(axisAt(axis, 5000 * MS).count, 0);
    const std::pair<uint32_t, bool> completed[] = {
        {whole, true}, {replaced, false}, {stopped, false}, {nothing, true}, {powerless, false}};
    for (const auto& [motion, expected] : completed)
        EXPECT_EQ(motionCompleted(axis, motion), expected) << motion;
}

} // namespace
