#include "fakes/fake_motor.h"
#include "fakes/fake_surroundings.h"
#include "motion/move.h"
#include "motion/quiet_period.h"
#include "motor/motion_state.h"
#include "ubus/notify.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

namespace {

class Move : public testing::Test {
protected:
    Timers& timers = gContext.timers;

    void SetUp() override
    {
        resetDaemon();
    }
    /// What the last move requests told pan and tilt.
    static std::pair<int32_t, int32_t> driven()
    {
        const auto moves = fakeMotor.sent(MOTOR_IOC_MOVE);
        if (moves.size() < 2)
            return {-999999, -999999};
        return {moves[moves.size() - 2].steps, moves[moves.size() - 1].steps};
    }
    /// Expects that a refused command left the head, its state and its timers alone.
    void expectUntouched()
    {
        EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_MOVE).empty());
        EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_STOP).empty());
        EXPECT_TRUE(fakes.notifications.empty());
        EXPECT_FALSE(fakes.armed(timers.statusPollTimer));
        EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
    }
};

TEST_F(Move, GoesByTheDisplacementWithTheConfiguredSpeed)
{
    EXPECT_EQ(moveHead(10, -5), RESULT_OK);
    const auto moves = fakeMotor.sent(MOTOR_IOC_MOVE);
    ASSERT_EQ(moves.size(), 2u);
    EXPECT_EQ(moves[0], (FakeRequest{PAN, MOTOR_IOC_MOVE, 0, 100}));
    EXPECT_EQ(moves[1], (FakeRequest{TILT, MOTOR_IOC_MOVE, 0, -50}));
    EXPECT_EQ(fakes.timers[&timers.saveStepsTimer].firstNs, 10'000'000'000);
    EXPECT_EQ(fakes.timers[&timers.saveStepsTimer].intervalNs, 10'000'000'000);
}

TEST_F(Move, FollowsTheFlipSigns)
{
    const std::pair<int32_t, int32_t> expected[4] = {{100, 50}, {-100, 50}, {100, -50}, {-100, -50}};
    for (int32_t type = 0; type < 4; ++type) {
        gContext.image.imageFlipType.store(type);
        EXPECT_EQ(moveHead(10, 5), RESULT_OK);
        EXPECT_EQ(driven(), expected[type]) << type;
    }
}

TEST_F(Move, IsCutAtTheLimitsHoweverFarItIsAsked)
{
    EXPECT_EQ(moveHead(1000, 1000), RESULT_OK);
    EXPECT_EQ(driven(), (std::pair{1500, 610}));
    gContext.image.imageFlipType.store(3);
    constexpr int32_t lowest = std::numeric_limits<int32_t>::min();
    EXPECT_EQ(moveHead(lowest, lowest), RESULT_OK) << "-2147483648 times -1 must not wrap";
    EXPECT_EQ(driven(), (std::pair{1500, 610}));
}

TEST_F(Move, IsRefusedWhenAnAxisHasNoWayToGo)
{
    fakeMotor.status[PAN].position = 3000;
    fakeMotor.status[TILT].running = 1;
    EXPECT_EQ(moveHead(1, 0), ERR_NO_TRAVEL);
    EXPECT_EQ(moveHead(1, 5), ERR_NO_TRAVEL);
    expectUntouched();
    EXPECT_EQ(moveHead(0, 5), RESULT_OK);
    EXPECT_EQ(driven(), (std::pair{0, 50}));
}

TEST_F(Move, OfNothingStillHaltsAndBegins)
{
    fakeMotor.status[PAN].running = 1;
    EXPECT_EQ(moveHead(0, 0), RESULT_OK);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);
    EXPECT_EQ(driven(), (std::pair{0, 0}));
    EXPECT_EQ(fakes.notifications.size(), 1u);
}

TEST_F(Move, ToATargetSendsTheStatusBackWithTheSteps)
{
    fakeMotor.status[PAN].speed = 7;
    EXPECT_EQ(moveHeadTo(30, 0), RESULT_OK);
    const auto moves = fakeMotor.sent(MOTOR_IOC_MOVE);
    EXPECT_EQ(moves[0], (FakeRequest{PAN, MOTOR_IOC_MOVE, 7, 300})); // 1500 + 30 * 10 - 1500
    EXPECT_EQ(moves[1], (FakeRequest{TILT, MOTOR_IOC_MOVE, 4, 0}));
}

TEST_F(Move, TestsTheTargetsLimitsBeforeEverythingElse)
{
    gContext.motion.calibrating.store(1);
    EXPECT_EQ(moveHeadTo(151, 0), ERR_PARAM);
    EXPECT_EQ(moveHeadTo(0, 62), ERR_PARAM);
    EXPECT_EQ(moveHeadTo(std::numeric_limits<int32_t>::min(), 0), ERR_PARAM);
    EXPECT_EQ(moveHeadTo(150, 61), ERR_CALIBRATING);
    gContext.image.imageFlipType.store(2);
    EXPECT_EQ(moveHeadTo(0, 39), ERR_CALIBRATING) << "-39 once the sign is applied";
    EXPECT_EQ(moveHeadTo(0, 40), ERR_PARAM);
    expectUntouched();
    EXPECT_TRUE(fakes.reports.empty());
}

TEST_F(Move, RefusalsAndFailedReadsLeaveTheHeadAlone)
{
    lensMaskSetEnabled(1);
    EXPECT_EQ(moveHead(1, 1), ERR_LENS_MASK);
    EXPECT_EQ(moveHeadTo(1, 1), ERR_LENS_MASK);
    EXPECT_EQ(stopHead(), ERR_LENS_MASK);
    lensMaskSetEnabled(0);
    fakeMotor.fail(TILT, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(moveHead(1, 1), ERR_DEVICE);
    EXPECT_EQ(moveHeadTo(1, 1), ERR_DEVICE);
    expectUntouched();
}

TEST_F(Move, AFailedHaltEndsTheCommandBeforeItBegins)
{
    fakeMotor.status[TILT].running = 1;
    fakeMotor.fail(TILT, MOTOR_IOC_STOP);
    EXPECT_EQ(moveHeadTo(1, 1), ERR_DEVICE);
    EXPECT_TRUE(fakes.notifications.empty());
    EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_MOVE).empty());
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
}

