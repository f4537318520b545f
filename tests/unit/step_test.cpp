#include "fakes/motion_fixture.h"
#include "motion/move.h"
#include "motion/panorama.h"
#include "motion/step.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/position_store.h"

#include <limits>

namespace {

class Step : public MotionTest {
protected:
    void TearDown() override
    {
        stepMoveCancel();
    }
    static int32_t active()
    {
        LockGuard hold(gContext.motion.MotionLock);
        return gContext.motion.stepMoveActive;
    }
    static int32_t remaining()
    {
        LockGuard hold(gContext.motion.MotionLock);
        return gContext.motion.stepMoveRemaining;
    }
    static void expectCleared()
    {
        LockGuard hold(gContext.motion.MotionLock);
        EXPECT_EQ(gContext.motion.stepMoveActive, 0);
        EXPECT_EQ(gContext.motion.stepMoveDirection, 0);
        EXPECT_EQ(gContext.motion.stepMoveRemaining, 0);
    }
    /// Steps once from the middle and gives the steps of both axes.
    static std::pair<int32_t, int32_t> aim(int32_t direction)
    {
        stepMoveCancel();
        fakeMotor.requests.clear();
        EXPECT_EQ(stepHead(direction), RESULT_OK) << direction;
        const auto moves = fakeMotor.sent(MOTOR_IOC_MOVE);
        if (moves.size() != 2)
            return {};
        return {moves[0].steps, moves[1].steps};
    }
};

TEST_F(Step, AimsOneAxisAtItsLimitByTheSectorOfTheDirection)
{
    // From the middle pan has 1500 steps to either limit; tilt 610 up to 61 units and 390 down to -39.
    using Steps = std::pair<int32_t, int32_t>;
    const Steps right{1500, 0}, up{0, 610}, left{-1500, 0}, down{0, -390};
    const std::pair<int32_t, Steps> cases[] = {{0, right},  {45, right}, {46, up},    {134, up},    {135, left},
                                               {225, left}, {226, down}, {314, down}, {315, right}, {359, right}};
    for (const auto& [direction, steps] : cases)
        EXPECT_EQ(aim(direction), steps) << direction;
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[0].speed, 0) << "the configured speed";
    for (int32_t type = 1; type < 4; ++type) {
        gContext.image.imageFlipType.store(type);
        EXPECT_EQ(aim(0), type % 2 == 0 ? right : left) << type;
        EXPECT_EQ(aim(90), type < 2 ? up : down) << type;
    }
}

TEST_F(Step, IsRefusedInOrderAndLeavesTheHeadAlone)
{
    standAt(3000, 610);
    fakeMotor.status[TILT].running = 1;
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    gContext.panorama.panoramaRunning.store(1);
    lensMaskSetEnabled(1);
    gContext.motion.calibrating.store(1);
    for (const int32_t none : {-1, 360, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()})
        EXPECT_EQ(stepHead(none), ERR_PARAM);
    EXPECT_TRUE(fakes.reports.empty());
    EXPECT_EQ(stepHead(0), ERR_CALIBRATING);
    gContext.motion.calibrating.store(0);
    EXPECT_EQ(stepHead(0), ERR_LENS_MASK);
    lensMaskSetEnabled(0);
    EXPECT_EQ(stepHead(0), ERR_PANORAMA);
    gContext.panorama.panoramaRunning.store(0);
    EXPECT_EQ(stepHead(0), ERR_DEVICE);
    fakeMotor.failing.clear();
    EXPECT_EQ(stepHead(0), ERR_NO_TRAVEL);
    expectUntouched();
    EXPECT_EQ(aim(90), (std::pair{0, 610})) << "the other axis has a way to go";
    standAt(1500, 610);
    fakeMotor.requests.clear();
    EXPECT_EQ(fakes.call(ubusMoveMotorStep), ERR_PARAM);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusMoveMotorStep", "UBUS: Invalied parameter.\n"}}));
    EXPECT_EQ(fakes.call(ubusMoveMotorStep, {{"direction", "abc"}}), RESULT_OK) << "other text is zero";
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[0].steps, 1500);
}

