#include "fakes/motion_fixture.h"
#include "motion/move.h"
#include "motion/quiet_period.h"
#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

namespace {

using Move = MotionTest;

TEST_F(Move, GoesByTheDisplacementCutAtTheLimitsWithTheConfiguredSpeed)
{
    constexpr int32_t LOWEST = std::numeric_limits<int32_t>::min();
    const struct {
        int32_t flipType, x, y, pan, tilt;
    } cases[] = {{0, 10, 5, 100, 50},   {1, 10, 5, -100, 50},       {2, 10, 5, 100, -50},
                 {3, 10, 5, -100, -50}, {0, 1000, 1000, 1500, 610}, {3, LOWEST, LOWEST, 1500, 610},
                 {0, 0, 0, 0, 0}};
    for (const auto& one : cases) {
        resetDaemon();
        gContext.image.imageFlipType.store(one.flipType);
        EXPECT_EQ(moveHead(one.x, one.y), RESULT_OK);
        EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 0, one.pan), move(TILT, 0, one.tilt)})) << one.x;
        EXPECT_EQ(fakes.timers[&timers.saveStepsTimer].firstNs, 10'000'000'000);
        EXPECT_EQ(fakes.timers[&timers.saveStepsTimer].intervalNs, 10'000'000'000);
        EXPECT_EQ(fakes.notifications.size(), 1u);
    }
}

TEST_F(Move, IsRefusedWhenAnAxisHasNoWayToGo)
{
    standAt(3000, 610);
    fakeMotor.status[TILT].running = 1;
    EXPECT_EQ(moveHead(1, 0), ERR_NO_TRAVEL);
    EXPECT_EQ(moveHead(1, 5), ERR_NO_TRAVEL);
    expectUntouched();
    EXPECT_EQ(moveHead(0, 5), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{stop(PAN), stop(TILT), move(PAN, 0, 0), move(TILT, 0, 50)}));
}

TEST_F(Move, ToATargetSendsTheStatusBackWithTheSteps)
{
    fakeMotor.status[PAN].speed = 7;
    EXPECT_EQ(moveHeadTo(30, 0), RESULT_OK); // 1500 + 30 * 10 - 1500
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 7, 300), move(TILT, 4, 0)}));
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

TEST_F(Move, StopAtRestSendsBothStopsAndArmsTheSaveOnly)
{
    EXPECT_EQ(stopHead(), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{stop(PAN), stop(TILT)}));
    EXPECT_EQ(fakeMotor.requests.size(), 2u) << "no status is read";
    EXPECT_TRUE(fakes.notifications.empty());
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer));
    EXPECT_FALSE(fakes.armed(timers.usrMoveStopTimer));
    timerStop(&timers.saveStepsTimer);
    gContext.position.power_off_recover.store(0);
    for (const ResultCode code : {moveHead(1, 1), moveHeadTo(1, 1), stopHead()})
        EXPECT_EQ(code, RESULT_OK);
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer)) << "nobody asks for the position";
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