TEST_F(Move, AFailedMoveRequestStillEndsInIdle)
{
    fakeMotor.fail(PAN, MOTOR_IOC_MOVE);
    EXPECT_EQ(moveHead(1, 1), ERR_DEVICE);
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer));
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.size(), 2u);
    EXPECT_EQ(gContext.motion.motion_active.load(), 0);
}

TEST_F(Move, StopAtRestSendsBothStopsAndArmsTheSaveOnly)
{
    EXPECT_EQ(stopHead(), RESULT_OK);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);
    EXPECT_EQ(fakeMotor.requests.size(), 2u) << "no status is read";
    EXPECT_TRUE(fakes.notifications.empty());
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer));
    EXPECT_FALSE(fakes.armed(timers.usrMoveStopTimer));
}

TEST_F(Move, AFailedStopStillEndsTheMotion)
{
    EXPECT_EQ(moveHead(1, 1), RESULT_OK);
    fakeMotor.fail(PAN, MOTOR_IOC_STOP);
    EXPECT_EQ(stopHead(), ERR_DEVICE);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 1u);
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_USER}));
    EXPECT_FALSE(fakes.armed(timers.statusPollTimer));
}

TEST_F(Move, WithRecoveryOffNothingArmsTheSave)
{
    gContext.position.power_off_recover.store(0);
    EXPECT_EQ(moveHead(1, 1), RESULT_OK);
    EXPECT_EQ(moveHeadTo(1, 1), RESULT_OK);
    EXPECT_EQ(stopHead(), RESULT_OK);
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
}

TEST_F(Move, TheQuietPeriodsEndOnlyWhenTheHeadRests)
{
    timerStart(&timers.usrMoveStopTimer, 1, 1);
    timerStart(&timers.scanMoveStopTimer, 1, 1);
    gContext.motion.user_moved_recently.store(1);
    gContext.tour.scanStepDone.store(0);
    gContext.motion.motion_active.store(1);
    usrMoveStopTimeout(nullptr);
    scanMoveStopTimeout(nullptr);
    EXPECT_EQ(gContext.motion.user_moved_recently.load(), 1);
    EXPECT_EQ(gContext.tour.scanStepDone.load(), 0);
    EXPECT_TRUE(fakes.armed(timers.usrMoveStopTimer) && fakes.armed(timers.scanMoveStopTimer));
    gContext.motion.motion_active.store(0);
    // A motion that ended in between would arm the timer for its own rest, and lose it.
    fakes.beforeTimerStop = [] {
        std::thread([] {
            const bool isFree = gContext.motion.MotionStateLock.tryLock();
            EXPECT_FALSE(isFree);
            if (isFree)
                gContext.motion.MotionStateLock.unlock();
        }).join();
    };
    usrMoveStopTimeout(nullptr);
    scanMoveStopTimeout(nullptr);
    EXPECT_EQ(gContext.motion.user_moved_recently.load(), 0);
    EXPECT_EQ(gContext.tour.scanStepDone.load(), 1);
    EXPECT_FALSE(fakes.armed(timers.usrMoveStopTimer) || fakes.armed(timers.scanMoveStopTimer));
}

TEST_F(Move, AnExpiryThatWaitedWhileTheHeadCameToRestDoesNotEndTheNewQuietPeriod)
{
    // An expiry that reaches the lock only after the rest has begun is a new one to everybody: try until one waits.
    const auto ignored = [&] {
        gContext.motion.user_moved_recently.store(1);
        std::atomic<bool> expired{false};
        gContext.motion.MotionStateLock.lock();
        std::thread expiry([&] {
            expired.store(true);
            usrMoveStopTimeout(nullptr);
        });
        const auto soon = std::chrono::steady_clock::now() + std::chrono::milliseconds(2); // sleeps are faked here
        while (!expired.load() || std::chrono::steady_clock::now() < soon)
            std::this_thread::yield();
        quietPeriodsStart();
        gContext.motion.MotionStateLock.unlock();
        expiry.join();
        return gContext.motion.user_moved_recently.load() == 1 && fakes.armed(timers.usrMoveStopTimer);
    };
    bool once = false;
    for (int attempt = 0; attempt < 50 && !once; ++attempt)
        once = ignored();
    EXPECT_TRUE(once);
}

} // namespace