TEST_F(Step, MovesForItsTicksAndStopsBothAxes)
{
    constexpr int32_t LOWEST = std::numeric_limits<int32_t>::min();
    for (const auto& [sustain, ticks] : {std::pair{3, 3}, {1, 1}, {0, 1}, {-5, 1}, {LOWEST, 1}}) {
        resetDaemon();
        gContext.motion.stepSustainTicks.store(sustain);
        EXPECT_EQ(stepHead(0), RESULT_OK);
        EXPECT_TRUE(fakes.notifications.empty()) << "the thread begins the motion";
        EXPECT_EQ(fakes.timers[&timers.saveStepsTimer].firstNs, 10'000'000'000);
        fakes.runWorker();
        EXPECT_EQ(fakes.sleeps, ticks) << sustain;
        EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 0, 1500), move(TILT, 0, 0), stop(PAN), stop(TILT)}));
        EXPECT_EQ(fakes.notifications, (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_USER}}));
        EXPECT_EQ(gContext.motion.user_moved_recently.load(), 1);
        expectCleared();
        motorStatusPoll(nullptr);
        EXPECT_EQ(fakes.notifications.size(), 2u) << "nothing is left pending: the poll ends the motion";
        EXPECT_EQ(gContext.motion.motion_active.load(), 0);
    }
}

TEST_F(Step, IsExtendedByTheSameDirectionWithoutARequest)
{
    gContext.motion.stepSustainTicks.store(10);
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.onSleep = [] {
        if (fakes.sleeps == 7) {
            EXPECT_EQ(stepHead(0), RESULT_OK);
            EXPECT_EQ(remaining(), 10);
        }
    };
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 16) << "six ticks, then ten anew";
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);
}

TEST_F(Step, IsTurnedIntoAnotherDirectionByTheSameThread)
{
    gContext.motion.stepSustainTicks.store(10);
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.onSleep = [] {
        if (fakes.sleeps == 4) {
            EXPECT_EQ(stepHead(181), RESULT_OK);
            fakeMotor.fail(PAN, MOTOR_IOC_STOP);
            EXPECT_EQ(stepHead(90), ERR_DEVICE);
            fakeMotor.failing.clear();
        }
    };
    fakes.runWorker();
    EXPECT_EQ(fakes.worker, nullptr) << "no second thread";
    EXPECT_EQ(fakes.sleeps, 13) << "a turn that failed leaves the count alone";
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 0, 1500), move(TILT, 0, 0), stop(PAN), stop(TILT),
                                                  move(PAN, 0, -1500), move(TILT, 0, 0), stop(PAN), stop(TILT),
                                                  stop(PAN), stop(TILT)}))
        << "tilt is stopped although pan refuses";
}

TEST_F(Step, IsNotTakenForEndedBetweenTheStopsAndTheMovesOfATurn)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    EXPECT_EQ(beginAndDrive(MotionBegin::User, {}, {}), RESULT_OK); // what its thread begins with
    fakeMotor.onRequest = [](const FakeRequest& request) {
        if (request.axis == PAN && request.number == MOTOR_IOC_MOVE)
            motorStatusPoll(nullptr); // both axes rest, halted
    };
    EXPECT_EQ(stepHead(180), RESULT_OK);
    EXPECT_EQ(fakes.notifications.size(), 1u) << "the motion goes on";
    EXPECT_TRUE(fakes.armed(gContext.timers.statusPollTimer));
}

TEST_F(Step, IsAnnouncedAgainWhenItTurnsAwayFromTheLimitItRestedAt)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    EXPECT_EQ(beginAndDrive(MotionBegin::Step, {}, {}), RESULT_OK);
    fakeMotor.status[PAN].position = 3000; // at the limit long before its ticks are over
    motorStatusPoll(nullptr);
    ASSERT_EQ(fakes.notifications.size(), 2u);
    EXPECT_EQ(stepHead(180), RESULT_OK);
    EXPECT_EQ(fakes.notifications.size(), 3u);
    EXPECT_TRUE(fakes.armed(gContext.timers.statusPollTimer));
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.size(), 4u);
}

