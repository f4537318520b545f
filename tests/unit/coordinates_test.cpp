#include "fakes/stored_head.h"
#include "motor/coordinates.h"
#include "motor/motor_report.h"

#include <limits>

namespace {

class Coordinates : public testing::Test {
protected:
    void SetUp() override
    {
        resetDaemon();
    }
};

TEST_F(Coordinates, TruncateTowardZeroBothWays)
{
    gContext.axes[TILT].total_steps = 1000;
    EXPECT_EQ(coordToSteps(TILT, -6), 451); // -6000 / 122 is -49, not -50; and 500
    EXPECT_EQ(homeSteps(TILT), 451);
    EXPECT_EQ(coordToSteps(TILT, -61), 0);
    EXPECT_EQ(coordToSteps(TILT, 61), 1000);
    EXPECT_EQ(stepsToCoord(TILT, 451), -6); // 55022 / 1000 is 55, less 61
    gContext.axes[PAN].range = 301;
    gContext.axes[PAN].total_steps = 3001;
    EXPECT_EQ(coordToSteps(PAN, 0), 1500);
    EXPECT_EQ(stepsToCoord(PAN, 0), -150);
    EXPECT_EQ(stepsToCoord(PAN, 3001), 151);
}

TEST_F(Coordinates, RelativeStepsAreCutAtTheLimitsWhichIncludeBothEnds)
{
    EXPECT_TRUE(withinLimits(PAN, -150) && withinLimits(PAN, 150) && withinLimits(TILT, -39) && withinLimits(TILT, 61));
    EXPECT_FALSE(withinLimits(PAN, -151) || withinLimits(PAN, 151) || withinLimits(TILT, -40) ||
                 withinLimits(TILT, 62));
    constexpr int64_t HUGE_WAY = int64_t{std::numeric_limits<int32_t>::max()} + 1;
    const struct {
        AxisIndex axis;
        int64_t way;
        int32_t from, steps;
    } cases[] = {
        {PAN, 10, 1500, 100},      {PAN, 149, 1500, 1490},      {PAN, 151, 1500, 1500},
        {PAN, -1000, 1500, -1500}, {PAN, 1, 3000, 0},           {TILT, -100, 610, -390}, // -39 is at step 220
        {TILT, -1, 220, 0},        {PAN, HUGE_WAY, 1500, 1500}, {PAN, -HUGE_WAY, 1500, -1500},
    };
    for (const auto& one : cases)
        EXPECT_EQ(relativeSteps(one.axis, one.way, one.from), one.steps) << one.way;
    gContext.axes[PAN].total_steps = std::numeric_limits<int32_t>::max();
    gContext.axes[PAN].range = 1;
    EXPECT_EQ(coordToSteps(PAN, std::numeric_limits<int32_t>::min()), std::numeric_limits<int32_t>::min());
}

TEST_F(StoredHead, ShowsTheNearestSpeedThatExistsForADriversNonsense)
{
    constexpr int32_t MOST = std::numeric_limits<int32_t>::max();
    fakeMotor.status[PAN] = {0, MOST, 0, MOST, MOST};
    fakeMotor.status[TILT] = {0, MOST, 0, MOST, -MOST};
    EXPECT_NE(call(ubusGetMotorStatus).find(R"("x_speed":"2147483647","y_speed":"-2147483648")"), std::string::npos);
}

} // namespace
