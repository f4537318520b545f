// Step moves, and the commands that cancel them.

#include "head.h"

#include <algorithm>
#include <random>

namespace {

class Step : public HeadInTheLab {
protected:
    std::string step(int direction)
    {
        return lab.call("moveStep", R"({"direction":")" + std::to_string(direction) + "\"}");
    }
    void sustain(int ticks)
    {
        EXPECT_EQ(lab.call("setConfig", R"({"sustain":")" + std::to_string(ticks) + "\"}"), DONE);
    }
    /// Stops of one axis since its last move request.
    std::vector<LabJournalEntry> stopsAfterTheLastMove(LabAxisId axis)
    {
        std::vector<LabJournalEntry> stops;
        for (const LabJournalEntry& entry : driving(axis)) {
            if (entry.request == "MOVE")
                stops.clear();
            else
                stops.push_back(entry);
        }
        return stops;
    }
    bool ends(LabAxisId axis, size_t stops)
    {
        return waitUntil([&] { return stopsAfterTheLastMove(axis).size() >= stops; }, DEADLINE) && settled();
    }
    /// Gives a command while a step is under way and expects the head to do that, undisturbed by the step.
    void cancelBy(int kind)
    {
        switch (kind) {
        case 0:
            ASSERT_EQ(lab.call("moveTo", coords(-100, -30)), DONE);
            ASSERT_TRUE(settled());
            break;
        case 1:
            ASSERT_EQ(lab.call("stop"), DONE);
            EXPECT_TRUE(rests());
            break;
        case 2:
            sustain(30);
            ASSERT_EQ(step(270), DONE);
            ASSERT_TRUE(ends(LAB_TILT, 1));
            EXPECT_EQ(stopsAfterTheLastMove(LAB_TILT).size(), 1u);
            expectTicks(30);
            return;
        default:
            ASSERT_EQ(lab.call("startPanorama"), DONE);
            ASSERT_TRUE(settled());
        }
        if (kind == 1)
            return;
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
            EXPECT_TRUE(stopsAfterTheLastMove(axis).empty()) << "the step's stop reached the motion after it";
            expectCompleted(axis);
        }
        if (kind == 3) {
            EXPECT_EQ(lab.call("stopPanorama"), DONE);
        }
    }
    /// The axis stands where its last move request sent it.
    void expectCompleted(LabAxisId axis)
    {
        const auto requests = driving(axis);
        ASSERT_FALSE(requests.empty());
        const LabJournalEntry& last = requests.back();
        const int32_t target = last.shaft + last.left; // as of the request
        EXPECT_EQ(lab.axisNow(axis).shaft, std::clamp(target, 0, axis == LAB_PAN ? 3000 : 1220));
    }
    /// The closing stop comes so many ticks after the last move request; of the first, part may be over when a step
    /// that is under way is turned.
    void expectTicks(int ticks)
    {
        const auto requests = driving(LAB_TILT);
        ASSERT_GE(requests.size(), 2u);
        EXPECT_GE(requests.back().realNs - requests[requests.size() - 2].realNs, (ticks - 1) * 1'000'000);
    }
};

TEST_F(Step, NeverEndsTheMotionThatCancelsIt)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
    up();
    for (int round = 0; round < repetitions(50, 500) && !HasFailure(); ++round) {
        const int kind = round % 4;
        SCOPED_TRACE("round " + std::to_string(round));
        goTo(0, 0);
        sustain(below(2) == 0 ? 1000 : below(4)); // the step ends at about the same moment
        ASSERT_EQ(step(0), DONE);
        std::this_thread::sleep_for(std::chrono::microseconds(below(3000)));
        cancelBy(kind);
        ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
        ASSERT_TRUE(settled(0)) << "every begin has its end, even of a step cancelled at once";
        lab.forget();
    }
}

TEST_F(Step, AtTheLimitStillGivesWayToTheNextMotion)
{
    up(); // pan is at its limit after 15 ms, where the step ticks on for a second
    EXPECT_EQ(step(0), DONE);
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    lab.setFactor(LAB_PAN, 250);
    EXPECT_EQ(lab.call("moveTo", coords(0, 0)), DONE);
    std::this_thread::sleep_for(1200ms);
    EXPECT_TRUE(stopsAfterTheLastMove(LAB_PAN).empty()) << "cancelled although the axes rested";
    ASSERT_TRUE(settled());
    expectAt(1500, 610);
}

TEST_F(Step, LastsItsTicksFromTheLatestCall)
{
    up(slowHead());
    sustain(300);
    EXPECT_EQ(step(90), DONE);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(step(90), DONE);
    ASSERT_TRUE(ends(LAB_TILT, 1));
    EXPECT_EQ(moves(LAB_TILT), std::vector<int32_t>{670}); // from home, -6 units of 10 steps, to 61
    EXPECT_EQ(moves(LAB_PAN), std::vector<int32_t>{0});
    EXPECT_EQ(requests("STOP"), 2);
    expectTicks(450);
    EXPECT_EQ(lab.actions(), (std::vector<std::string>{"start", "stop"}));
}

TEST_F(Step, TurnsWithoutASecondThread)
{
    up(slowHead());
    sustain(300);
    EXPECT_EQ(step(0), DONE);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(step(135), DONE);
    ASSERT_TRUE(ends(LAB_PAN, 1));
    const std::vector<int32_t> steps = moves(LAB_PAN);
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0], 1500);
    EXPECT_LT(steps[1], -1500) << "back from where it had got to, to step 0";
    EXPECT_EQ(requests("STOP"), 4) << "both axes for the turn and at the end";
    EXPECT_EQ(lab.actions(), (std::vector<std::string>{"start", "stop"}));
    const auto pan = driving(LAB_PAN);
    EXPECT_GE(pan.back().realNs - pan[pan.size() - 2].realNs, 299'000'000);
}

TEST_F(Step, WithoutSustainEndsAtItsFirstTick)
{
    up(slowHead());
    sustain(0);
    EXPECT_EQ(step(180), DONE);
    ASSERT_TRUE(ends(LAB_PAN, 1));
    EXPECT_GT(lab.axisNow(LAB_PAN).shaft, 0) << "the limit is a second and a half away";
    EXPECT_LT(lab.axisNow(LAB_PAN).shaft, 1500);
}

TEST_F(Step, IsRefusedOutsideTheSectorsAndAtTheLimit)
{
    up();
    EXPECT_EQ(lab.call("moveStep"), REFUSED_PARAM);
    EXPECT_TRUE(reported("ubusMoveMotorStep", "UBUS: Invalied parameter."));
    EXPECT_EQ(step(360), REFUSED_PARAM);
    EXPECT_EQ(step(-1), REFUSED_PARAM);
    goTo(150, 0);
    EXPECT_EQ(step(45), REFUSED_NO_TRAVEL);
    EXPECT_EQ(requests("MOVE") + requests("STOP"), 0);
    EXPECT_EQ(step(46), DONE);
}

TEST_F(Step, IsStoppedByTheDaemonsEnd)
{
    up(slowHead());
    EXPECT_EQ(step(0), DONE);
    const auto status = lab.killPtzd(SIGTERM);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 0);
    EXPECT_TRUE(rests());
    EXPECT_LT(lab.axisNow(LAB_PAN).shaft, 3000);
}

} // namespace