TEST_F(Step, IsEndedByAStopThatComesRightAfterItsBeginStep)
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
    EXPECT_EQ(gContext.motion.motion_active.load(), 0);
}

TEST_F(Step, AFailureStartsNoThreadAndLeavesNoStepBehind)
{
    fakeMotor.status[TILT].running = 1;
    fakeMotor.fail(PAN, MOTOR_IOC_STOP);
    EXPECT_EQ(stepHead(0), ERR_DEVICE);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{stop(PAN)})) << "neither tilt's stop nor a move";
    fakeMotor.failing.clear();
    fakeMotor.fail(TILT, MOTOR_IOC_MOVE);
    EXPECT_EQ(stepHead(0), ERR_DEVICE);
    EXPECT_EQ(fakes.worker, nullptr);
    expectCleared();
    fakeMotor.failing.clear();
    fakes.threadCreationFails = true;
    EXPECT_EQ(stepHead(0), ERR_DEVICE);
    expectCleared();
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
    fakes.threadCreationFails = false;
    EXPECT_EQ(stepHead(0), RESULT_OK);
    EXPECT_NE(fakes.worker, nullptr);
}

/// Every command that drives the head, whether it finds the axes running or, at the limit, at rest.
TEST_F(Step, IsCancelledByEveryOtherMotionAndStopsNothingAfterwards)
{
    const struct {
        const char* name;
        std::function<ResultCode()> run;
    } commands[] = {
        {"move", [] { return moveHead(-1, 0); }},
        {"moveTo", [] { return moveHeadTo(1, 1); }},
        {"stop", [] { return stopHead(); }},
        {"startPanorama", [] { return panoramaStart(); }},
        {"movePanorama", [] { return panoramaMove(-1, 0); }},
        {"targetTrack", [] { return fakeMotor.status[PAN].running ? stopHead() : trackTarget(-1, 0, 1, 1); }},
        {"targetTrackBack",
         [] {
             gContext.motion.motion_origin.store(ORIGIN_TRACK);
             return moveToLastPostion();
         }},
    };
    for (const auto& command : commands) {
        for (const int32_t running : {0, 1}) {
            resetDaemon();
            storePosition(10, 10);
            EXPECT_EQ(stepHead(0), RESULT_OK);
            fakeMotor.status[PAN].running = running;
            fakes.onSleep = [&] {
                if (fakes.sleeps != 5)
                    return;
                EXPECT_EQ(command.run(), RESULT_OK) << command.name;
                EXPECT_EQ(active(), 0) << command.name << " " << running;
                fakeMotor.requests.clear();
            };
            fakes.runWorker();
            EXPECT_EQ(fakes.sleeps, 5) << command.name;
            EXPECT_TRUE(driven().empty()) << command.name << ": the old thread's stop would end the new motion";
        }
    }
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
    EXPECT_EQ(active(), 1);

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

TEST_F(Step, TheDaemonsEndStopsItAtOnceUnlessItWasCancelled)
{
    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.onSleep = [] { fakes.stopping = fakes.sleeps == 3; };
    fakes.runWorker();
    EXPECT_EQ(fakes.sleeps, 3);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);

    EXPECT_EQ(stepHead(0), RESULT_OK);
    fakes.stopping = true; // before the thread has run
    fakes.notifications.clear();
    fakes.runWorker();
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 4u);
    EXPECT_TRUE(fakes.notifications.empty());

    CalibrationTarget targets[AXIS_COUNT]{};
    gContext.calibrationArg = targets;
    EXPECT_EQ(stepHead(0), RESULT_OK);
    EXPECT_EQ(fakes.call(ubusManualCalibrate), RESULT_OK);
    EXPECT_EQ(active(), 0) << "cancelled, even at rest";
    gContext.calibrationArg = nullptr;
}

} // namespace
