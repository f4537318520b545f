// Where a step move aims; its thread, and commands at every point of what that does.

#include "config/uci_store.h"
#include "fakes/stored_head.h"
#include "motion/move.h"
#include "motion/panorama.h"
#include "motion/step.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "motor/status_poll.h"

#include <limits>

namespace {

class Step : public StoredHead {
protected:
    void SetUp() override
    {
        StoredHead::SetUp();
        motion.stepSustainTicks.store(1000);
    }
    void TearDown() override
    {
        stepMoveCancel();
        StoredHead::TearDown();
    }
    static void storePosition()
    {
        write("ptzd", "config motor 'x_motor'\n\toption steps '10'\nconfig motor 'y_motor'\n\toption steps '10'\n");
        cfg_uci_pkg_reload(UCI_PTZD);
    }
    bool active()
    {
        LockGuard hold(motion.MotionLock);
        return motion.stepMoveActive != 0;
    }
    int32_t remaining()
    {
        LockGuard hold(motion.MotionLock);
        return motion.stepMoveRemaining;
    }
};

TEST_F(Step, AimsOneAxisAtItsLimitByTheSectorOfTheDirection)
{
    // From the middle pan has 1500 steps to either limit; tilt 610 up to 61 units and 390 down to -39.
    using Steps = std::pair<int32_t, int32_t>;
    const Steps right{1500, 0}, up{0, 610}, left{-1500, 0}, down{0, -390};
    const std::pair<int32_t, Steps> cases[] = {{0, right},  {45, right}, {46, up},    {134, up},    {135, left},
                                               {225, left}, {226, down}, {314, down}, {315, right}, {359, right}};
    for (const auto& [direction, steps] : cases) {
        stepMoveCancel();
        fakeMotor.requests.clear();
        ASSERT_EQ(stepHead(direction), RESULT_OK) << direction;
        const auto moves = fakeMotor.sent(MOTOR_IOC_MOVE);
        EXPECT_EQ(Steps(moves.at(0).steps, moves.at(1).steps), steps) << direction;
    }
}

TEST_F(Step, MovesForItsTicksOneAtLeastAndStopsBothAxes)
{
    for (const auto& [sustain, ticks] : {std::pair{3, 3}, {1, 1}, {0, 1}, {std::numeric_limits<int32_t>::min(), 1}}) {
        resetDaemon();
        motion.stepSustainTicks.store(sustain);
        EXPECT_EQ(stepHead(0), RESULT_OK);
        fakes.runWorker();
        EXPECT_EQ(fakes.sleeps, ticks) << sustain;
        EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);
        EXPECT_FALSE(active());
    }
}

TEST_F(Step, ATurnIsNotTakenForTheEndBetweenItsStopsAndItsMoves)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.onSleep = [] {
        atNext(PAN, MOTOR_IOC_MOVE, [] { motorStatusPoll(nullptr); }); // both axes rest, halted
        EXPECT_EQ(stepHead(180), RESULT_OK);
        fakes.stopping = true;
    };
    fakes.runWorker();
    EXPECT_EQ(fakes.notifications.size(), 1u) << "the motion goes on";
    EXPECT_TRUE(fakes.armed(timers.statusPollTimer));
}

TEST_F(Step, ATurnAwayFromTheLimitIsAnnouncedAgain)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.onSleep = [] {
        fakeMotor.status[PAN].position = 3000; // at the limit long before its ticks are over
        motorStatusPoll(nullptr);
        EXPECT_EQ(fakes.notifications.size(), 2u);
        EXPECT_EQ(stepHead(180), RESULT_OK);
        EXPECT_EQ(fakes.notifications.size(), 3u);
        motorStatusPoll(nullptr);
        EXPECT_EQ(fakes.notifications.size(), 4u);
        fakes.stopping = true;
    };
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 1);
}

