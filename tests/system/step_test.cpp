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
    /// How many stops one axis has got since its last move request.
    size_t stopsAfterTheLastMove(LabAxisId axis)
    {
        const auto requests = driving(axis);
        const auto isMove = [](const LabJournalEntry& entry) { return entry.request == "MOVE"; };
        return static_cast<size_t>(std::find_if(requests.rbegin(), requests.rend(), isMove) - requests.rbegin());
    }
    /// Expects the motion that has cancelled a step to go where it was sent.
    void expectUndisturbed()
    {
        ASSERT_TRUE(settled());
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
            EXPECT_EQ(stopsAfterTheLastMove(axis), 0u) << "the step's stop reached the motion after it";
            const LabJournalEntry last = driving(axis).back();
            const int32_t target = last.shaft + last.left; // as of the request
            EXPECT_EQ(lab.motors.now(axis).shaft, std::clamp(target, 0, axis == LAB_PAN ? 3000 : 1220));
        }
    }
    /// Turns the step that is under way, or has just ended, to another direction: 30 ticks more, of which part of the
    /// first may be over.
    void expectTurn()
    {
        sustain(30);
        ASSERT_EQ(step(270), DONE);
        ASSERT_TRUE(waitUntil([&] { return stopsAfterTheLastMove(LAB_TILT) > 0; }, DEADLINE) && settled());
        EXPECT_EQ(stopsAfterTheLastMove(LAB_TILT), 1u);
        const auto requests = driving(LAB_TILT);
        EXPECT_GE(requests.back().realNs - requests[requests.size() - 2].realNs, 29'000'000);
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
        SCOPED_TRACE("round " + std::to_string(round));
        goTo(0, 0);
        sustain(below(2) == 0 ? 1000 : below(4)); // the step ends at about the same moment
        ASSERT_EQ(step(0), DONE);
        std::this_thread::sleep_for(std::chrono::microseconds(below(3000)));
        switch (round % 4) {
        case 0:
            ASSERT_EQ(lab.call("moveTo", coords(-100, -30)), DONE);
            expectUndisturbed();
            break;
        case 1:
            ASSERT_EQ(lab.call("stop"), DONE);
            EXPECT_TRUE(rests());
            break;
        case 2:
            expectTurn();
            break;
        default:
            ASSERT_EQ(lab.call("startPanorama"), DONE);
            expectUndisturbed();
            EXPECT_EQ(lab.call("stopPanorama"), DONE);
        }
        ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
        ASSERT_TRUE(settled(0)) << "every begin has its end, even of a step cancelled at once";
        lab.records.clear();
    }
}

} // namespace
