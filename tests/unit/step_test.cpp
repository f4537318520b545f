// Where a step move aims; its thread, and commands at every point of what that does.

#include "head.h"
#include "motion/step.h"

namespace {

class Step : public Head {
protected:
    void SetUp() override
    {
        Head::SetUp();
        gContext.calibrationArg = targets;
    }
    static std::string step(int direction)
    {
        return call("moveStep", R"({"direction":")" + std::to_string(direction) + R"("})");
    }
    static void start(int direction = 0)
    {
        EXPECT_EQ(step(direction), code(RESULT_OK));
    }
    /// Runs `command` at a tick of the thread that is to run.
    static void atTick(int tick, const std::function<void()>& command)
    {
        fakes.onSleep = [=] {
            if (fakes.sleeps == tick)
                command();
        };
    }
    bool active()
    {
        LockGuard hold(motion.MotionLock);
        return motion.stepMoveActive != 0;
    }

    CalibrationTarget targets[AXIS_COUNT]{};
};

TEST_F(Step, AimsOneAxisAtItsLimitByTheSectorOfTheDirection)
{
    const std::string right = "pan move 1500 at 0, tilt move 0 at 0", up = "pan move 0 at 0, tilt move 610 at 0",
                      left = "pan move -1500 at 0, tilt move 0 at 0", down = "pan move 0 at 0, tilt move -390 at 0";
    const std::pair<int, std::string> cases[] = {{0, right},  {45, right}, {46, up},    {134, up},    {135, left},
                                                 {225, left}, {226, down}, {314, down}, {315, right}, {359, right}};
    for (const auto& [direction, moves] : cases) {
        restart();
        start(direction);
        EXPECT_EQ(driven(), moves) << direction;
    }
}

TEST_F(Step, GoesOnForAsLongAgainWithEachRepetitionAndTurnsWithEachNewDirection)
{
    motion.stepSustainTicks.store(10);
    start();
    EXPECT_EQ(driven(), "pan move 1500 at 0, tilt move 0 at 0");
    atTick(5, [] {
        start();
        EXPECT_EQ(driven(), "") << "it moves already";
        start(180);
        EXPECT_EQ(driven(), "pan stop, tilt stop, pan move -1500 at 0, tilt move 0 at 0");
        start(180);
        EXPECT_EQ(driven(), "") << "it has turned already";
    });
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 4 + 10);
    EXPECT_EQ(driven(), "pan stop, tilt stop");
    EXPECT_TRUE(fakes.workers.empty()) << "one thread for all";
}

TEST_F(Step, ATurnIsAnnouncedAgainOnlyWhenTheHeadHasRestedBefore)
{
    start();
    atTick(1, [] {
        atNext(PAN, MOTOR_IOC_MOVE, [] { motorStatusPoll(nullptr); }); // both axes rest, halted for the turn
        start(180);
        EXPECT_EQ(fakes.notifications.size(), 1u) << "the motion goes on";
        restAt(0, 610); // at the limit long before its ticks are over
        start(0);
        EXPECT_EQ(fakes.notifications.size(), 3u);
        fakes.turnsLeft = 0;
    });
    fakes.runWorker();
}

/// Every command that drives the head, whether it finds the axes running or, at the limit, at rest.
TEST_F(Step, EveryOtherMotionCancelsTheStepWhoseStopsDoNotFollow)
{
    const std::string track = R"({"x_coord":"-1","y_coord":"0","x_speed":"1","y_speed":"1"})";
    const std::pair<std::string, std::string> commands[] = {
        {"move", xy(-1, 0)},       {"moveTo", xy(1, 1)},        {"stop", "{}"},
        {"startPanorama", "{}"},   {"movePanorama", xy(-1, 0)}, {"targetTrack", track},
        {"targetTrackBack", "{}"}, {"manualCalibrate", "{}"},
    };
    for (const auto& command : commands) {
        for (const int32_t running : {0, 1}) {
            if (running != 0 && command.second == track)
                continue; // is refused
            SCOPED_TRACE(command.first + " " + std::to_string(running));
            restart({{"ptzd", position(10, 10)}});
            gContext.calibrationArg = targets;
            start();
            fakeMotor.status[PAN].running = running;
            atTick(5, [&] {
                motion.motion_origin.store(command.first == "targetTrackBack" ? ORIGIN_TRACK : ORIGIN_USER);
                EXPECT_EQ(call(command.first, command.second), code(RESULT_OK));
                EXPECT_FALSE(active());
                fakeMotor.requests.clear();
            });
            fakes.runWorker();
            EXPECT_EQ(fakes.sleeps, 5);
            EXPECT_EQ(driven(), "") << "the old thread's stop would end the new motion";
        }
    }
}

TEST_F(Step, ACancelledThreadNeitherBeginsNorSharesTheCountOfANewStep)
{
    motion.stepSustainTicks.store(10);
    start();
    EXPECT_EQ(call("stop"), code(RESULT_OK));
    fakes.runWorker();
    EXPECT_TRUE(fakes.notifications.empty()) << "begun although cancelled before";
    start();
    atTick(3, [] { // cancelled and stepped anew between two ticks
        EXPECT_EQ(call("moveTo", xy(1, 1)), code(RESULT_OK));
        start();
        fakeMotor.requests.clear();
    });
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 3);
    EXPECT_EQ(driven(), "");
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 3 + 10) << "the newest step has lost a tick";
}

} // namespace