TEST_F(Step, AStopRightAfterTheBeginStepEndsTheMotion)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.beforeTimerStart = [] { // the thread has given MotionStateLock back and arms the poll
        fakes.beforeTimerStart = nullptr;
        EXPECT_EQ(stopHead(), RESULT_OK);
        EXPECT_EQ(fakes.notifications.size(), 2u) << "the stop announces the end itself";
    };
    fakes.runWorker();
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.size(), 2u);
    EXPECT_EQ(motion.motion_active.load(), 0);
}

/// Every command that drives the head, whether it finds the axes running or, at the limit, at rest.
TEST_F(Step, EveryOtherMotionCancelsTheStepWhoseStopsDoNotFollow)
{
    CalibrationTarget targets[AXIS_COUNT]{};
    gContext.calibrationArg = targets;
    const struct {
        const char* name;
        std::function<ResultCode()> run;
        bool onlyAtRest = false;
    } commands[] = {
        {"move", [] { return moveHead(-1, 0); }},
        {"moveTo", [] { return moveHeadTo(1, 1); }},
        {"stop", [] { return stopHead(); }},
        {"startPanorama", [] { return panoramaStart(); }},
        {"movePanorama", [] { return panoramaMove(-1, 0); }},
        {"targetTrack", [] { return trackTarget(-1, 0, 1, 1); }, true},
        {"targetTrackBack",
         [this] {
             motion.motion_origin.store(ORIGIN_TRACK);
             return moveToLastPostion();
         }},
        {"manualCalibrate", [] { return call(ubusManualCalibrate) == R"({"error_code":0})" ? RESULT_OK : ERR_DEVICE; }},
    };
    for (const auto& command : commands) {
        for (const int32_t running : {0, 1}) {
            if (running != 0 && command.onlyAtRest)
                continue;
            SCOPED_TRACE(std::string(command.name) + " " + std::to_string(running));
            resetDaemon();
            storePosition();
            EXPECT_EQ(stepHead(0), RESULT_OK);
            auto* const thread = fakes.worker;
            fakeMotor.status[PAN].running = running;
            fakes.onSleep = [&] {
                if (fakes.sleeps != 5)
                    return;
                EXPECT_EQ(command.run(), RESULT_OK);
                EXPECT_FALSE(active());
                fakeMotor.requests.clear();
            };
            thread(fakes.workerArgument);
            EXPECT_EQ(fakes.sleeps, 5);
            EXPECT_TRUE(driven().empty()) << "the old thread's stop would end the new motion";
        }
    }
    gContext.calibrationArg = nullptr;
}

TEST_F(Step, ACancelledThreadNeitherBeginsNorSharesTheCountOfANewStep)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    auto* const oldThread = fakes.worker;
    void* const oldArgument = fakes.workerArgument;
    EXPECT_EQ(stopHead(), RESULT_OK);
    oldThread(oldArgument);
    EXPECT_TRUE(fakes.notifications.empty()) << "begun although cancelled before";

    EXPECT_EQ(stepHead(0), RESULT_OK);
    oldThread(oldArgument);
    EXPECT_EQ(fakes.sleeps, 0);
    EXPECT_EQ(remaining(), 1000) << "the new step has lost a tick";
    EXPECT_TRUE(active());

    fakes.onSleep = [&] { // cancelled and stepped anew between two ticks of the second thread
        fakes.onSleep = nullptr;
        EXPECT_EQ(moveHeadTo(1, 1), RESULT_OK);
        EXPECT_EQ(stepHead(0), RESULT_OK);
        fakeMotor.requests.clear();
    };
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 1);
    EXPECT_EQ(remaining(), 1000);
    EXPECT_TRUE(driven().empty());
}

TEST_F(Step, TheDaemonsEndStopsItBeforeItsThreadHasRunAndAmidItsTicks)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.stopping = true;
    fakes.runWorker();
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);
    EXPECT_TRUE(fakes.notifications.empty());

    fakes.stopping = false;
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.onSleep = [] { fakes.stopping = fakes.sleeps == 3; };
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 3);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 4u);
}

} // namespace
